#!/usr/bin/env bash
# OpenSSL 3 with its engine: requests, certificates, signed and encrypted mail, both ends of TLS.
# Needs: openssl libengine-pkcs11-openssl curl
# Limit: 120
. "$(dirname "$0")/common.sh"

engine() { timeout 60 openssl "$1" -engine pkcs11 "${@:2}"; } # engine COMMAND OPTION...
rsa="$tls_url;type=private;pin-value=1234"
ec="$url;object=ec;type=private;pin-value=1234"

signs() { # signs URL PUBLIC-KEY-FILE [OPTION...]
    engine dgst -keyform engine -sha256 "${@:3}" -sign "$1" -out sig text
    openssl dgst -sha256 "${@:3}" -verify "$2" -signature sig text
}
requests() {
    engine req -new -keyform engine -key "$rsa" -subj /CN=own -out own.csr
    openssl req -in own.csr -noout -verify
    openssl req -in own.csr -noout -pubkey | cmp - tls.pub
}
certifies() { # certifies URL
    engine req -x509 -keyform engine -key "$1" -subj /CN=own -days 10 -out own.pem
    openssl verify -CAfile own.pem own.pem
}
signs_mail() {
    engine cms -sign -binary -keyform engine -inkey "$rsa" -signer tls.pem -in text -out signed
    openssl cms -verify -binary -CAfile ca.pem -in signed -out plain
    cmp plain text
}
decrypts_mail() {
    openssl cms -encrypt -binary -in text -out encrypted tls.pem
    engine cms -decrypt -binary -keyform engine -inkey "$rsa" -recip tls.pem -in encrypted -out decrypted
    cmp decrypted text
}
serves() { # serves VERSION
    port=$(free_port)
    timeout 60 openssl s_server -engine pkcs11 -accept "127.0.0.1:$port" -keyform engine -key "$rsa" -cert tls.pem -www \
        >serves.log 2>&1 &
    await_port "$port"
    get --tlsv1.2 --tls-max "$1" >page
    grep "s_server" page
}
connects() { # connects URL CERTIFICATE
    start_server
    printf 'GET / HTTP/1.0\r\n\r\n' | engine s_client -connect "127.0.0.1:$port" -CAfile ca.pem -verify_return_error \
        -keyform engine -key "$1" -cert "$2.pem" -ign_eof >page
    grep "Subject: CN=$2" page
}
prepare_ec() {
    certify ec ec -pkeyopt ec_paramgen_curve:P-256
    put_on_token ec 78
}

prepare_certificates
check "an EC key is put on the token" prepare_ec
check "engine: an RSA signature" signs "$rsa" tls.pub
check "engine: PSS" signs "$rsa" tls.pub -sigopt rsa_padding_mode:pss -sigopt rsa_pss_saltlen:digest
check "engine: an ECDSA signature" signs "$ec" ec.pub
check "engine: a request for a certificate" requests
check "engine: a self-signed certificate, RSA" certifies "$rsa"
check "engine: a self-signed certificate, EC" certifies "$ec"
check "engine: signs mail" signs_mail
check "engine: decrypts mail" decrypts_mail
check "engine: a server of TLS 1.2" serves 1.2
check "engine: a server of TLS 1.3" serves 1.3
check "engine: a client of TLS, RSA" connects "$rsa" tls
check "engine: a client of TLS, EC" connects "$ec" ec
guide openssl
