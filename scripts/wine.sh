#!/usr/bin/env bash
# Runs a Windows program of one architecture under Wine, in a prefix of this clone.
#   scripts/wine.sh x64|arm64 PROGRAM ARGUMENT...
#   scripts/wine.sh x64|arm64 --start | --stop      around a run of many programs: without it the first one takes
#                                                   minutes and every other half a second more
set -euo pipefail
architecture=$1
shift
here=$(cd "$(dirname "$0")/.." && pwd)

case $architecture in
x64) wine=/usr/lib/wine ;;
arm64)
    root=${VELKOR_WINDOWS_TOOLS:-${XDG_CACHE_HOME:-$HOME/.cache}/velkor-windows}/arm64-root
    wine=$root/usr/lib/wine
    export QEMU_LD_PREFIX=$root
    ;;
*)
    echo "wine.sh: x64 or arm64, not '$architecture'" >&2
    exit 2
    ;;
esac

export WINEPREFIX=$here/build/wine-$architecture
export WINEDEBUG=-all WINEDLLOVERRIDES='mscoree,mshtml=d;winemenubuilder.exe=d'
unset DISPLAY WAYLAND_DISPLAY

case ${1:-} in
--start)
    mkdir -p "$WINEPREFIX"
    # One that an interrupted run has left would refuse the next.
    "$wine/wineserver64" -k 2>/dev/null && "$wine/wineserver64" -w || true
    # The server is started first and by itself, so that it outlives the programs and none of them waits for it.
    "$wine/wineserver64" -p600
    timeout 300 "$wine/wine64" wineboot </dev/null >"$WINEPREFIX.log" 2>&1 || { cat "$WINEPREFIX.log" >&2; exit 1; }
    ;;
--stop) "$wine/wineserver64" -k || true ;;
*)
    # By its Windows path: the emulated Wine cannot tell the one of a file that it is given by ours.
    program=$(realpath "$1")
    shift
    exec "$wine/wine64" "Z:${program//\//\\}" "$@"
    ;;
esac
