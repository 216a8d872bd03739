#!/usr/bin/env bash
# Builds the library for Linux and Windows and makes packages for Debian, including one for Python, and
# a zip for Windows, in build/packages. The maintainer of the packages is MEM_MAINTAINER:
#
#   cmake --preset release -DMEM_MAINTAINER='NAME <ADDRESS>'
#
#   ./package.sh [release] [windows]
#
# Installs missing packages.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")"

presets=("$@")
((${#presets[@]})) || presets=(release windows)
jobs=()
for preset in "${presets[@]}"; do
  case $preset in
    release) jobs+=(linux docs packages) ;;
    windows) jobs+=(windows) ;;
    *)
      echo "package.sh: unknown preset \"$preset\": use release or windows" >&2
      exit 2
      ;;
  esac
done
cmake/install-packages.sh "${jobs[@]}"

for preset in "${presets[@]}"; do
  cmake/build-quietly.sh "$preset" installed_files
  log=build/logs/$preset-package.log
  if ! cpack --preset "$preset" >"$log" 2>&1; then
    tail -n 20 "$log" >&2
    echo "== $preset: making the package failed; the whole output is in $log" >&2
    exit 1
  fi
  sed -n 's/^CPack: - package: \(.*\) generated\.$/\1/p' "$log"
  if [[ $preset == release ]]; then
    maintainer=$(sed -n 's/^MEM_MAINTAINER:STRING=//p' build/release/CMakeCache.txt)
    cmake/python-package.sh build/packages "$maintainer"
  fi
done
