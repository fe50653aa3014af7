#!/usr/bin/env bash
# Plays the worked example of docs/logging.md: a host that locks a PIN, from the host's message to the cause. Needs the
# release build and pkcs11-tool; writes below a temporary folder only.
#   scripts/trace-example.sh [BUILD]      build/release when none is named
set -euo pipefail
cd "$(dirname "$0")/.."
build=$(realpath "${1:-build/release}")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export TMPDIR=$work VELKOR_SOFTKEY_HOME=$work/keys VELKOR_CONFIG=$work/velkor.conf PIN=1234 SO_PIN=12345678
echo "logLevel = 3" >"$VELKOR_CONFIG"
mkdir -p "$work/Brenmoor/pkcs11-tool" # Or the first two lines would be lost.
"$build/bin/velkor-softkey" create --serial NIGHT1 --label night --tries 2 --pin-env PIN --so-pin-env SO_PIN >"$work/made"

run() {
    echo "\$ $*" | sed "s|$build/[a-z]*/||g"
    "$@" 2>&1 | sed "s|$work|/tmp/night|g" || true
}

for pin in 9999 9999 1234; do
    run pkcs11-tool --module "$build/lib/velkor-pkcs11.so" --token-label night --login --pin "$pin" \
        --list-objects
done
run "$build/bin/velkor-trace" --errors | sed 's/ The PIN was wrong\..*//'
run "$build/bin/velkor-trace" summary | sed '/^$/,$d'
run "$build/bin/velkor-trace" explain CKR_PIN_LOCKED
