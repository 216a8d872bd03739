#!/usr/bin/env bash
# Runs two builds of the library on the same random cases and shows where they differ: results,
# bytes, trace records, host calls.
#
#   tests/compare-builds.sh OLD.so NEW.so [COUNT] [ARGUMENT...]
#
# COUNT is the number of cases of each kind (graphs, texts, mutants, calls), 10000 unless given.
# Arguments go to tests/differential/compare_builds.py: --seed N, --kind KIND, --differences FILE.
# Installs what is missing. Ends with 1 when a case differs.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

if (($# < 2)); then
  sed -n '2,/^set/{/^set/d;s/^# \{0,1\}//;p}' "${BASH_SOURCE[0]}" >&2
  exit 2
fi
old=$(realpath "$1")
new=$(realpath "$2")
shift 2
count=10000
if (($#)) && [[ $1 =~ ^[0-9]+$ ]]; then
  count=$1
  shift
fi

"$root/cmake/install-packages.sh" linux
"$root/cmake/build-quietly.sh" release replay_cases
exec python3 "$root/tests/differential/compare_builds.py" \
  --program "$root/build/release/bin/replay_cases" "$old" "$new" --count "$count" "$@"
