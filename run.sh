#!/usr/bin/env bash
# Builds the library and runs the example catalog: it packs a package catalogue and prints a report;
# then a second process unpacks the file and compares the structures with the catalogue. With
# arguments the program runs once, with these. It writes only to build/, unless an argument names
# another file.
#
#   ./run.sh [--windows] [arguments of the program: build/release/bin/catalog --help lists them]
#   ./run.sh --exchange [--workers N] [--redis [URL]] [further arguments: exchange --help lists them]
#
# --windows   the Windows build of the same program, under Wine
# --exchange  several processes that send each other packed chains, on Linux only: through pipes, a
#             private Redis server (--redis) or that of a URL
#
# Installs missing packages.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)

if [[ ${1-} == --help ]]; then
  sed -n '2,/^set /s/^# \{0,1\}//p' "${BASH_SOURCE[0]}"
  exit
fi

preset=release
jobs=linux
targets=(catalog memtool minimal_host)  # the README uses these next
once=
program=("$root/build/release/bin/catalog")
if [[ ${1-} == --windows ]]; then
  shift
  if [[ ${1-} == --exchange ]]; then
    echo "run.sh: --exchange does not work with --windows: it needs the processes and sockets of" \
      "Linux" >&2
    exit 2
  fi
  preset=windows
  jobs=windows
  targets=(catalog)
  program=("$root/cmake/wine-run.sh" "$root/build/windows/bin/catalog.exe")
elif [[ ${1-} == --exchange ]]; then
  shift
  once=yes
  targets=(exchange)
  program=("$root/build/release/bin/exchange")
fi

"$root/cmake/install-packages.sh" "$jobs"
"$root/cmake/build-quietly.sh" "$preset" "${targets[@]}"
if (($# == 0)) && [[ -z $once ]]; then
  "${program[@]}"
  echo
  set -- --read
fi
exec "${program[@]}" "$@"
