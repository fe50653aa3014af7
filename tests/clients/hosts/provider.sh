#!/usr/bin/env bash
# The provider of OpenSSL 3, by the URLs that its users write. Its package is that of Debian's backports.
# Needs: openssl dpkg
# Limit: 180
. "$(dirname "$0")/common.sh"

# The backports are looked at without the machine's own lists changing.
find_provider() {
    local suite mirror options
    suite=$(. /etc/os-release && echo "$VERSION_CODENAME")
    mirror=$(apt-get indextargets --format '$(REPO_URI)' "Codename: $suite" 'Component: main' | head -n 1)
    mkdir -p apt/lists/partial
    printf 'deb [signed-by=/usr/share/keyrings/debian-archive-keyring.gpg] %s %s main\n' \
        "$mirror" "$suite" "$mirror" "$suite-backports" >apt/sources.list
    options=(-qq -o Dir::Etc::sourcelist="$PWD/apt/sources.list" -o Dir::Etc::sourceparts=/dev/null
        -o Dir::State::lists="$PWD/apt/lists" -o Dir::Cache="$PWD/apt")
    apt-get "${options[@]}" update
    apt-get "${options[@]}" -t "$suite-backports" download pkcs11-provider
    dpkg -x pkcs11-provider_*.deb provider
}
configure_provider() {
    certify rsa && put_on_token rsa 51 && certify ec ec -pkeyopt ec_paramgen_curve:P-256 && put_on_token ec 52
    certify localhost-ec ec -pkeyopt ec_paramgen_curve:P-256
    "$tool" create --serial CLIENT2 --label "One key" --pin-env USER_PIN --so-pin-env SO_PIN
    certify single
    "$tool" import-key CLIENT2 single.key --label single --id 53 --pin-env USER_PIN
    cat >provider.cnf <<END
openssl_conf = start
[start]
providers = providers
[providers]
default = of_openssl
pkcs11 = of_token
[of_openssl]
activate = 1
[of_token]
module = $(find "$folder/provider" -name pkcs11.so)
pkcs11-module-path = $module
pkcs11-module-token-pin = 1234
pkcs11-module-encode-provider-uri-to-pem = true
activate = 1
END
}
with_provider() { OPENSSL_CONF=$folder/provider.cnf timeout 60 openssl "$@"; }
signs() { # signs URL PUBLIC-KEY-FILE [OPTION...]
    with_provider dgst -sha256 "${@:3}" -sign "$1;type=private" -out sig text
    openssl dgst -sha256 "${@:3}" -verify "$2" -signature sig text
}
decrypts() { # decrypts PADDING [OPTION...]
    openssl pkeyutl -encrypt -pubin -inkey rsa.pub -pkeyopt "rsa_padding_mode:$1" -in text -out encrypted
    with_provider pkeyutl -decrypt -inkey "$url;object=rsa;type=private" -pkeyopt "rsa_padding_mode:$1" "${@:2}" \
        -in encrypted -out decrypted
    cmp decrypted text
}
derives() {
    with_provider pkeyutl -derive -inkey "$url;object=ec;type=private" -peerkey localhost-ec.pub -out there
    openssl pkeyutl -derive -inkey localhost-ec.key -peerkey ec.pub -out here
    cmp here there
}
generates() {
    with_provider genpkey -propquery provider=pkcs11 -algorithm EC -pkeyopt group:P-256 \
        -pkeyopt "pkcs11_uri:$url;object=made;id=%54" -out made.pem
    with_provider pkey -pubin -in "$url;object=made;type=public" -pubout -out made.pub
    signs "$url;object=made" made.pub
}
certifies() {
    with_provider req -x509 -new -key "$url;object=ec;type=private" -subj /CN=own -days 10 -out own.pem
    openssl verify -CAfile own.pem own.pem
}
lists() { with_provider storeutl -keys -noout "$url" | grep "Total found: $("$tool" info CLIENT1 | grep -c '^key pair')"; }

check "the provider can be had" find_provider
check "keys for the provider" configure_provider
check "provider, by label: an RSA signature" signs "$url;object=rsa" rsa.pub
check "provider, by ID: an ECDSA signature" signs "$url;id=%52" ec.pub
check "provider, by token alone" signs "pkcs11:token=One%20key" single.pub
check "provider: PSS" signs "$url;object=rsa" rsa.pub -sigopt rsa_padding_mode:pss -sigopt rsa_pss_saltlen:digest
check "provider: decrypts PKCS #1" decrypts pkcs1
check "provider: decrypts OAEP" decrypts oaep -pkeyopt rsa_oaep_md:sha1 -pkeyopt rsa_mgf1_md:sha1
check "provider: derives" derives
check "provider: lists the keys of a token" lists
check "provider: generates a key and signs with it" generates
check "provider: signs a certificate" certifies
