#!/usr/bin/env bash
# Runs tests of the release build under valgrind's memcheck.
#
#   cmake/memcheck.sh [<test program>...]     for example: cmake/memcheck.sh heap_test sink_test
#
# Installs missing packages. Without names it runs all test programs with GoogleTest, except those that
# cause faults or kill processes, and those that take too long under valgrind. A program fails on an
# error or a lost block; logs are in build/logs/memcheck. Only the suppressions of check/valgrind.supp,
# which is shipped, are used.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

cmake/install-packages.sh linux memcheck
cmake/build-quietly.sh release "$@"  # with names: only these

programs=("$@")
if ((${#programs[@]} == 0)); then
  for program in build/release/bin/*_test; do
    case ${program##*/} in
      port_guard_test) ;;                         # it tests faults
      exchange_test) ;;                           # its processes are killed
      pack_model_test | unpack_mutation_test) ;;  # millions of calls
      *) programs+=("${program##*/}") ;;
    esac
  done
fi

logs=$PWD/build/logs/memcheck
suppressions=$PWD/check/valgrind.supp
mkdir -p "$logs"
cd build/release/bin
failures=0
for program in "${programs[@]}"; do
  SECONDS=0
  outcome=ok
  # Death tests write into protected storage in a child process.
  valgrind --quiet --error-exitcode=99 --leak-check=full --errors-for-leak-kinds=definite \
    --suppressions="$suppressions" --fair-sched=yes --log-file="$logs/$program.%p.log" \
    "./$program" --gtest_filter='-*Death*' --gtest_brief=1 \
    >"$logs/$program.out" 2>&1 || outcome=FAILED
  [[ $outcome == ok ]] || failures=$((failures + 1))
  printf '%-28s %-6s %4d s\n' "$program" "$outcome" "$SECONDS"
done
exit $((failures > 0))
