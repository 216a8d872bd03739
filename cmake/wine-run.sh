#!/usr/bin/env bash
# Runs a Windows program under Wine, without Wine's messages and in a prefix of this tree (build/wine),
# which is made at first use. CTest and run.sh start every Windows program with it.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
export WINEPREFIX=${WINEPREFIX:-$root/build/wine}
export WINEDEBUG=${WINEDEBUG:--all}
export WINEDLLOVERRIDES=${WINEDLLOVERRIDES:-mscoree,mshtml=}  # asks for no Mono and no Gecko
export LC_ALL=C.UTF-8  # file names are UTF-8, whatever the user's language
unset DISPLAY

if ! command -v wine >/dev/null; then
  echo "wine-run.sh: wine is not installed: install the Debian packages wine and wine64" >&2
  exit 127
fi

# Programs that start at the same moment must not set the prefix up twice.
makePrefix() {
  mkdir -p "$WINEPREFIX"
  exec 9>"$WINEPREFIX.lock"
  flock 9
  if [[ ! -e $WINEPREFIX/complete ]]; then
    wineboot --init </dev/null >/dev/null 2>&1 9>&-
    wineserver -w 9>&-  # until the registry is on disk
    touch "$WINEPREFIX/complete"
  fi
  exec 9>&-
}

[[ -e $WINEPREFIX/complete ]] || makePrefix
# The first program after a while starts Wine's services, and they keep its output open for some
# seconds after it has ended. CTest would wait for that, so a program without output runs first. It
# fails if those services are just ending; the next program starts new ones.
wine cmd /c exit </dev/null >/dev/null 2>&1 || sleep 1

status=0
wine "$@" || status=$?
# When Wine's loader gives up on a program, it ends without a word, with the low byte of the loader's
# status: of STATUS_DLL_NOT_FOUND (0xC0000135), STATUS_DLL_INIT_FAILED (0xC0000142) and the like. A
# program that lacks nothing has ended in such silence. No program of this tree ends with these
# codes, nor does a crash. The program has read and written nothing, so it is noted and started once
# more, with the loader's messages.
case $status in
  23 | 24 | 34 | 52 | 53 | 57 | 66 | 67 | 123)
    echo "$(date -Is) $status $1" >>"$WINEPREFIX.restarts"
    WINEDEBUG=$WINEDEBUG,err+module exec wine "$@"
    ;;
esac
exit "$status"
