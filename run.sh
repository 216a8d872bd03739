#!/usr/bin/env bash
# Builds the library and runs its main job: packs a package catalogue and prints a report; then a
# second process turns the file back into structures and compares. With arguments the program runs
# once, with these. All that it writes is in build/.
#
#   ./run.sh [--windows] [arguments of the program; --help lists them]
#
# --windows  the Windows build of the same program, under Wine
#
# Installs what is missing.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)

preset=release
jobs=linux
targets=(catalog memtool minimal_host)  # what the README goes on with
program=("$root/build/release/bin/catalog")
if [[ ${1-} == --windows ]]; then
  shift
  preset=windows
  jobs=windows
  targets=(catalog)
  program=("$root/cmake/wine-run.sh" "$root/build/windows/bin/catalog.exe")
fi

"$root/cmake/install-packages.sh" "$jobs"
"$root/cmake/build-quietly.sh" "$preset" "${targets[@]}"
if (($# == 0)); then
  "${program[@]}"
  echo
  set -- --read
fi
exec "${program[@]}" "$@"
