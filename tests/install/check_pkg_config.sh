#!/bin/sh
# check_pkg_config.sh PKGCONFIG_FOLDER CXX TABLE_HOST EXPORTS DEVICE_LIBRARY: compiles a host with what pkg-config says,
# and runs it with the module that pkg-config names.
set -eu
export PKG_CONFIG_PATH="$1"
host=$(mktemp)
trap 'rm -f "$host"' EXIT
# shellcheck disable=SC2046 # Options are several words.
"$2" -std=c++20 "-DEXPORTS=\"$4\"" $(pkg-config --cflags velkor-pkcs11) "$3" -o "$host" -ldl
"$host" "$(pkg-config --variable=module velkor-pkcs11)" "$5"
test -e "$(pkg-config --variable=strict_module velkor-pkcs11)"
