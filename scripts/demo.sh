#!/usr/bin/env bash
# Signs something real with a software key, from nothing: makes a key, generates key pairs on it through the module,
# puts certificates on it, and drives it with a client that is not ours. OpenSSL by itself checks every result.
# Nothing outside its own folder, build/demo, is touched.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh

folder=$PWD/build/demo
rm -rf "$folder"
mkdir -p "$folder/tmp" "$folder/VelkorDSC/Certificates"
log=$folder/steps.log

# step NAME COMMAND...: one line with the time it took; everything it says goes to the log.
step() {
    local name=$1 start=$EPOCHREALTIME
    shift
    echo "== $name: $*" >>"$log"
    if ! "$@" >>"$log" 2>&1; then
        echo "FAILED  $name; the end of $log:"
        tail -n 20 "$log"
        exit 1
    fi
    local end=$EPOCHREALTIME
    printf '%6d ms  %s\n' $(((${end/./} - ${start/./}) / 1000)) "$name"
}

build() {
    cmake --preset release
    cmake --build --preset release --target velkor-pkcs11 softkey velkor-softkey
}
step "build the module, the software key and its tool" build

export VELKOR_SOFTKEY_HOME=$folder/keys VELKOR_CONFIG=$folder/velkor.conf VELKOR_HOME=$folder TMPDIR=$folder/tmp
export USER_PIN=demo-1234 SO_PIN=demo-so-12345678
tool=build/release/bin/velkor-softkey
module=build/release/lib/velkor-pkcs11.so
echo "logLevel = 2" >"$VELKOR_CONFIG"

token() { pkcs11-tool --module "$module" "$@"; }
login() { token --login --pin env:USER_PIN "$@"; }

step "create a software key" "$tool" create --serial DEMO0001 --label "Demo key" --pin-env USER_PIN --so-pin-env SO_PIN
step "see it as a slot with a token" token --list-slots
step "generate an RSA-2048 key pair" login --keypairgen --key-type rsa:2048 --id 01 --label "demo rsa"
step "generate a P-256 key pair" login --keypairgen --key-type EC:prime256v1 --id 02 --label "demo ec"

# ---- Certificates: a root and an intermediate on disk, a leaf for each key ----

cd "$folder"
token() { pkcs11-tool --module "$OLDPWD/$module" "$@"; }
tool=$OLDPWD/$tool
issue() { # issue NAME SUBJECT ISSUER [EXTRA...]: a certificate for the public key NAME.pub
    openssl req -new -key root.key -subj "$2" -out "$1.csr"
    openssl x509 -req -in "$1.csr" -force_pubkey "$1.pub" -CA "$3.crt" -CAkey "$3.key" -days 30 -out "$1.crt" "${@:4}"
    openssl x509 -in "$1.crt" -outform DER -out "$1.der"
}
make_issuers() {
    openssl req -x509 -newkey rsa:2048 -nodes -keyout root.key -subj "/CN=Demo Root" -days 30 -out root.crt
    openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -out intermediate.key
    openssl pkey -in intermediate.key -pubout -out intermediate.pub
    printf 'basicConstraints=critical,CA:TRUE\n' >ca.ext
    issue intermediate "/CN=Demo Intermediate" root -extfile ca.ext
    cp root.crt intermediate.crt VelkorDSC/Certificates
}
make_leaves() {
    token --read-object --type pubkey --id 01 --output-file rsa.spki
    token --read-object --type pubkey --id 02 --output-file ec.spki
    openssl pkey -pubin -inform DER -in rsa.spki -pubout -out rsa.pub
    openssl pkey -pubin -inform DER -in ec.spki -pubout -out ec.pub
    issue rsa "/CN=Demo RSA" intermediate
    issue ec "/CN=Demo EC" root
}
has_chain() { token --list-objects --type cert | tee objects.txt; [ "$(grep -c 'Demo Root\|Demo Intermediate\|Demo RSA' objects.txt)" -ge 3 ]; }
step "make a root and an intermediate certificate on disk" make_issuers
step "read the public keys, issue certificates for them" make_leaves
step "write the RSA certificate; its issuers follow" login --write-object rsa.der --type cert --id 01 --label "Demo RSA"
step "write the EC certificate" login --write-object ec.der --type cert --id 02 --label "Demo EC"
step "find the chain on the token" has_chain
step "list all objects" login --list-objects

# ---- Use of the keys ----

echo "What the demo signs." >data.txt
sign_rsa() { login --sign --id 01 --mechanism "$1" --input-file data.txt --output-file rsa.sig; }
sign_ec() { login --sign --id 02 --mechanism ECDSA-SHA256 --signature-format openssl --input-file data.txt --output-file ec.sig; }
verify() { openssl dgst -sha256 "${@:3}" -verify <(openssl x509 -in "$1.crt" -pubkey -noout) -signature "$2.sig" data.txt; }
step "sign with RSA PKCS #1 v1.5" sign_rsa SHA256-RSA-PKCS
step "  openssl verifies it" verify rsa rsa
step "sign with RSA-PSS" sign_rsa SHA256-RSA-PKCS-PSS
step "  openssl verifies it" verify rsa rsa -sigopt rsa_padding_mode:pss -sigopt rsa_pss_saltlen:32
step "sign with ECDSA" sign_ec
step "  openssl verifies it" verify ec ec

decrypt() { # decrypt MECHANISM PADDING: what openssl encrypted
    openssl pkeyutl -encrypt -pubin -inkey rsa.pub -pkeyopt "rsa_padding_mode:$2" -in data.txt -out secret.bin
    login --decrypt --id 01 --mechanism "$1" "${@:3}" --input-file secret.bin --output-file plain.txt
    cmp data.txt plain.txt
}
step "decrypt PKCS #1 v1.5 of openssl" decrypt RSA-PKCS pkcs1
step "decrypt OAEP of openssl" decrypt RSA-PKCS-OAEP oaep --hash-algorithm SHA-1
derive() {
    openssl ecparam -name prime256v1 -genkey -noout -out peer.key
    openssl pkey -in peer.key -pubout -outform DER -out peer.der
    login --derive --id 02 --mechanism ECDH1-DERIVE --input-file peer.der --output-file derived.bin
    openssl pkeyutl -derive -inkey peer.key -peerkey ec.pub -out expected.bin
    cmp derived.bin expected.bin
}
step "derive an ECDH secret; openssl derives the same" derive
step "draw random bytes" login --generate-random 32 --output-file random.bin

# ---- A key from outside ----

make_key() {
    openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -out imported.key
    openssl pkey -in imported.key -pubout -out imported.pub
    openssl pkey -in imported.key -outform DER -out imported.der
}
sign_imported() {
    login --sign --id 03 --mechanism SHA256-RSA-PKCS --input-file data.txt --output-file imported.sig
    openssl dgst -sha256 -verify imported.pub -signature imported.sig data.txt
}
delete_imported() {
    login --delete-object --type privkey --id 03
    ! login --list-objects --type privkey | grep --quiet imported
}
step "make an RSA key with openssl" make_key
step "write it to the token" login --write-object imported.der --type privkey --id 03 --label imported
step "sign with it; openssl verifies it" sign_imported
step "delete it" delete_imported
