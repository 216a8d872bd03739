#!/usr/bin/env bash
# Builds and tests everything, or only the presets that are named.
#
#   ./test.sh [release] [debug] [tsan] [fuzz] [windows] [clang]
#
# release  Linux, as it is shipped
# debug    Linux, under the address and undefined-behaviour sanitizers
# tsan     Linux, under the thread sanitizer: the tests that run several threads
# fuzz     Linux, the fuzz targets for a minute each
# windows  Windows, cross-built, under Wine
# clang    Linux, the library built by clang: the tests of code that a compiler could get wrong
#
# Installs missing packages. Ends with a summary, and with 1 if anything failed.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")"

presets=("$@")
((${#presets[@]})) || presets=(release debug tsan fuzz windows clang)
jobs=()
for preset in "${presets[@]}"; do
  case $preset in
    release) jobs+=(linux python docs packages) ;;
    debug | tsan) jobs+=(linux) ;;
    fuzz) jobs+=(fuzz) ;;
    windows) jobs+=(windows) ;;
    clang) jobs+=(linux lint) ;;
    *)
      echo "test.sh: unknown preset \"$preset\": use release, debug, tsan, fuzz, windows or clang" >&2
      exit 2
      ;;
  esac
done
cmake/install-packages.sh "${jobs[@]}"

runPreset() {
  cmake/build-quietly.sh "$1" || return
  echo "== $1: testing"
  ctest --preset "$1"
}

summary=()
failures=0
for preset in "${presets[@]}"; do
  SECONDS=0
  if runPreset "$preset"; then
    outcome=ok
  else
    outcome=FAILED
    failures=$((failures + 1))
  fi
  summary+=("$(printf '%-8s %-6s %4d s' "$preset" "$outcome" "$SECONDS")")
done

echo
echo "== summary"
printf '%s\n' "${summary[@]}"
exit $((failures > 0))
