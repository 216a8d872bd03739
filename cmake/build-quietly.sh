#!/usr/bin/env bash
# Configures and builds a preset. The output goes to build/logs and is shown only on failure.
#
#   cmake/build-quietly.sh <preset> [<target>...]
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

preset=$1
shift
log=build/logs/$preset.log
mkdir -p build/logs

build() {
  cmake --preset "$preset" && cmake --build --preset "$preset" ${1:+--target "$@"}
}

echo "== $preset: building" >&2
if ! build "$@" >"$log" 2>&1; then
  tail -n 100 "$log" >&2
  echo "== $preset: the build failed; the whole output is in $log" >&2
  exit 1
fi
