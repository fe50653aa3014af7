# Sourced by scripts that try the packages of the folder $1 as root, each on a fresh Debian below build/.
#   fresh_debian NAME PACKAGES    makes it, build/NAME, with these packages, separated by commas: the folder `root`
#   inside COMMAND...             runs there
#   install_packages              as their user does: apt install ./*.deb
# The script starts itself again in namespaces of its own, which take its mounts and processes along when it ends.
packages=$(realpath "$1")
cd "$(dirname "${BASH_SOURCE[0]}")/.."
[ "$(id -u)" -eq 0 ] || { echo "$(basename "$0"): packages are installed by root alone" >&2; exit 1; }
if [ -z "${VELKOR_OWN_NAMESPACE:-}" ]; then
    VELKOR_OWN_NAMESPACE=1 exec unshare --mount --pid --fork --kill-child "scripts/$(basename "$0")" "$packages"
fi

inside() {
    chroot "$root" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root DEBIAN_FRONTEND=noninteractive "$@"
}
# quiet COMMAND...: is heard only when it fails.
quiet() { "$@" >"$root.log" 2>&1 || { tail -n 80 "$root.log" >&2; return 1; }; }

# What is installed once for all runs; from where this machine has its own packages, updates among them.
debian_base() { # debian_base FOLDER PACKAGES
    [ "$(cat "$1.packages" 2>/dev/null)" != "$2" ] || return 0
    echo "  a fresh Debian with $2"
    scripts/setup.sh mmdebstrap
    rm -rf "$1" "$1.packages"
    apt-get indextargets --format 'deb $(REPO_URI) $(RELEASE) main' 'Created-By: Packages' 'Origin: Debian' \
        'Component: main' | grep " bookworm" >"$1.sources"
    quiet mmdebstrap --mode=root --variant=minbase --include="$2" bookworm "$1" - <"$1.sources"
    echo "$2" >"$1.packages"
}
fresh_debian() {
    local device
    root=$PWD/build/$1
    debian_base "$root-base" "$2"
    rm -rf "$root" "$root-written"
    mkdir "$root" "$root-written" "$root-written"/{files,work}
    trap 'umount --lazy --recursive "$root" && rm -rf "$root" "$root-written"' EXIT
    mount -t overlay \
        -o "lowerdir=$root-base,upperdir=$root-written/files,workdir=$root-written/work" overlay "$root"
    mount -t proc proc "$root/proc"
    mount -t tmpfs -o mode=755 dev "$root/dev"
    mkdir -m 1777 "$root/dev/shm"
    for device in null zero random urandom; do
        touch "$root/dev/$device"
        mount --bind "/dev/$device" "$root/dev/$device"
    done
    cp "$packages"/*.deb "$root/tmp"
}
install_packages() { quiet inside sh -c 'cd /tmp && apt-get install --yes -o APT::Sandbox::User=root ./*.deb'; }
