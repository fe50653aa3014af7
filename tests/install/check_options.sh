#!/usr/bin/env bash
# Configures the project with a package's options on, and then takes them away one by one: each takes what it names out
# of the build, and leaves the others. Nothing is built.
#   check_options.sh SOURCE-FOLDER COMPILER BUILD-FOLDER
set -euo pipefail
source=$1 compiler=$2 build=$3

# With what only a build with the option has.
options=(VELKOR_WERROR VELKOR_STATIC_LIBCRYPTO VELKOR_STATIC_SQLITE VELKOR_BUILD_TESTS VELKOR_BUILD_TRACE VELKOR_BUILD_SOFTKEY)
signs=('-Wsign-conversion -Werror' 'libcrypto\.a' 'libsqlite3\.a' '^build bin/frame_test ' '^build bin/velkor-trace:'
    '^build bin/velkor-softkey:')

configure() {
    cmake -S "$source" -B "$build" -G Ninja -D CMAKE_CXX_COMPILER="$compiler" "$@" >"$build.log" 2>&1 ||
        { cat "$build.log"; exit 1; }
}

# expect_from FIRST: the build has the options from that one on, and no others.
expect_from() {
    local index there
    for index in "${!options[@]}"; do
        there=no
        ! grep --quiet -e "${signs[index]}" "$build/build.ninja" || there=yes
        if [ $there != "$([ "$index" -lt "$1" ] && echo no || echo yes)" ]; then
            echo "${options[*]:0:$1} off, the others on; ${signs[index]} is there: $there"
            exit 1
        fi
    done
}

rm -rf "$build"
mapfile -t all_on < <(printf -- '-D%s=ON\n' "${options[@]}")
configure "${all_on[@]}"
expect_from 0
for index in "${!options[@]}"; do
    configure "-D${options[index]}=OFF"
    expect_from $((index + 1))
done
