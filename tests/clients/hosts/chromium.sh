#!/usr/bin/env bash
# Chromium, on a screen that nobody sees: the PIN in its dialog, and a page of a server that asks for a certificate.
# Needs: chromium xvfb xdotool libnss3-tools
# Limit: 240
. "$(dirname "$0")/common.sh"

shows_certificate() {
    local database=sql:$HOME/.pki/nssdb
    mkdir -p "$HOME/.pki/nssdb"
    certutil -N -d "$database" --empty-password
    certutil -A -d "$database" -n ca -t C,, -i ca.pem
    modutil -dbdir "$database" -add Velkor -libfile "$module" -force </dev/null
    start_server
    timeout 150 python3 "$sources/tests/clients/chromium_client.py" chromium 1234 "https://localhost:$port/" \
        "Client certificate"
    grep "CN = tls" server.log
}

prepare_certificates
check "Chromium with a client certificate" shows_certificate
guide chromium
