#!/usr/bin/env bash
# OpenSC's pkcs11-tool: what it lists, makes, signs, decrypts, derives, stores and deletes.
# Needs: opensc
# Limit: 300
. "$(dirname "$0")/common.sh"

token() {
    printf '%s\n' --module "$@" >>arguments.txt
    timeout 60 pkcs11-tool --module "$module" "$@"
}
login() { token --login --pin env:USER_PIN "$@"; }

has_token() {
    token --list-token-slots | tee slots.txt
    grep -q "token label *: Client key$" slots.txt
    grep -q "serial num *: CLIENT1$" slots.txt
}
lists_mechanisms() {
    token --list-mechanisms | tee mechanisms.txt
    grep -q "SHA256-RSA-PKCS-PSS, .*sign, verify" mechanisms.txt
    grep -q "ECDH1-DERIVE, .*derive" mechanisms.txt
}
read_public_key() { # read_public_key ID: as pub.pem
    login --read-object --type pubkey --id "$1" --output-file pub.der
    openssl pkey -pubin -inform DER -in pub.der -pubout -out pub.pem
}
# The point, since pkcs11-tool uses memory that it has freed when it reads a public key of P-256 whole.
read_point() { # read_point ID: as pub.pem
    local point spki
    point=$(login --list-objects --type pubkey --id "$1" | sed -n 's/^ *EC_POINT: *//p')
    spki=3059301306072a8648ce3d020106082a8648ce3d030107034200${point: -130}
    printf "$(sed 's/../\\x&/g' <<<"$spki")" >pub.der
    openssl pkey -pubin -inform DER -in pub.der -pubout -out pub.pem
}
sign_rsa() {
    login --sign --mechanism SHA256-RSA-PKCS --id 01 --input-file text --output-file sig
    read_public_key 01
    openssl dgst -sha256 -verify pub.pem -signature sig text
}
sign_pss() {
    login --sign --mechanism SHA384-RSA-PKCS-PSS --mgf MGF1-SHA384 --salt-len 48 --id 01 --input-file text --output-file sig
    read_public_key 01
    openssl dgst -sha384 -verify pub.pem -sigopt rsa_padding_mode:pss -sigopt rsa_pss_saltlen:digest -signature sig text
}
sign_ec() { # sign_ec MECHANISM HASH
    login --sign --mechanism "$1" --id 02 --signature-format openssl --input-file text --output-file sig
    read_point 02
    openssl dgst "$2" -verify pub.pem -signature sig text
}
verify() {
    login --sign --mechanism SHA256-RSA-PKCS --id 01 --input-file text --output-file sig
    login --verify --mechanism SHA256-RSA-PKCS --id 01 --input-file text --signature-file sig | grep "Signature is valid"
}
hash() {
    login --hash --mechanism SHA256 --input-file text --output-file hashed
    openssl dgst -sha256 -binary text | cmp - hashed
}
decrypt() { # decrypt MECHANISM PADDING [OPTION...]
    read_public_key 01
    openssl pkeyutl -encrypt -pubin -inkey pub.pem -pkeyopt "rsa_padding_mode:$2" -in text -out encrypted
    login --decrypt --id 01 --mechanism "$1" "${@:3}" --input-file encrypted --output-file decrypted
    cmp decrypted text
}
derive() {
    read_point 02
    openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out peer.key
    openssl pkey -in peer.key -pubout -outform DER -out peer.der
    login --derive --id 02 --mechanism ECDH1-DERIVE --input-file peer.der --output-file here
    openssl pkeyutl -derive -inkey peer.key -peerkey pub.pem -out there
    cmp here there
    login --derive --derive-pass-der --id 02 --mechanism ECDH1-DERIVE --input-file peer.der --output-file again
    cmp again there
}
write_key() {
    openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -outform DER -out imported.der
    login --write-object imported.der --type privkey --id 03 --label imported
    login --sign --mechanism SHA256-RSA-PKCS --id 03 --input-file text --output-file sig
    openssl pkey -inform DER -in imported.der -pubout -out imported.pub
    openssl dgst -sha256 -verify imported.pub -signature sig text
}
write_certificate() {
    openssl req -x509 -newkey rsa:2048 -nodes -keyout key.pem -outform DER -out cert.der -subj /CN=client -days 30
    login --write-object cert.der --type cert --id 04 --label certificate
    token --read-object --type cert --label certificate --output-file read.der
    cmp cert.der read.der
}
set_id() {
    login --set-id 13 --type privkey --id 03
    login --list-objects --type privkey | grep "ID: *13"
}
change_pin() {
    token --login --pin env:USER_PIN --change-pin --new-pin 4321
    token --login --pin 4321 --change-pin --new-pin "$USER_PIN"
    login --list-objects
}
refuse_pin() {
    local status=0
    token --login --pin 9999 --list-objects || status=$?
    [ "$status" -ne 0 ]
    login --list-objects # Which gives the try back.
}
delete_pair() {
    login --delete-object --type privkey --id 02
    login --list-objects --type privkey >left.txt
    if grep "ID: *02" left.txt; then return 1; fi
}
no_errors() { login --test | grep "No errors"; }
chooses_slot() {
    local number name
    token --list-slots | tee slots.txt
    number=$(sed -n 's/^Slot 0 (\(0x[0-9a-f]*\)): .*/\1/p' slots.txt)
    name=$(sed -n 's/^Slot 0 (0x[0-9a-f]*): //p' slots.txt)
    token --slot "$number" --list-objects
    token --slot-index 0 --list-objects
    token --slot-description "$name" --list-objects
    token --token-label "Client key" --list-objects
    if token --token-label "No key" --list-objects; then return 1; fi
}
makes_pair_for_use() {
    login --keypairgen --key-type rsa:2048 --id 05 --label use --usage-sign --usage-decrypt --allow-sw
    login --keypairgen --key-type EC:secp384r1 --id 06 --label use --usage-sign --usage-derive
    login --list-objects --type privkey >pairs.txt
    grep -A 1 "ID: *05" pairs.txt | grep "Usage: *decrypt, sign"
    grep -A 1 "ID: *06" pairs.txt | grep "Usage: *sign"
}
writes_key_of_certificate() {
    login --write-object imported.der --type privkey --id 07 --label attributes --attr-from cert.der --private --sensitive
    login --list-objects --type privkey | grep -A 2 "ID: *07" | grep "Access: *sensitive"
}
# The program and its thread start the library, which two may do at once through the strict front only: the thread of
# the plain module waits a second first.
test_threads() {
    local steps=ILGISL
    [ "$library" = strict ] || steps=P1$steps
    token --test-threads "$steps" 2>&1 | tee threads.txt && grep "ended with CKR_OK" threads.txt
}
# Every option was given to the program by a check, or is in a list with the reason why it cannot be.
uses_every_option() {
    { pkcs11-tool --help 2>&1 || true; } | sed -n 's/^  *\(-., \)*\(--[a-z0-9-]*\) .*/\2/p' | sort >options.txt
    [ "$(wc -l <options.txt)" -gt 50 ]
    comm -23 options.txt <(sort -u arguments.txt) >unused.txt
    grep '^--' "$sources/tests/clients/hosts/opensc_options.txt" | cut -d ' ' -f 1 | sort | comm -3 - unused.txt | tee wrong.txt
    [ ! -s wrong.txt ]
}

check "pkcs11-tool --show-info" token --show-info
check "pkcs11-tool --list-token-slots" has_token
check "pkcs11-tool --list-mechanisms" lists_mechanisms
check "pkcs11-tool --keypairgen, RSA" login --keypairgen --key-type rsa:2048 --id 01 --label orsa
check "pkcs11-tool --keypairgen, EC" login --keypairgen --key-type EC:prime256v1 --id 02 --label oec
check "pkcs11-tool --sign, RSA" sign_rsa
check "pkcs11-tool --sign, RSA-PSS" sign_pss
check "pkcs11-tool --sign, ECDSA-SHA256" sign_ec ECDSA-SHA256 -sha256
check "pkcs11-tool --sign, ECDSA-SHA512" sign_ec ECDSA-SHA512 -sha512
check "pkcs11-tool --verify" verify
check "pkcs11-tool --hash" hash
check "pkcs11-tool --decrypt, PKCS #1" decrypt RSA-PKCS pkcs1
check "pkcs11-tool --decrypt, OAEP" decrypt RSA-PKCS-OAEP oaep --hash-algorithm SHA-1
check "pkcs11-tool --derive" derive
check "pkcs11-tool --write-object, a private key" write_key
check "pkcs11-tool --write-object, a certificate" write_certificate
check "pkcs11-tool --set-id" set_id
check "pkcs11-tool --change-pin" change_pin
check "pkcs11-tool with a wrong PIN" refuse_pin
check "pkcs11-tool --generate-random" login --generate-random 32 --output-file random
check "pkcs11-tool --slot, --slot-index, --token-label" chooses_slot
check "pkcs11-tool --keypairgen, with usages" makes_pair_for_use
check "pkcs11-tool --write-object, with a certificate's attributes" writes_key_of_certificate
check "pkcs11-tool --use-locking" token --use-locking --verbose --list-token-slots
check "pkcs11-tool --test-fork" token --test-fork
check "pkcs11-tool --test-threads" test_threads
check "pkcs11-tool --test-ec" login --session-rw --test-ec --id 08 --label test --key-type EC:prime256v1
check "pkcs11-tool --test" no_errors
check "pkcs11-tool --delete-object" delete_pair
check "pkcs11-tool's options" uses_every_option
guide opensc
if [ "$library" = strict ]; then
    check "README.md" "$sources/tests/clients/run_guide.sh" "$build" "$folder/readme" "$sources/README.md"
    check "docs/troubleshooting.md" "$sources/tests/clients/run_guide.sh" "$build" "$folder/trouble" \
        "$sources/docs/quickstart.md" "$sources/docs/troubleshooting.md"
fi
