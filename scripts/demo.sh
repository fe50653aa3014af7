#!/usr/bin/env bash
# Builds the module and shows it at work, with the tests' double standing in for the device library. Everything that
# is shown is written below build/demo.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh

folder=$PWD/build/demo
rm -rf "$folder"
mkdir -p "$folder/tmp"
cmake --preset release >"$folder/build.log"
cmake --build --preset release --target velkor-pkcs11 show_module >>"$folder/build.log" || { cat "$folder/build.log"; exit 1; }

export TMPDIR=$folder/tmp VELKOR_CONFIG=$folder/velkor.conf
echo "logLevel = 3" >"$VELKOR_CONFIG"
# The log makes its folders one level per line; made here, so that no line of this short run is lost.
mkdir -p "$TMPDIR/Brenmoor/show_module"

echo "== What the module says of itself"
build/release/bin/show_module build/release/lib/velkor-pkcs11.so
echo
echo "== The log it wrote"
cat "$TMPDIR"/Brenmoor/show_module/*.LOG
