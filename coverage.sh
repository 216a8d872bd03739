#!/usr/bin/env bash
# Runs all tests on a build that counts, and tells which lines and branches of the library they ran.
#
#   ./coverage.sh [ctest argument...]     for example: ./coverage.sh -R sink
#
# Installs what is missing. Prints two tables by file, lines and branches, and leaves them in
# build/coverage/report beside index.html, which shows every line. Left out are the checks of whole
# structures, which run only in builds that validate, the branches in which an assertion would fail,
# and those that only the compiler sees, exceptions behind calls that cannot throw among them.
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
