#!/usr/bin/env bash
# Runs tests of the release build under valgrind's memcheck.
#
#   cmake/memcheck.sh [<test program>...]     for example: cmake/memcheck.sh heap_test sink_test
#
# Installs what is missing. Without names it runs every program of GoogleTest cases but those whose
# cases provoke faults or end in a child process on purpose, and those that take too long this way.
# An error or a lost block fails a program; logs are in build/logs/memcheck. Nothing is suppressed but
# what check/valgrind.supp, which is shipped, has.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

cmake/install-packages.sh linux memcheck
cmake/build-quietly.sh release "$@"  # with names these only

programs=("$@")
if ((${#programs[@]} == 0)); then
  for program in build/release/bin/*_test; do
    case ${program##*/} in
      port_guard_test) ;;                         # faults are what it is about
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
