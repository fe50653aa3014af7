#!/usr/bin/env bash
# Makes the Debian packages, in build/package/packages.
#   scripts/packages.sh           makes them
#   scripts/packages.sh --test    then makes them again from a copy of the sources and compares, has lintian look at them,
#                                 reads off the packed files how they are hardened and what is linked in, and as root,
#                                 on a fresh Debian below build/, installs, uses, upgrades, removes and purges them and
#                                 follows the guides
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
scripts/setup.sh dpkg-dev file

# The time of whatever is packed: that of the change it is made of.
SOURCE_DATE_EPOCH=$(git log -1 --format=%ct)
export SOURCE_DATE_EPOCH

# make_packages FOLDER: of the sources there.
make_packages() (
    cd "$1"
    cmake --preset package >build/package.log
    cmake --build --preset package >>build/package.log || { cat build/package.log; exit 1; }
    rm -rf build/package/packages
    cpack --config build/package/CPackConfig.cmake -B build/package/packages >>build/package.log ||
        { cat build/package.log; exit 1; }
    rm -rf build/package/packages/_CPack_Packages
)

mkdir -p build
make_packages .
packages=$PWD/build/package/packages
ls -l "$packages"
[ "${1:-}" = --test ] || exit 0

echo "The same from another folder, compiled anew"
twin=build/package-twin
rm -rf "$twin"
mkdir -p "$twin/build"
git ls-files -z | xargs -0 cp --parents --target-directory="$twin"
CCACHE_DISABLE=1 make_packages "$twin"
for package in "$packages"/*.deb; do
    cmp "$package" "$twin/build/package/packages/${package##*/}"
done
rm -rf "$twin"

echo "lintian"
scripts/setup.sh lintian
lintian --fail-on error --tag-display-limit 0 "$packages"/*.deb

echo "what is packed"
files=build/package-files
rm -rf "$files"
for package in "$packages"/*.deb; do dpkg-deb --extract "$package" "$files"; done
mapfile -t programs < <(find "$files" -type f -path '*/bin/*' -o -type f -name '*.so')
[ "${#programs[@]}" -eq 6 ] || { echo "there are other programs and libraries than six: ${programs[*]}" >&2; exit 1; }
tests/install/check_hardening.sh "${programs[@]}"
for list in "$files"/usr/share/doc/{velkor-pkcs11,velkor-softkey}/velkor.spdx; do
    tests/install/check_spdx.sh "$list" "$(find "$files" -name libVelkorDSCLibrary.so)"
done
rm -rf "$files"

scripts/test-packages.sh "$packages"
scripts/test-guides.sh "$packages"
