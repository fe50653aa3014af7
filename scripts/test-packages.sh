#!/usr/bin/env bash
# Installs, uses, upgrades, removes and purges the Debian packages of a folder on a fresh Debian below build/, as root:
#   scripts/test-packages.sh FOLDER
set -euo pipefail
. "$(dirname "$0")/fresh-debian.sh"
version=$(dpkg-deb --field "$(echo "$packages"/velkor-pkcs11_*.deb)" Version)
fresh_debian debian opensc,openssl,p11-kit,openssh-client
newer=$(mktemp -d "$root-written/XXXXXX")

# Every file, but for what package managers keep for themselves and what users have made.
files() {
    (cd "$root" && find . -xdev \( -path ./proc -o -path ./dev -o -path ./tmp -o -path ./root \) -prune -o -print) |
        grep --invert-match -e '^\./var/lib/dpkg/\(status\|available\|triggers\|lock\|diversions\)' \
            -e '^\./var/lib/apt/' -e '^\./var/log/' -e '^\./var/cache/' | sort
}
step() { echo "  $*"; }
files >build/debian-before.txt

step "install"
install_packages
grep --quiet '^logLevel = 0$' "$root/etc/brenmoor/velkor.conf"
# completes SHELL PATTERN: the sources' completions for that shell are where it looks for them.
completes() {
    local file tool
    for file in {trace,softkey}/*."$1"; do
        tool=$(basename "$file" ".$1")
        [ ! -e "$file" ] || [ -e "$root/usr/share/${2//TOOL/$tool}" ] || { echo "$file is not installed" >&2; return 1; }
    done
}
completes bash bash-completion/completions/TOOL
completes zsh zsh/vendor-completions/_TOOL
completes fish fish/vendor_completions.d/TOOL.fish

step "make a key, see it through p11-kit, sign with both modules, show ssh the key"
cat >"$root/tmp/make-key" <<'END'
set -e
export PIN=1234 SO_PIN=12345678
libraries=$(echo /usr/lib/*/velkor)
velkor-softkey create --serial PACKAGE1 --label package --pin-env PIN --so-pin-env SO_PIN
pkcs11-tool --module "$libraries/velkor-pkcs11.so" --token-label package --login --pin env:PIN --keypairgen \
    --key-type rsa:2048 --id 01 --label package
END
cat >"$root/tmp/use" <<'END'
set -e
export PIN=1234
libraries=$(echo /usr/lib/*/velkor)
p11-kit list-modules >modules.txt
grep PACKAGE1 modules.txt
echo text >text
for module in velkor-pkcs11 velkor-pkcs11-strict; do
    rm -f text.sig key.der
    pkcs11-tool --module "$libraries/$module.so" --token-label package --login --pin env:PIN --sign \
        --mechanism SHA256-RSA-PKCS --id 01 --input-file text --output-file text.sig
    pkcs11-tool --module "$libraries/$module.so" --read-object --type pubkey --id 01 --output-file key.der
    openssl dgst -sha256 -verify key.der -keyform DER -signature text.sig text
done
ssh-keygen -D "$libraries/velkor-pkcs11-strict.so" >keys.txt
grep '^ssh-rsa ' keys.txt
velkor-trace --version
END
quiet inside sh -c 'cd /tmp && sh make-key && sh use'

# Later versions: their libraries end with the version, behind what a loader reads; their configuration has another level,
# and a manual page is not there any more.
make_later() { # make_later VERSION LEVEL
    local package tree=$newer/tree
    rm -f "$root"/tmp/later-*.deb
    for package in "$packages"/*.deb; do
        rm -rf "$tree"
        dpkg-deb --raw-extract "$package" "$tree"
        sed -i "s/^Version: .*/Version: $1/" "$tree/DEBIAN/control"
        find "$tree" -type f -name '*.so' -exec sh -c 'echo "$0" >>"$1"' "$1" {} \;
        find "$tree/usr" -name velkor.conf.5.gz -delete
        [ ! -e "$tree/etc" ] || sed -i "s/^logLevel = 0$/logLevel = $2/" "$tree/etc/brenmoor/velkor.conf"
        (cd "$tree" && find usr -type f -exec md5sum {} +) >"$newer/md5sums"
        cp "$newer/md5sums" "$tree/DEBIAN/md5sums"
        quiet dpkg-deb --root-owner-group --build "$tree" "$root/tmp/later-${package##*/}"
    done
}
# expect_version VERSION LEVEL: of every library, and in the configuration; the key signs with it.
expect_version() {
    local library libraries
    mapfile -t libraries < <(find "$root"/usr/lib/*/velkor -name '*.so')
    [ "${#libraries[@]}" -eq 4 ]
    for library in "${libraries[@]}"; do
        [ "$(tail -c "$((${#1} + 1))" "$library")" = "$1" ] || { echo "$library is not that of $1" >&2; return 1; }
    done
    [ -z "$(find "$root/usr/share/man" -name velkor.conf.5.gz)" ]
    grep --quiet "^logLevel = $2$" "$root/etc/brenmoor/velkor.conf"
    quiet inside sh -c 'cd /tmp && sh use'
}
verify_files() { inside dpkg --verify velkor-pkcs11 velkor-softkey velkor-pkcs11-dev; } # Those that are not as they were packed.

step "upgrade to a version whose files are others: the configuration is the new one"
make_later "$version+newer" 1
quiet inside sh -c 'dpkg --install /tmp/later-*.deb'
expect_version "$version+newer" 1
diff /dev/null <(verify_files)

step "upgrade again, with a configuration that was changed: it stays, the new one is beside it"
sed -i 's/^logLevel = 1$/logLevel = 2/' "$root/etc/brenmoor/velkor.conf"
make_later "$version+newest" 3
quiet inside sh -c 'dpkg --force-confold --install /tmp/later-*.deb'
expect_version "$version+newest" 2
grep --quiet '^logLevel = 3$' "$root/etc/brenmoor/velkor.conf.dpkg-dist"
[ "$(verify_files | sed 's/.* //')" = /etc/brenmoor/velkor.conf ]

step "remove: the configuration and the key stay"
quiet inside dpkg --remove velkor-pkcs11-dev velkor-pkcs11 velkor-softkey
[ -e "$root/etc/brenmoor/velkor.conf" ]
[ -n "$(find "$root/root" -name 'PACKAGE1*')" ]

step "purge: nothing stays"
quiet inside dpkg --purge velkor-pkcs11-dev velkor-pkcs11 velkor-softkey
files | diff build/debian-before.txt -
echo "The packages install, work, upgrade and go"
