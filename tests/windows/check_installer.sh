#!/usr/bin/env bash
# Makes the installer, installs it under Wine, compares what is then there with the zip, and removes it again.
#   check_installer.sh BUILD-FOLDER SOURCE-FOLDER
set -euo pipefail
build=$1 source=$2
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
drive=$source/build/wine-x64/drive_c
[ -e "$drive" ] || "$source/scripts/wine.sh" x64 --start
installed="$drive/Program Files/Brenmoor"

rm -rf "$build/installer"
cpack --config "$build/CPackConfig.cmake" -B "$build/installer" >"$folder/log" 2>&1 || { cat "$folder/log"; exit 1; }
msi=$(echo "$build"/installer/*.msi)
product="{$(sed -n "s/^<Product Id='\([^']*\)'.*/\1/p" "${msi%.msi}.wxs")}"
unzip -q "${msi%.msi}.zip" -d "$folder"

# system_program NAME ARGUMENT...: of Wine's own.
system_program() { timeout 120 "$source/scripts/wine.sh" x64 "$drive/windows/system32/$1.exe" "${@:2}"; }
is_registered() {
    system_program reg query "HKLM\\Software\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\$product" >/dev/null 2>&1
}
fail() {
    echo "$1" >&2
    exit 1
}

# One that a run has left which was interrupted.
! is_registered || system_program msiexec /qn /x "$product"
# A test of the default folders leaves an empty one.
rmdir "$installed" 2>/dev/null || true
[ ! -e "$installed" ] || fail "$installed is there already"

system_program msiexec /qn /i "Z:${msi//\//\\}"
is_registered || fail "it is not listed as installed"
diff -r "$folder/$(basename "${msi%.msi}")" "$installed/Velkor"
for program in "$installed"/Velkor/bin/*.exe; do
    [ ! -e "$program" ] || timeout 120 "$source/scripts/wine.sh" x64 "$program" --version
done

system_program msiexec /qn /x "$product"
! is_registered || fail "it is still listed as installed"
[ ! -e "$installed" ] || { find "$installed"; fail "that is left"; }
