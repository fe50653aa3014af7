#!/usr/bin/env bash
# stunnel, by OpenSSL's engine: a server with threads.
# Needs: stunnel4 libengine-pkcs11-openssl curl
# Limit: 60
. "$(dirname "$0")/common.sh"

serves() {
    local inside outside answers=() answer
    inside=$(free_port)
    timeout 120 python3 -m http.server --bind 127.0.0.1 --directory . "$inside" >/dev/null 2>&1 &
    await_port "$inside"
    outside=$(free_port)
    cat >stunnel.conf <<END
foreground = yes
pid =
output = $folder/stunnel.log
engine = pkcs11
engineCtrl = MODULE_PATH:$module
engineCtrl = PIN:1234
[server]
accept = 127.0.0.1:$outside
connect = 127.0.0.1:$inside
engineNum = 1
cert = $tls_url;type=cert
key = $tls_url;type=private
END
    timeout 60 stunnel stunnel.conf &
    await_port "$outside"
    for _ in {1..8}; do
        timeout 20 curl -sS --cacert ca.pem "https://localhost:$outside/text" >>"stunnel.answers" &
        answers+=($!)
    done
    for answer in "${answers[@]}"; do wait "$answer"; done
    [ "$(grep -c '^hello$' stunnel.answers)" -eq 8 ]
}

prepare_certificates
check "stunnel, eight connections at once" serves
