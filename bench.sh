#!/usr/bin/env bash
# Builds the release library and runs its benchmarks; arguments go to Google Benchmark
# (--benchmark_filter=REGEX, --benchmark_repetitions=N, …).
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)

"$root/cmake/install-packages.sh" linux
"$root/cmake/build-quietly.sh" release membench unpackbench
"$root/build/release/bin/membench" "$@"
exec "$root/build/release/bin/unpackbench" "$@"
