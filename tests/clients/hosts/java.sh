#!/usr/bin/env bash
# Java: keytool, jarsigner, and programs that sign, decrypt, derive and speak TLS.
# Needs: default-jdk-headless
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

printf 'name = Velkor\nlibrary = %s\nslotListIndex = 0\n' "$module" >java.cfg
check "keytool -genkeypair, RSA" java_keytool -genkeypair -alias jrsa -keyalg RSA -keysize 2048 -dname CN=jrsa
check "keytool -genkeypair, EC" java_keytool -genkeypair -alias jec -keyalg EC -groupname secp256r1 -dname CN=jec
check "jarsigner, RSA" sign_jar jrsa
check "jarsigner, EC" sign_jar jec
check "Signature, Cipher, KeyAgreement in Java" timeout 120 java "$sources/tests/clients/JavaClient.java" java.cfg
check "keytool -delete" java_keytool -delete -alias jec
prepare_certificates
check "TLS in Java with a client certificate" connects
guide java
