#!/usr/bin/env bash
# Makes the manual and the reference of the headers as a site, in build/release/site, and prints the
# path of its first page.
#
#   ./docs.sh
#
# Installs missing packages.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")"
cmake/install-packages.sh linux docs
cmake/build-quietly.sh release docs
echo "$PWD/build/release/site/index.html"
