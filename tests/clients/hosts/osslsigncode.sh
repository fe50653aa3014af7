#!/usr/bin/env bash
# osslsigncode: a program for Windows is signed by OpenSSL's engine, and verified.
# Needs: osslsigncode libengine-pkcs11-openssl
# Limit: 60
. "$(dirname "$0")/common.sh"

engines=$(openssl version -e | cut -d '"' -f 2)
code() { timeout 60 osslsigncode "$@"; }
prepare() {
    usage=codeSigning certify code
    put_on_token code 79
    python3 "$sources/tests/clients/hosts/make_program.py" program.exe
}
signs() {
    code sign -pkcs11engine "$engines/pkcs11.so" -pkcs11module "$module" -pass 1234 -h sha256 -certs code.pem \
        -key "$url;object=code;type=private" -in program.exe -out signed.exe
    code verify -CAfile ca.pem -in signed.exe
}
tells_change() {
    { head -c 1000 signed.exe; printf x; tail -c +1002 signed.exe; } >changed.exe
    if code verify -CAfile ca.pem -in changed.exe; then return 1; fi
}

check "a certificate for code, and a program" prepare
check "osslsigncode signs and verifies" signs
check "osslsigncode tells a change" tells_change
guide osslsigncode
