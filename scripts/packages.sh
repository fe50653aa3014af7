#!/usr/bin/env bash
# Makes the Debian packages, in build/package/packages.
#   scripts/packages.sh           makes them
#   scripts/packages.sh --test    then makes them again from a copy of the sources and compares, has lintian look at them,
#                                 and installs, uses, upgrades, removes and purges them on a fresh Debian below build/, as
#                                 root
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

scripts/test-packages.sh "$packages"
