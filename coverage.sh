#!/usr/bin/env bash
# Runs all tests on a build that counts, and reports which lines and branches of the library they ran.
#
#   ./coverage.sh [ctest argument...]     for example: ./coverage.sh -R sink
#
# Installs missing packages. Prints two tables by file, lines and branches, and writes them to
# build/coverage/report, with index.html, which shows every line. Not counted are the checks of whole
# structures, which run only in builds that validate, the branches in which an assertion would fail,
# and those that only the compiler generates, such as exceptions after calls that cannot throw.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")"

cmake/install-packages.sh linux coverage
cmake/build-quietly.sh coverage
find build/coverage -name '*.gcda' -delete

echo "== coverage: testing"
failed=0
ctest --preset coverage "$@" || failed=1

report=build/coverage/report
mkdir -p "$report"
measure() {
  gcovr --root . --filter 'SrcRes/' --exclude '.*check\.(cpp|h)' --exclude '.*/listends\.h' \
    --exclude-throw-branches --exclude-unreachable-branches \
    --exclude-branches-by-pattern '.*MEM_ASSERT.*' \
    "$@" build/coverage/SrcRes
}
measure --txt "$report/lines.txt" --html-details "$report/index.html"
measure --branches --txt "$report/branches.txt"
cat "$report/lines.txt" "$report/branches.txt"
exit $failed
