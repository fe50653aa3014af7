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
cat >"$root/tmp/use" <<'END'
set -e
export PIN=1234 SO_PIN=12345678
libraries=$(echo /usr/lib/*/velkor)
velkor-softkey create --serial PACKAGE1 --label package --pin-env PIN --so-pin-env SO_PIN
p11-kit list-modules >modules.txt
grep PACKAGE1 modules.txt
pkcs11-tool --module "$libraries/velkor-pkcs11.so" --token-label package --login --pin env:PIN --keypairgen \
    --key-type rsa:2048 --id 01 --label package
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
quiet inside sh -c 'cd /tmp && sh use'

step "upgrade, with a configuration that was changed"
sed -i 's/^logLevel = 0$/logLevel = 2/' "$root/etc/brenmoor/velkor.conf"
for package in "$packages"/*.deb; do
    rm -rf "$newer/tree"
    dpkg-deb --raw-extract "$package" "$newer/tree"
    sed -i "s/^Version: .*/Version: $version+newer/" "$newer/tree/DEBIAN/control"
    quiet dpkg-deb --root-owner-group --build "$newer/tree" "$root/tmp/newer-${package##*/}"
done
quiet inside sh -c 'dpkg --install /tmp/newer-*.deb'
grep --quiet '^logLevel = 2$' "$root/etc/brenmoor/velkor.conf"
quiet inside sh -c 'p11-kit list-modules >/tmp/modules.txt && grep PACKAGE1 /tmp/modules.txt'

step "remove: the configuration and the key stay"
quiet inside dpkg --remove velkor-pkcs11-dev velkor-pkcs11 velkor-softkey
[ -e "$root/etc/brenmoor/velkor.conf" ]
[ -n "$(find "$root/root" -name 'PACKAGE1*')" ]

step "purge: nothing stays"
quiet inside dpkg --purge velkor-pkcs11-dev velkor-pkcs11 velkor-softkey
files | diff build/debian-before.txt -
echo "The packages install, work, upgrade and go"
