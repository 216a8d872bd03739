#!/usr/bin/env bash
# Builds the library for Linux and Windows and makes a Debian package and a zip of it, in
# build/packages; beside the Debian package one of the Python package.
#
#   ./package.sh [release] [windows]
#
# Installs what is missing.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")"

presets=("$@")
((${#presets[@]})) || presets=(release windows)
jobs=()
for preset in "${presets[@]}"; do
  case $preset in
    release) jobs+=(linux packages) ;;
    windows) jobs+=(windows) ;;
    *)
      echo "package.sh: there is no package of \"$preset\" (release, windows)" >&2
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
    echo "== $preset: the package failed; its whole output is in $log" >&2
    exit 1
  fi
  sed -n 's/^CPack: - package: \(.*\) generated\.$/\1/p' "$log"
  if [[ $preset == release ]]; then
    cmake/python-package.sh build/packages
  fi
done
