#!/usr/bin/env bash
# GnuPG's gpgsm, through gnupg-pkcs11-scd.
# Needs: gnupg-pkcs11-scd gpgsm gpg-agent
# Limit: 120
. "$(dirname "$0")/common.sh"

export GNUPGHOME=$folder/gnupg
trap 'timeout 20 gpgconf --kill all || true; kill $(jobs -p) 2>/dev/null || true' EXIT
prepare() {
    mkdir -m 700 "$GNUPGHOME"
    cat >gnupg-pinentry <<'END'
#!/bin/sh
echo OK
while read -r command rest; do
    [ "$command" != GETPIN ] || echo "D $USER_PIN"
    echo OK
    [ "$command" != BYE ] || exit 0
done
END
    chmod +x gnupg-pinentry
    printf 'scdaemon-program /usr/bin/gnupg-pkcs11-scd\npinentry-program %s\n' "$folder/gnupg-pinentry" \
        >"$GNUPGHOME/gpg-agent.conf"
    printf 'providers velkor\nprovider-velkor-library %s\n' "$module" >"$GNUPGHOME/gnupg-pkcs11-scd.conf"
    echo "$(openssl x509 -in ca.pem -noout -fingerprint -sha1 | cut -d = -f 2) S relax" >"$GNUPGHOME/trustlist.txt"
    echo disable-crl-checks >"$GNUPGHOME/gpgsm.conf"
}
sm() { timeout 60 gpgsm --batch --yes "$@"; }
learns_card() {
    sm --import ca.pem
    sm --learn-card
    sm --list-secret-keys | grep "Subject: /CN=tls"
}
signs() {
    sm --armor --local-user tls --output signed --sign text
    sm --verify signed # Not by openssl: gpgsm drops a signature's leading zero, which one in 256 has.
}
decrypts() {
    sm --recipient tls --output encrypted --encrypt text
    sm --output decrypted --decrypt encrypted
    cmp decrypted text
}

prepare_certificates
check "a home for GnuPG" prepare
make_log_folder gnupg-pkcs11-scd
check "gpgsm learns a card through gnupg-pkcs11-scd" learns_card
check "gpgsm signs" signs
check "gpgsm decrypts" decrypts
guide gnupg
