#!/usr/bin/env bash
# pdfsig, which takes its keys from NSS: a PDF is signed and verified, and one that was changed is told.
# Needs: poppler-utils libnss3-tools
# Limit: 120
. "$(dirname "$0")/common.sh"

sig() { timeout 60 pdfsig -nssdir "sql:$folder/nss" "$@"; }
prepare() {
    mkdir nss
    certutil -N -d sql:nss --empty-password
    certutil -A -d sql:nss -n ca -t CT,C,C -i ca.pem
    modutil -dbdir sql:nss -add Velkor -libfile "$module" -force </dev/null
    python3 "$sources/tests/clients/hosts/make_pdf.py" letter.pdf
}
lists_names() { sig -nss-pwd 1234 -list-nicks | grep "Client key:tls"; }
signs() {
    sig -nss-pwd 1234 -kpw 1234 -add-signature -nick "Client key:tls" letter.pdf signed.pdf
    sig signed.pdf | tee verdict
    grep -q "Signature Validation: Signature is Valid." verdict
    grep -q "Certificate Validation: Certificate is Trusted." verdict
}
tells_change() {
    sed 's/A letter/A lotter/' signed.pdf >changed.pdf
    sig changed.pdf | tee verdict
    [ "$(grep -c "Signature is Valid" verdict)" -eq 0 ]
}

prepare_certificates
check "databases of NSS, and a PDF" prepare
check "pdfsig lists the token's names" lists_names
check "pdfsig signs and verifies" signs
check "pdfsig tells a change" tells_change
guide pdfsig
