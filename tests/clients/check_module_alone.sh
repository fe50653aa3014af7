#!/usr/bin/env bash
# Builds and installs the module where nothing else is at hand, neither the software key nor the tests' libraries, and
# loads it over a device library that it was not linked with. What was not built yet is built when it is installed. It is
# built as a later version, for the test of two versions side by side.
#   check_module_alone.sh SOURCE-FOLDER COMPILER HOST DEVICE-LIBRARY-FOLDER BUILD-FOLDER
set -euo pipefail
source=$1 compiler=$2 host=$3 device=$4 build=$5

without=()
for package in benchmark CLI11 GTest nlohmann_json OpenSSL SQLite3; do
    without+=(-D "CMAKE_DISABLE_FIND_PACKAGE_$package=ON")
done
cmake --fresh -S "$source" -B "$build" -G Ninja -D CMAKE_CXX_COMPILER="$compiler" -D CMAKE_INSTALL_PREFIX="$build/installed" \
    -D CMAKE_INSTALL_LIBDIR=lib -D VELKOR_WERROR=ON -D VELKOR_PRECOMPILED_HEADERS=ON \
    -D CMAKE_PROJECT_velkor-pkcs11_INCLUDE="$source/tests/clients/next_version.cmake" \
    -D VELKOR_BUILD_SOFTKEY=OFF -D VELKOR_BUILD_TESTS=OFF "${without[@]}"
cmake --build "$build" --target velkor-pkcs11
rm -rf "$build/installed"
cmake --install "$build"

cd "$build/installed"
diff --unified=0 - <(find lib -name '*.so*' | LC_ALL=C sort) <<END
lib/velkor/velkor-pkcs11-packed.so
lib/velkor/velkor-pkcs11-strict.so
lib/velkor/velkor-pkcs11.so
END
LD_LIBRARY_PATH=$device "$host" "$PWD/lib/velkor/velkor-pkcs11.so" exit
