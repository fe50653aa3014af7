#!/usr/bin/env bash
# Makes the zip, unpacks it and looks at what is in it.
#   check_package.sh BUILD-FOLDER DLL [velkor-trace]      the latter where it was built
set -euo pipefail
build=$1 dll=$2 trace=${3:-}
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT

rm -rf "$build/package"
cpack --config "$build/CPackConfig.cmake" -B "$build/package" >"$folder/log" || { cat "$folder/log"; exit 1; }
cd "$build/package"
zip=$(echo velkor-pkcs11-*-windows-*.zip)
sha256sum --check --quiet "$zip.sha256"

unzip -q "$zip" -d "$folder"
cd "$folder/${zip%.zip}"
grep -v -e "^$" <<END | diff --unified=0 - <(find . -type f | LC_ALL=C sort)
./README.txt
./SHA256SUMS
./bin/velkor-pkcs11-strict.dll
./bin/velkor-pkcs11.dll
${trace:+./bin/velkor-trace.exe}
./include/velkor/cryptoki.h
./include/velkor/device_service.h
./include/velkor/record_fields.h
./include/velkor/velkor_extensions.h
END
sha256sum --check --quiet --strict SHA256SUMS
[ "$(wc -l <SHA256SUMS)" -eq $(($(find . -type f | wc -l) - 1)) ]

# Packing leaves the module what it is.
exports() { llvm-readobj --coff-exports "$1" | grep 'Name:'; }
[ "$(exports bin/velkor-pkcs11.dll)" = "$(exports "$dll")" ]
