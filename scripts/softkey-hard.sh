#!/usr/bin/env bash
# Treats software keys badly and prints what they withstood: kills, failing writes, damaged files and journals, crowds
# of processes, searches of memory. The exit code is 0 when nothing failed.
#   scripts/softkey-hard.sh [SECONDS]    everything, with SECONDS (60) of readers beside writers
#   scripts/softkey-hard.sh --short      every kind, but few of each
set -euo pipefail
cd "$(dirname "$0")/.."
[ -f build/release/build.ninja ] || cmake --preset release >/dev/null
mkdir -p build/release
cmake --build --preset release --target softkey_hard >build/release/softkey_hard.log 2>&1 || {
    cat build/release/softkey_hard.log
    exit 1
}
exec python3 -B tests/softkey/hard "$@"
