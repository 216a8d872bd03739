#!/bin/sh
# Runs a tool that a target of this tree needs and that may not be installed.
#
#   cmake/run-tool.sh <target> <Debian package> <job of install-packages.sh> <program> [<argument>...]
target=$1
package=$2
job=$3
shift 3
if ! command -v "$1" >/dev/null; then
  echo "The target $target needs $1, which is not installed (Debian package $package)." >&2
  echo "cmake/install-packages.sh $job installs it." >&2
  exit 1
fi
exec "$@"
