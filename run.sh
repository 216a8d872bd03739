#!/usr/bin/env bash
# Builds the library and runs its main job: packs a package catalogue and prints a report.
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
program=("$root/build/release/bin/catalog")
if [[ ${1-} == --windows ]]; then
  shift
  preset=windows
  jobs=windows
  program=("$root/cmake/wine-run.sh" "$root/build/windows/bin/catalog.exe")
fi

"$root/cmake/install-packages.sh" "$jobs"
"$root/cmake/build-quietly.sh" "$preset" catalog
exec "${program[@]}" "$@"
