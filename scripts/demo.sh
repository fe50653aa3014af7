#!/usr/bin/env bash
# Signs something real with a software key, from nothing: makes a key, generates key pairs on it through the module,
# puts certificates on it, and drives it with a client that is not ours; the second half through the strict front.
# OpenSSL by itself checks every result. Nothing outside its own folder, build/demo, is touched.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh

root=$PWD
folder=$root/build/demo
rm -rf "$folder"
mkdir -p "$folder/tmp" "$folder/VelkorDSC/Certificates"
log=$folder/steps.log

# step NAME COMMAND...: one line with the time it took; everything it says goes to the log. Any command of a function
# that fails ends the step: a subshell of its own, since a condition around it would switch that off inside.
step() {
    local name=$1 start=$EPOCHREALTIME status end
    shift
    echo "== $name: $*" >>"$log"
    set +e
    (
        set -e
        "$@"
    ) >"$folder/step.out" 2>&1
    status=$?
    set -e
    cat "$folder/step.out" >>"$log"
    if [ "$status" -ne 0 ]; then
        echo "FAILED  $name; the end of $log:"
        tail -n 20 "$log"
        exit 1
    fi
    end=$EPOCHREALTIME
    printf '%6d ms  %s\n' $(((${end/./} - ${start/./}) / 1000)) "$name"
}

# show NAME COMMAND...: a step whose output is for the screen, too.
show() {
    step "$@"
    sed 's/^/           /' "$folder/step.out"
}

build() {
    cmake --preset release
    cmake --build --preset release --target velkor-pkcs11 velkor-pkcs11-strict softkey velkor-softkey
}
step "build the module, the strict front, the software key and its tool" build

# ---- A key, its slot and its token ----

export VELKOR_SOFTKEY_HOME=$folder/keys VELKOR_CONFIG=$folder/velkor.conf VELKOR_HOME=$folder TMPDIR=$folder/tmp
export USER_PIN=demo-1234 SO_PIN=demo-so-12345678 WRONG_PIN=wrong-1234
tool=$root/build/release/bin/velkor-softkey
module=$root/build/release/lib/velkor-pkcs11.so
echo "logLevel = 2" >"$VELKOR_CONFIG"
cd "$folder"

token() { pkcs11-tool --module "$module" "$@"; }
demo_key() { token --token-label "Demo key" "$@"; } # A PIN costs the tries of the key that it is for.
login() { demo_key --login --pin env:USER_PIN "$@"; }

# holds FILE LINE...: every line is in the file.
holds() {
    local line
    for line in "${@:2}"; do
        grep --quiet "$line" "$1" || { echo "no \"$line\" in $1"; return 1; }
    done
}
# lacks FILE LINE: the file is there and the line is not in it.
lacks() {
    [ -f "$1" ]
    [ "$(grep --count "$2" "$1")" -eq 0 ]
}

see_token() {
    token --list-slots | tee slots.txt
    holds slots.txt "token label  *: Demo key" "token model  *: VK1 Soft" "serial num  *: DEMO0001" "login required"
}
log_in() {
    login --list-objects --type privkey | tee private.txt
    holds private.txt "label: *demo rsa" "label: *demo ec"
    token --list-objects --type privkey >hidden.txt
    lacks hidden.txt "Private Key"
    echo "private keys are found by the logged-in user alone"
}
refuse_pin() {
    local status=0
    demo_key --login --pin env:WRONG_PIN --list-objects >refused.txt 2>&1 || status=$?
    cat refused.txt
    [ "$status" -ne 0 ]
    holds refused.txt CKR_PIN_INCORRECT
}
show "create a software key" "$tool" create --serial DEMO0001 --label "Demo key" --pin-env USER_PIN --so-pin-env SO_PIN
show "see it as a slot with a token" see_token
step "generate an RSA-2048 key pair" login --keypairgen --key-type rsa:2048 --id 01 --label "demo rsa"
step "generate a P-256 key pair" login --keypairgen --key-type EC:prime256v1 --id 02 --label "demo ec"
show "open a session and log in" log_in
step "log in with a wrong PIN, in vain" refuse_pin

# ---- Certificates: a root and an intermediate on disk, a leaf for each key ----

issue() { # issue NAME SUBJECT ISSUER [EXTRA...]: a certificate for the public key NAME.pub
    openssl req -new -key root.key -subj "$2" -out "$1.csr"
    openssl x509 -req -in "$1.csr" -force_pubkey "$1.pub" -CA "$3.crt" -CAkey "$3.key" -days 30 -out "$1.crt" "${@:4}"
    openssl x509 -in "$1.crt" -outform DER -out "$1.der"
}
make_issuers() {
    printf 'basicConstraints=critical,CA:TRUE\n' >ca.ext
    openssl req -x509 -newkey rsa:2048 -nodes -keyout root.key -subj "/CN=Demo Root" -days 30 -out root.crt
    openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -out intermediate.key
    openssl pkey -in intermediate.key -pubout -out intermediate.pub
    issue intermediate "/CN=Demo Intermediate" root -extfile ca.ext
    cp root.crt intermediate.crt VelkorDSC/Certificates
}
read_public_key() { # read_public_key ID NAME: as NAME.pub
    rm -f "$2.spki" "$2.pub"
    token --read-object --type pubkey --id "$1" --output-file "$2.spki"
    openssl pkey -pubin -inform DER -in "$2.spki" -pubout -out "$2.pub"
}
# The client uses memory that it has freed when it reads public keys of P-256, and of other curves it reads none; it
# shows the point.
read_point() { # read_point ID NAME CURVE SIZE: as NAME.pub
    local point
    rm -f "$2.spki" "$2.pub"
    token --list-objects --type pubkey --id "$1" >"$2.txt"
    point=$(sed -n 's/^ *EC_POINT: *//p' "$2.txt")
    printf '%s\n' asn1=SEQUENCE:key "[key]" algorithm=SEQUENCE:algorithm "point=FORMAT:HEX,BITSTRING:${point: -2*$4}" \
        "[algorithm]" type=OID:id-ecPublicKey "curve=OID:$3" >"$2.conf"
    openssl asn1parse -genconf "$2.conf" -noout -out "$2.spki"
    openssl pkey -pubin -inform DER -in "$2.spki" -pubout -out "$2.pub"
}
make_leaves() {
    read_public_key 01 rsa
    read_point 02 ec prime256v1 65
    issue rsa "/CN=Demo RSA" intermediate
    issue ec "/CN=Demo EC" root
}
read_certificate() { # read_certificate LABEL FILE: it is the one in the file
    rm -f found.der
    token --read-object --type cert --label "$1" --output-file found.der
    openssl x509 -inform DER -in found.der | cmp - "$2"
}
find_chain() {
    token --list-objects --type cert | tee certificates.txt
    holds certificates.txt "label: *Demo Root" "label: *Demo Intermediate" "label: *Demo RSA"
    read_certificate "Demo Root" root.crt
    read_certificate "Demo Intermediate" intermediate.crt
    read_certificate "Demo RSA" rsa.crt
}
step "make a root and an intermediate certificate on disk" make_issuers
step "read the public keys, issue certificates for them" make_leaves
step "write the RSA certificate; its issuers follow" login --write-object rsa.der --type cert --id 01 --label "Demo RSA"
show "find the chain of three on the token" find_chain
step "write the EC certificate" login --write-object ec.der --type cert --id 02 --label "Demo EC"
step "list all objects" login --list-objects

# ---- Use of the keys, through the strict front: many short commands, each of which ends at once ----

module=$root/build/release/lib/velkor-pkcs11-strict.so
echo "What the demo signs." >data.txt
sign() { # sign ID NAME MECHANISM [OPTION...]: as NAME.sig
    rm -f "$2.sig"
    login --sign --id "$1" --mechanism "$3" "${@:4}" --input-file data.txt --output-file "$2.sig"
}
verify() { # verify NAME [OPTION...]: the signature NAME.sig with the public key NAME.pub
    openssl dgst -sha256 "${@:2}" -verify "$1.pub" -signature "$1.sig" data.txt
}
verify_with_certificate() {
    openssl x509 -in "$1.crt" -pubkey -noout >certified.pub
    openssl dgst -sha256 "${@:2}" -verify certified.pub -signature "$1.sig" data.txt
}
step "sign with RSA PKCS #1 v1.5" sign 01 rsa SHA256-RSA-PKCS
step "  openssl verifies it" verify_with_certificate rsa
step "sign with RSA-PSS" sign 01 rsa SHA256-RSA-PKCS-PSS
step "  openssl verifies it" verify_with_certificate rsa -sigopt rsa_padding_mode:pss -sigopt rsa_pss_saltlen:32
step "sign with ECDSA" sign 02 ec ECDSA-SHA256 --signature-format openssl
step "  openssl verifies it" verify_with_certificate ec

decrypt() { # decrypt MECHANISM PADDING [OPTION...]: what openssl encrypted
    rm -f secret.bin plain.txt
    openssl pkeyutl -encrypt -pubin -inkey rsa.pub -pkeyopt "rsa_padding_mode:$2" -in data.txt -out secret.bin
    login --decrypt --id 01 --mechanism "$1" "${@:3}" --input-file secret.bin --output-file plain.txt
    cmp data.txt plain.txt
}
step "decrypt PKCS #1 v1.5 of openssl" decrypt RSA-PKCS pkcs1
step "decrypt OAEP of openssl" decrypt RSA-PKCS-OAEP oaep --hash-algorithm SHA-1
derive() {
    rm -f derived.bin expected.bin
    openssl ecparam -name prime256v1 -genkey -noout -out peer.key
    openssl pkey -in peer.key -pubout -outform DER -out peer.der
    login --derive --id 02 --mechanism ECDH1-DERIVE --input-file peer.der --output-file derived.bin
    openssl pkeyutl -derive -inkey peer.key -peerkey ec.pub -out expected.bin
    [ "$(stat --format=%s expected.bin)" -eq 32 ]
    cmp derived.bin expected.bin
}
step "derive an ECDH secret; openssl derives the same" derive
draw() {
    local number status=0
    rm -f random1.bin random2.bin
    for number in 1 2; do
        login --generate-random 32 --output-file "random$number.bin"
        [ "$(stat --format=%s "random$number.bin")" -eq 32 ]
    done
    cmp random1.bin random2.bin || status=$?
    [ "$status" -eq 1 ]
}
step "draw random bytes, twice" draw

# ---- Keys of every other size and curve ----

use_rsa() { # use_rsa ID NAME BITS
    login --keypairgen --key-type "rsa:$3" --id "$1" --label "demo $2"
    read_public_key "$1" "$2"
    openssl pkey -pubin -in "$2.pub" -noout -text | grep "($3 bit)"
    sign "$1" "$2" SHA256-RSA-PKCS
    verify "$2"
}
use_ec() { # use_ec ID NAME CURVE SIZE: an uncompressed point of the curve has that size
    login --keypairgen --key-type "EC:$3" --id "$1" --label "demo $2"
    read_point "$1" "$2" "$3" "$4"
    sign "$1" "$2" ECDSA-SHA256 --signature-format openssl
    verify "$2"
}
step "generate RSA-3072, sign; openssl verifies it" use_rsa 11 rsa-3072 3072
step "generate RSA-4096, sign; openssl verifies it" use_rsa 12 rsa-4096 4096
step "generate P-384, sign; openssl verifies it" use_ec 13 p-384 secp384r1 97
step "generate P-521, sign; openssl verifies it" use_ec 14 p-521 secp521r1 133

# ---- A key from outside ----

make_key() {
    openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -out imported.key
    openssl pkey -in imported.key -pubout -out imported.pub
    openssl pkey -in imported.key -outform DER -out imported.der
}
sign_imported() {
    sign 03 imported SHA256-RSA-PKCS
    verify imported
}
delete_imported() {
    login --list-objects --type privkey >before.txt
    holds before.txt "label: *imported"
    login --delete-object --type privkey --id 03
    login --list-objects --type privkey >after.txt
    lacks after.txt "label: *imported"
    holds after.txt "label: *demo rsa"
}
step "make an RSA key with openssl" make_key
step "write it to the token" login --write-object imported.der --type privkey --id 03 --label imported
step "sign with it; openssl verifies it" sign_imported
step "delete it" delete_imported
