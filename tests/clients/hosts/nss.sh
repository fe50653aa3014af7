#!/usr/bin/env bash
# NSS: modutil, certutil and cmsutil.
# Needs: libnss3-tools
# Limit: 180
. "$(dirname "$0")/common.sh"

nss() { timeout 60 certutil -d sql:nss -h "Client key" -f pin "$@" </dev/null; }
cms() { timeout 60 cmsutil "$1" -d sql:nss -f pin "${@:2}"; } # cms COMMAND OPTION...
prepare() {
    mkdir nss
    certutil -N -d sql:nss --empty-password
    head -c 64 /dev/urandom >noise
    openssl req -x509 -newkey rsa:2048 -nodes -keyout key.pem -out cert.pem -subj /CN=client -days 30
}
enters_module() {
    modutil -dbdir sql:nss -add Velkor -libfile "$module" -force </dev/null
    modutil -dbdir sql:nss -list Velkor </dev/null | tee module.txt
    grep -q "Token Name: Client key *$" module.txt
}
signs_message() {
    cms -S -N "Client key:nmail" -i text -o signed
    openssl cms -verify -binary -noverify -inform DER -in signed -out plain
    cmp plain text
}
decrypts_message() {
    nss -L -n "Client key:nmail" -a >mail.pem
    openssl cms -encrypt -binary -aes-256-cbc -outform DER -in text -out encrypted mail.pem
    cms -D -i encrypted -o decrypted
    cmp decrypted text
}
lists_certificate() { nss -L | grep "Client key:nrsa"; }
lists_key() { nss -K | grep "nrsa"; }
leaves() {
    modutil -dbdir sql:nss -delete Velkor -force </dev/null
    modutil -dbdir sql:nss -list </dev/null >modules.txt
    [ "$(grep -c Velkor modules.txt)" -eq 0 ]
}

check "databases of NSS" prepare
check "modutil -add, -list" enters_module
check "certutil -G" nss -G -z noise -k rsa -g 2048
check "certutil -S, RSA" nss -S -z noise -k rsa -g 2048 -n nrsa -s CN=nrsa -t ",," -x -m 1
check "certutil -S -k ec" nss -S -z noise -k ec -q nistp256 -n nec -s CN=nec -t ",," -x -m 2
check "certutil -S, for mail" nss -S -z noise -k rsa -g 2048 -n nmail -s CN=nmail -t ",P," -x -m 3 -7 nmail@example.org
check "certutil -A" nss -A -n nadd -t ",," -i cert.pem
check "certutil -L" lists_certificate
check "certutil -K" lists_key
check "cmsutil -S" signs_message
check "cmsutil -D" decrypts_message
check "certutil -D" nss -D -n "Client key:nrsa"
check "certutil -F" nss -F -n "Client key:nmail"
check "modutil -delete" leaves
guide nss
