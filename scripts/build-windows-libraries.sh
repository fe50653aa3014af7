#!/usr/bin/env bash
# Builds what the software key needs on Windows, static, from Debian's sources: libcrypto and SQLite. Beside them come
# the two libraries of the tool that are headers only.
#   scripts/build-windows-libraries.sh x64|arm64 TOOLS      into TOOLS/libraries-ARCHITECTURE, once
# They are built again when this script, the compiler, or the version that apt would install has changed, and for each
# user once, not for each clone. The exit code is 3 when the sources cannot be had.
# scripts/setup-windows.sh calls it, with the compilers installed, one call at a time.
set -euo pipefail
architecture=$1
tools=$2
target=$tools/libraries-$architecture

case $architecture in
x64)
    compiler=x86_64-w64-mingw32-gcc-posix
    binutils=x86_64-w64-mingw32-
    flags=()
    ;;
arm64)
    compiler=$tools/bin/aarch64-windows-gnu-clang
    binutils=$tools/bin/aarch64-windows-gnu-
    flags=(-D__USE_MINGW_ANSI_STDIO=1 -fno-sanitize=undefined) # Those of cmake/windows-arm64.cmake.
    ;;
esac
# This version of OpenSSL has no assembler code for Windows on ARM64, and AES must not tell its key by its timing.
no_assembler=()
[ "$architecture" != arm64 ] || no_assembler=(no-asm -DOPENSSL_AES_CONST_TIME)

made_by=$({
    cat "$0"
    "$compiler" --version
    apt-cache policy openssl sqlite3 | grep Candidate:
} | sha256sum)
[ "$(cat "$target/complete" 2>/dev/null)" != "$made_by" ] || exit 0
echo "Building: OpenSSL and SQLite for Windows on $architecture"
rm -rf "$target/complete" "$tools"/libraries.?????? # The latter of runs that were killed.
if command -v ccache >/dev/null; then compiler="ccache $compiler"; fi

# The sources that belong to this machine's own packages, by an apt configuration of their own.
fetch() {
    mkdir -p parts lists/partial cache/archives/partial
    local file
    for file in /etc/apt/sources.list /etc/apt/sources.list.d/*; do
        case $file in
        *.sources) sed 's/^Types:.*/Types: deb-src/' "$file" >"parts/${file##*/}" ;;
        *.list) [ ! -f "$file" ] || sed -n 's/^deb /deb-src /p' "$file" >"parts/${file##*/}" ;;
        esac
    done
    cat >apt.conf <<END
Dir::Etc::sourcelist "/dev/null";
Dir::Etc::sourceparts "$PWD/parts";
Dir::State::lists "$PWD/lists";
Dir::Cache "$PWD/cache";
APT::Sandbox::User "$(id -un)";
END
    export APT_CONFIG=$PWD/apt.conf
    apt-get update -qq
    local package
    for package in openssl sqlite3; do
        # A mirror may know of an update that it does not have yet.
        apt-get source -qq "$package" || apt-get source -qq "$package/$(. /etc/os-release && echo "$VERSION_CODENAME")"
    done
    unset APT_CONFIG
}

build_openssl() {
    (
        cd openssl-*/
        CC=$compiler AR=${binutils}ar RANLIB=${binutils}ranlib RC=true ./Configure mingw64 "${flags[@]}" \
            "${no_assembler[@]}" no-shared no-tests no-legacy no-engine no-dso no-comp no-ssl no-tls no-dtls \
            no-ui-console no-cms no-ts no-ocsp no-srp no-cmp
        make -j"$(nproc)" build_generated
        make -j"$(nproc)" libcrypto.a
        mkdir -p "$result/lib" "$result/include"
        cp libcrypto.a "$result/lib"
        cp -r include/openssl "$result/include"
    )
}

build_sqlite() {
    (
        mkdir sqlite && cd sqlite
        ../sqlite3-*/configure --disable-tcl
        make sqlite3.c
        $compiler -O2 "${flags[@]}" -DSQLITE_THREADSAFE=1 -DSQLITE_OMIT_LOAD_EXTENSION -c sqlite3.c -o sqlite3.o
        "${binutils}ar" rcs "$result/lib/libsqlite3.a" sqlite3.o
        cp sqlite3.h "$result/include"
    )
}

copy_headers() {
    local file
    for file in $(dpkg -L libcli11-dev nlohmann-json3-dev | grep -e '^/usr/include/' -e '^/usr/share/cmake/'); do
        [ ! -f "$file" ] || install -D -m 644 "$file" "$result/${file#/usr/}"
    done
}

work=$(mktemp -d "$tools/libraries.XXXXXX")
trap 'rm -rf "$work"' EXIT
result=$work/result
cd "$work"
for step in fetch build_openssl build_sqlite copy_headers; do
    # Not as a condition: there a failed command would not end the step.
    set +e
    (set -e && "$step") >"$step.log" 2>&1
    status=$?
    set -e
    if [ "$status" -ne 0 ]; then
        tail -n 20 "$step.log"
        [ "$step" != fetch ] || exit 3
        exit 1
    fi
    [ "$step" != fetch ] || echo "  from" openssl-*/ sqlite3-*/
done
echo "$made_by" >"$result/complete"
rm -rf "$target"
mv "$result" "$target"
