#!/usr/bin/env bash
# Firefox, without a window: the PIN in its dialog, and a page of a server that asks for a certificate.
# Needs: firefox-esr libnss3-tools
# Limit: 240
. "$(dirname "$0")/common.sh"

shows_certificate() {
    mkdir firefox
    certutil -N -d sql:firefox --empty-password
    certutil -A -d sql:firefox -n ca -t CT,C,C -i ca.pem
    modutil -dbdir sql:firefox -add Velkor -libfile "$module" -force </dev/null
    start_server
    timeout 150 python3 "$sources/tests/clients/firefox_client.py" firefox "Client key" 1234 \
        "https://localhost:$port/" "Client certificate"
}

prepare_certificates
check "Firefox with a client certificate" shows_certificate
guide firefox
