#!/usr/bin/env bash
# Java: keytool, jarsigner, and programs that sign, decrypt, derive and speak TLS.
# Needs: default-jdk-headless opensc
# Limit: 240
. "$(dirname "$0")/common.sh"

store=(-keystore NONE -storetype PKCS11 -providerClass sun.security.pkcs11.SunPKCS11 -providerArg java.cfg
    -storepass 1234)
java_keytool() { timeout 120 keytool "${store[@]}" "$@"; }
sign_jar() {
    jar cf text.jar text
    timeout 120 jarsigner "${store[@]}" text.jar "$1"
    jarsigner -verify text.jar | grep "jar verified"
}
connects() {
    start_server
    timeout 60 java "$sources/tests/clients/JavaTlsClient.java" java.cfg ca.pem tls "$port" >page
    grep "Subject: CN=tls" page
}

java_client() { timeout 120 java -cp classes JavaClient java.cfg "$@"; }
# With another token there as well, in the way of docs/hosts/java.md.
chooses_token() {
    local slot label
    "$tool" create --serial ANOTHER1 --label "Another key" --pin-env USER_PIN --so-pin-env SO_PIN
    for label in "Client key" "Another key"; do
        pkcs11-tool --module "$module" --list-token-slots >slots.txt
        slot=$(awk -F '[()]' '/^Slot/ { slot = $2 } /token label *: '"$label"'$/ { print slot }' slots.txt)
        printf 'name = Velkor\nlibrary = %s\nslot = %s\n' "$module" "$slot" >chosen.cfg
        keytool "${store[@]/java.cfg/chosen.cfg}" -list | tee "entries of $label"
    done
    grep -q "^tls, PrivateKeyEntry" "entries of Client key"
    grep -q "contains 0 entries" "entries of Another key"
}

printf 'name = Velkor\nlibrary = %s\nslotListIndex = 0\n' "$module" >java.cfg
javac -d classes "$sources/tests/clients/JavaClient.java"
"$tool" generate CLIENT1 P-256 --label tec --id 31 --pin-env USER_PIN >tec.log
"$tool" self-sign CLIENT1 1 --subject CN=tec --pin-env USER_PIN >>tec.log
check "keytool -genkeypair, RSA" java_keytool -genkeypair -alias jrsa -keyalg RSA -keysize 2048 -dname CN=jrsa
check "keytool -genkeypair, EC" java_keytool -genkeypair -alias jec -keyalg EC -groupname secp256r1 -dname CN=jec
check "jarsigner, RSA" sign_jar jrsa
check "jarsigner, EC" sign_jar tec
check "jarsigner, EC, with keytool's pair" sign_jar jec
check "Signature in Java, RSA" java_client sign-rsa jrsa
check "Signature in Java, EC" java_client sign-ec tec
check "Signature in Java, EC, with keytool's pair" java_client sign-ec jec
check "Signature in Java, RSA, verified on the token" java_client verify-rsa jrsa
check "Signature in Java, EC, verified on the token" java_client verify-ec tec
check "Cipher in Java" java_client decrypt jrsa
check "Cipher in Java, encrypted on the token" java_client encrypt jrsa
check "KeyAgreement in Java" java_client agree tec
check "KeyPairGenerator in Java, EC" java_client generate jrsa
check "keytool -delete" java_keytool -delete -alias jrsa
check "keytool -delete, EC" java_keytool -delete -alias tec
check "keytool -delete, keytool's EC pair" java_keytool -delete -alias jec
prepare_certificates
check "TLS in Java with a client certificate" connects
check "keytool -list of one of two tokens" chooses_token
guide java
