#!/usr/bin/env bash
# Runs all tests on a build that counts, and tells which lines and branches of the library they ran.
#
#   ./coverage.sh [ctest argument...]     for example: ./coverage.sh -R sink
#
# Installs what is missing. Prints a table by file and leaves build/coverage/report: index.html with
# every line, summary.txt with the table. A call that cannot throw has a branch for the exception in
# the compiler's eyes; such branches and unreachable ones are left out.
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
gcovr --root . --filter 'SrcRes/' --object-directory build/coverage \
  --exclude-throw-branches --exclude-unreachable-branches \
  --html-details "$report/index.html" build/coverage/SrcRes
common=(--root . --filter 'SrcRes/' --object-directory build/coverage
  --exclude-throw-branches --exclude-unreachable-branches build/coverage/SrcRes)
gcovr "${common[@]}" --output "$report/lines.txt"
gcovr "${common[@]}" --branches --output "$report/branches.txt"
cat "$report/lines.txt" "$report/branches.txt"
exit $failed
