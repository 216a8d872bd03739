#!/usr/bin/env bash
# Measures the library in comparison with what programmers use instead, some workloads of its own and
# the checking layer, and writes the figures into docs/performance.md and its charts. Takes some
# minutes; the machine should do nothing else. With --page it measures and writes only the tables of
# one of the programs.
#
#   ./bench.sh
#   ./bench.sh --page peerbench|workloadbench|checkbench
#
# With --against it compares the speed of this tree's library with another build of it: each benchmark
# of the library runs in processes that take turns (bench/against.py). Writes a table to stdout.
#
#   ./bench.sh --against OLD.so [--seconds N] [--rows REGEX]
#
# With the name of a benchmark program it runs only that one and writes nothing; further arguments are
# passed to Google Benchmark (--benchmark_filter=REGEX, --benchmark_repetitions=N, …).
#
#   ./bench.sh checkbench|heapbench|membench|portbench|sinkbench|unpackbench|workloadbench|peerbench [arguments]
#   ./bench.sh exchange_sizes [CATALOGUE]     bytes of examples/exchange's messages in other forms
#
# Installs missing packages.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
build=$root/build/bench

"$root/cmake/install-packages.sh" linux bench

programs=(peerbench workloadbench checkbench)
if [[ ${1-} == --page ]]; then
  programs=("${2:?--page needs the name of a program: peerbench, workloadbench or checkbench}")
elif [[ ${1-} == --against ]]; then
  old=${2:?--against needs the file of a library}
  shift 2
  programs=(peerbench workloadbench)
  "$root/cmake/build-quietly.sh" bench "${programs[@]}"
  exec "$root/bench/against.py" "$old" "$build/bin/QJ7MEM00.so" "${programs[@]/#/$build/bin/}" "$@"
elif (($#)); then
  program=$1
  shift
  "$root/cmake/build-quietly.sh" bench "$program"
  exec "$build/bin/$program" "$@"
fi

"$root/cmake/build-quietly.sh" bench "${programs[@]}"
figures=()
measure() {
  echo "== measuring: $1" >&2
  "$build/bin/$1" --benchmark_out="$build/$1.json" --benchmark_out_format=json \
    --benchmark_repetitions=9 --benchmark_min_time=0.05 \
    --benchmark_enable_random_interleaving=true \
    >"$build/$1.log" || {
    grep -a 'ERROR' "$build/$1.log" >&2
    exit 1
  }
  figures+=("$build/$1.json")
}
for program in "${programs[@]}"; do
  measure "$program"
done
# Debian's own Python finds the packages that install-packages.sh installs.
/usr/bin/python3 "$root/bench/performance.py" "$root/docs/performance.md" "${figures[@]}"
echo "== wrote docs/performance.md" >&2
