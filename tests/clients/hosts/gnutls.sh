#!/usr/bin/env bash
# GnuTLS: p11tool, certtool and gnutls-cli, by URLs.
# Needs: gnutls-bin
# Limit: 120
. "$(dirname "$0")/common.sh"

p11() { timeout 60 p11tool --provider "$module" --login --batch "$@"; }
cert() { timeout 60 certtool --provider "$module" "$@"; }
has() { p11 --list-all "$url" | grep "object=$1;type=$2"; }
export_public() { p11 --export "$url;object=$1;type=public" | openssl pkey -pubin -noout; }
delete_object() { p11 --delete "$url;object=$1" && ! has "$1" private; }
lists_tokens() { p11 --list-tokens | grep "token=Client%20key$"; }
make_files() {
    openssl req -x509 -newkey rsa:2048 -nodes -keyout key.pem -out cert.pem -subj /CN=client -days 30
    printf 'cn = "own"\nexpiration_days = 10\nsigning_key\n' >template
}
requests() {
    cert --generate-request --load-privkey "$tls_url;type=private" --template template --outfile own.csr
    openssl req -in own.csr -noout -verify
    openssl req -in own.csr -noout -pubkey | cmp - tls.pub
}
certifies() {
    cert --generate-self-signed --load-privkey "$tls_url;type=private" --template template --outfile own.pem
    openssl x509 -in own.pem -noout -pubkey | cmp - tls.pub
    openssl verify -partial_chain -CAfile own.pem own.pem
}
signs_message() {
    cert --p7-sign --load-privkey "$tls_url;type=private" --load-certificate tls.pem --infile text --outfile signed
    openssl cms -verify -binary -inform PEM -CAfile ca.pem -in signed -out plain
    cmp plain text
}
connects() {
    start_server
    # It leaves when its input ends, answered or not.
    { printf 'GET / HTTP/1.0\r\n\r\n'; sleep 3; } | timeout 30 gnutls-cli --provider "$module" --x509cafile ca.pem \
        --x509certfile "$tls_url;type=cert" --x509keyfile "$tls_url;type=private" --port "$port" localhost >page
    grep "Subject: CN=tls" page
}

check "files for GnuTLS" make_files
check "p11tool --list-tokens" lists_tokens
check "p11tool --generate-ecc" p11 --generate-ecc --curve secp256r1 --label gec "$url"
check "p11tool --generate-rsa" p11 --generate-rsa --bits 2048 --label grsa "$url"
check "p11tool lists what it made" has gec private
check "p11tool --export" export_public grsa
check "p11tool --write, a certificate" p11 --write --load-certificate cert.pem --label gcert "$url"
check "p11tool --write, a private key" p11 --write --load-privkey key.pem --label gkey "$url"
check "p11tool --test-sign" p11 --test-sign "$url;object=gkey;type=private"
check "p11tool --delete, a certificate" p11 --delete "$url;object=gcert;type=cert"
check "p11tool --delete, pairs" delete_object gec
check "p11tool --generate-random" p11 --generate-random 16 "$url"
prepare_certificates
check "certtool --generate-request" requests
check "certtool --generate-self-signed" certifies
check "certtool --p7-sign" signs_message
check "gnutls-cli with a client certificate" connects
guide gnutls
