#!/usr/bin/env bash
# curl with a client certificate, by URLs and OpenSSL's engine.
# Needs: curl libengine-pkcs11-openssl
# Limit: 60
. "$(dirname "$0")/common.sh"

shows_certificate() {
    start_server
    get --cert "$tls_url;type=cert" --key "$tls_url;type=private;pin-value=1234" >page
    grep "Subject: CN=tls" page
}

prepare_certificates
check "curl with a client certificate" shows_certificate
guide curl
