#!/usr/bin/env bash
# Makes the zip, unpacks it and looks at what is in it.
#   check_package.sh BUILD-FOLDER DLL [TARGET...]      the targets beside the module's that were built
set -euo pipefail
build=$1 dll=$2
shift 2
built=" $* "
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT

rm -rf "$build/package"
cpack --config "$build/CPackConfig.cmake" -B "$build/package" >"$folder/log" || { cat "$folder/log"; exit 1; }
cd "$build/package"
zip=$(echo velkor-pkcs11-*-windows-*.zip)
sha256sum --check --quiet "$zip.sha256"

unzip -q "$zip" -d "$folder"
cd "$folder/${zip%.zip}"
# file TARGET PATH: of that target, where it was built.
file() { [[ $built != *" $1 "* ]] || echo "$2"; }
expected() {
    cat <<END
./README.txt
./SHA256SUMS
./bin/velkor-pkcs11-strict.dll
./bin/velkor-pkcs11.dll
./include/velkor/cryptoki.h
./include/velkor/device_service.h
./include/velkor/record_fields.h
./include/velkor/velkor_extensions.h
./velkor.spdx
END
    file softkey ./bin/VelkorDSCLibrary.dll
    file velkor-softkey ./bin/velkor-softkey.exe
    file velkor-trace ./bin/velkor-trace.exe
}
diff --unified=0 <(expected | LC_ALL=C sort) <(find . -type f | LC_ALL=C sort)
sha256sum --check --quiet --strict SHA256SUMS
[ "$(wc -l <SHA256SUMS)" -eq $(($(find . -type f | wc -l) - 1)) ]

# Packing leaves the module what it is.
exports() { llvm-readobj --coff-exports "$1" | grep 'Name:'; }
[ "$(exports bin/velkor-pkcs11.dll)" = "$(exports "$dll")" ]
