#!/usr/bin/env bash
# Real clients over a software key: GnuTLS, OpenSC, OpenSSH, NSS, PyKCS11 and Java, each with what its users do.
#
#   scripts/clients.sh            through the strict front; all have to succeed
#   scripts/clients.sh plain      through the module itself, to see what a host meets there
#
# Installs the clients from Debian's packages. Writes below build/clients only.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
scripts/setup.sh gnutls-bin opensc openssh-client libnss3-tools python3-pykcs11 default-jdk-headless

root=$PWD
which=${1:-strict}
folder=$root/build/clients
rm -rf "$folder"
mkdir -p "$folder/tmp"
cmake --preset release >"$folder/build.log"
cmake --build --preset release --target velkor-pkcs11 velkor-pkcs11-strict velkor-softkey >>"$folder/build.log"

export VELKOR_SOFTKEY_HOME=$folder/keys VELKOR_CONFIG=$folder/velkor.conf TMPDIR=$folder/tmp
export USER_PIN=1234 SO_PIN=12345678 GNUTLS_PIN=1234
module=$root/build/release/lib/velkor-pkcs11-strict.so
[ "$which" = plain ] && module=$root/build/release/lib/velkor-pkcs11.so
export module
echo "logLevel = 2" >"$VELKOR_CONFIG"
tool=$root/build/release/bin/velkor-softkey
cd "$folder"
"$tool" create --serial CLIENT1 --label "Client key" --pin-env USER_PIN --so-pin-env SO_PIN >/dev/null
echo 1234 >pin
echo hello >text
openssl req -x509 -newkey rsa:2048 -nodes -keyout key.pem -out cert.pem -subj /CN=client -days 30 2>/dev/null

passed=0
failed=0
# check NAME COMMAND...: one line for each; what the command says goes to a file.
check() {
    local name=$1
    shift
    if (set -e; "$@") >last.out 2>&1; then
        passed=$((passed + 1))
        echo "ok      $name"
    else
        failed=$((failed + 1))
        echo "FAILED  $name"
        tail -n 3 last.out | sed 's/^/        /'
    fi
    { echo "== $name"; cat last.out; } >>all.out
}

# ---- GnuTLS ----
url="pkcs11:token=Client%20key"
p11() { timeout 60 p11tool --provider "$module" --login --batch "$@"; }
has() { p11 --list-all "$url" | grep -q "object=$1;type=$2"; }
export_public() { p11 --export "$url;object=$1;type=public" | openssl pkey -pubin -noout; }
delete_object() { p11 --delete "$url;object=$1" && ! has "$1" private; }
check "p11tool --list-tokens" grep -q "token=Client%20key$" <(p11 --list-tokens)
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

# ---- OpenSC ----
p15() { timeout 60 pkcs11-tool --module "$module" --login --pin 1234 "$@"; }
sign_rsa() {
    p15 --sign --mechanism SHA256-RSA-PKCS --id 01 --input-file text --output-file sig
    p15 --read-object --type pubkey --id 01 --output-file pub.der
    openssl dgst -sha256 -verify <(openssl pkey -pubin -inform DER -in pub.der) -signature sig text
}
sign_ec() {
    p15 --sign --mechanism ECDSA-SHA512 --id 02 --signature-format openssl --input-file text --output-file sig
    p15 --read-object --type pubkey --id 02 --output-file pub.der
    openssl dgst -sha512 -verify <(openssl pkey -pubin -inform DER -in pub.der) -signature sig text
}
no_errors() { p15 --test | grep -q "No errors"; }
check "pkcs11-tool --keypairgen, RSA" p15 --keypairgen --key-type rsa:2048 --id 01 --label orsa
check "pkcs11-tool --keypairgen, EC" p15 --keypairgen --key-type EC:prime256v1 --id 02 --label oec
check "pkcs11-tool --sign, RSA" sign_rsa
check "pkcs11-tool --sign, ECDSA-SHA512" sign_ec
check "pkcs11-tool --test" no_errors
check "pkcs11-tool --delete-object" p15 --delete-object --type privkey --id 02

# ---- OpenSSH ----
printf '#!/bin/sh\necho "$ASK_PIN"\n' >askpass
chmod +x askpass
add_with() { ASK_PIN=$1 SSH_ASKPASS=$folder/askpass SSH_ASKPASS_REQUIRE=force timeout 30 ssh-add -s "$module"; }
eval "$(ssh-agent -P "$root/*")" >/dev/null
wrong_pin() {
    ! add_with 9999
    ssh-add -l || [ $? -eq 1 ] # 2 when there is no agent any more.
}
agent_signs() {
    add_with 1234
    ssh-add -L | grep ssh-rsa | head -n 1 >id.pub
    rm -f text.sig
    ssh-keygen -Y sign -f id.pub -n file text
    echo "me $(cut -d ' ' -f 1,2 id.pub)" >signers
    ssh-keygen -Y verify -f signers -I me -n file -s text.sig <text
}
check "ssh-agent gets a wrong PIN and lives" wrong_pin
check "ssh-agent signs" agent_signs
ssh-agent -k >/dev/null || true

# ---- NSS ----
mkdir nss
certutil -N -d sql:nss --empty-password
modutil -dbdir sql:nss -add Velkor -libfile "$module" -force </dev/null >/dev/null 2>&1 || true
head -c 64 /dev/urandom >noise
nss() { timeout 60 certutil -d sql:nss -h "Client key" -f pin "$@" </dev/null; }
check "certutil -G" nss -G -z noise -k rsa -g 2048
check "certutil -S, RSA" nss -S -z noise -k rsa -g 2048 -n nrsa -s CN=nrsa -t ",," -x -m 1
check "certutil -S -k ec" nss -S -z noise -k ec -q nistp256 -n nec -s CN=nec -t ",," -x -m 2
check "certutil -A" nss -A -n nadd -t ",," -i cert.pem
check "certutil -L" grep -q "Client key:nec" <(nss -L)
check "certutil -K" grep -q "nrsa" <(nss -K)
check "certutil -D" nss -D -n "Client key:nadd"
check "certutil -F" nss -F -n "Client key:nec"

# ---- PyKCS11 and Java ----
check "PyKCS11" timeout 60 /usr/bin/python3 "$root/tests/clients/pykcs11_client.py" "$module"
printf 'name = Velkor\nlibrary = %s\nslotListIndex = 0\n' "$module" >java.cfg
java_keytool() {
    timeout 120 keytool -keystore NONE -storetype PKCS11 -providerClass sun.security.pkcs11.SunPKCS11 \
        -providerArg java.cfg -storepass 1234 "$@"
}
java_signer() {
    timeout 120 jarsigner -keystore NONE -storetype PKCS11 -providerClass sun.security.pkcs11.SunPKCS11 \
        -providerArg java.cfg -storepass 1234 "$@"
}
sign_jar() {
    jar cf text.jar text
    java_signer text.jar "$1"
    jarsigner -verify text.jar | grep -q "jar verified"
}
check "keytool -genkeypair, RSA" java_keytool -genkeypair -alias jrsa -keyalg RSA -keysize 2048 -dname CN=jrsa
check "keytool -genkeypair, EC" java_keytool -genkeypair -alias jec -keyalg EC -groupname secp256r1 -dname CN=jec
check "jarsigner, RSA" sign_jar jrsa
check "jarsigner, EC" sign_jar jec
check "Signature, Cipher, KeyAgreement in Java" timeout 120 java "$root/tests/clients/JavaClient.java" java.cfg
check "keytool -delete" java_keytool -delete -alias jec

echo "$passed succeeded, $failed failed, through $(basename "$module"); all output is in $folder/all.out"
[ "$failed" -eq 0 ]
