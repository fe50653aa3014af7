#!/usr/bin/env bash
# Installs what the project is built and tested with from Debian's packages, or the packages that are the arguments;
# does nothing when all of it is there.
set -euo pipefail

packages=(g++ clang libclang-rt-14-dev clang-format clang-tidy cmake ninja-build ccache mold binutils git python3
    libgtest-dev libgmock-dev libp11-kit-dev libbenchmark-dev libssl-dev libsqlite3-dev libcli11-dev nlohmann-json3-dev
    openssl opensc sqlite3 pkg-config chromium gdb)
[ $# -eq 0 ] || packages=("$@")

missing=()
for package in "${packages[@]}"; do
    status=$(dpkg-query --show --showformat='${db:Status-Status}' "$package" 2>/dev/null || true)
    [ "$status" = installed ] || missing+=("$package")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "Installing: ${missing[*]}"
as_root=()
if [ "$(id -u)" -ne 0 ]; then
    if ! command -v sudo >/dev/null; then
        echo "setup.sh: not root and no sudo here; ask an administrator to install: ${missing[*]}" >&2
        exit 1
    fi
    as_root=(sudo env DEBIAN_FRONTEND=noninteractive)
fi
export DEBIAN_FRONTEND=noninteractive
if ! "${as_root[@]}" apt-get update -qq || ! "${as_root[@]}" apt-get install -y -qq "${missing[@]}" >/dev/null; then
    echo "setup.sh: could not install: ${missing[*]}" >&2
    exit 1
fi
