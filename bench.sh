#!/usr/bin/env bash
# Builds the release library and runs its benchmarks; arguments go to Google Benchmark
# (--benchmark_filter=REGEX, --benchmark_repetitions=N, …).
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)

"$root/cmake/install-packages.sh" linux
programs=(heapbench membench portbench sinkbench unpackbench)
"$root/cmake/build-quietly.sh" release "${programs[@]}"
for program in "${programs[@]}"; do "$root/build/release/bin/$program" "$@"; done
