#!/usr/bin/env bash
# Records logs of hosts that the tests of velkor-trace read: hosts that list and use a software key with two key pairs and
# a certificate. Needs the release build, installs the hosts, and writes into FOLDER and below a temporary one.
#   scripts/trace-record.sh FOLDER [BUILD]      build/release when none is named
set -euo pipefail
"$(dirname "$0")/setup.sh" opensc openssl libengine-pkcs11-openssl gnutls-bin openssh-client libnss3-tools \
    default-jdk-headless
mkdir -p "$1"
into=$(realpath "$1")
build=$(realpath "${2:-$(dirname "$0")/../build/release}")
module=$build/lib/velkor-pkcs11.so
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export TMPDIR=$work VELKOR_SOFTKEY_HOME=$work/keys VELKOR_CONFIG=$work/velkor.conf
export PIN=73519246 SO_PIN=82647351 # Nothing else has these digits: they are looked for at the end.
cd "$work"
echo "logLevel = 3" >"$VELKOR_CONFIG"
for host in certutil keytool modutil openssl p11tool ssh-keygen; do
    mkdir -p "Brenmoor/$host" # Or the first two lines would be lost.
done

"$build/bin/velkor-softkey" create --serial RECORD1 --label record --pin-env PIN --so-pin-env SO_PIN
tool() {
    pkcs11-tool --module "$module" --token-label record --login --login-type user --pin "$PIN" "$@"
}
tool --keypairgen --key-type RSA:2048 --id 01 --label signer
tool --keypairgen --key-type EC:prime256v1 --id 02 --label ec

cat >openssl.cnf <<END
openssl_conf = all
[all]
engines = engines
[engines]
pkcs11 = pkcs11
[pkcs11]
engine_id = pkcs11
MODULE_PATH = $module
PIN = $PIN
init = 1
[req]
distinguished_name = name
[name]
END
export OPENSSL_CONF=$work/openssl.cnf
key="pkcs11:object=signer;type=private"
openssl req -engine pkcs11 -keyform engine -key "$key" -new -x509 -subj /CN=signer -days 3650 -outform der -out signer.der
echo data >data
openssl dgst -engine pkcs11 -keyform engine -sign "$key" -sha256 -out signature data
openssl pkeyutl -engine pkcs11 -keyform engine -inkey "$key" -sign -in data -out signature # As it is, with its padding.
tool --write-object signer.der --type cert --id 01 --label signer

export GNUTLS_PIN=$PIN
p11tool --provider "$module" --list-tokens
# It finds no token of the plain module by a label; there is one alone.
p11tool --provider "$module" --login --list-all "pkcs11:"
p11tool --provider "$module" --login --test-sign "pkcs11:object=signer;type=private"

ssh-keygen -D "$module"

mkdir nss
certutil -N -d nss --empty-password
modutil -dbdir nss -force -add velkor -libfile "$module"
modutil -dbdir nss -force -list velkor
echo "$PIN" >pin
certutil -d nss -L -h all -f pin
certutil -d nss -K -h all -f pin

printf 'name = velkor\nlibrary = %s\n' "$module" >java.cfg
keytool -providerclass sun.security.pkcs11.SunPKCS11 -providerarg java.cfg -storetype PKCS11 -keystore NONE \
    -storepass "$PIN" -list -v

hex() {
    printf %s "$1" | od -An -tx1 | tr -d ' \n'
}
if grep -ri -e "$PIN" -e "$SO_PIN" -e "$(hex "$PIN")" -e "$(hex "$SO_PIN")" -e "$work" Brenmoor; then
    echo "A log has what it must not have." >&2
    exit 1
fi
for host in certutil keytool modutil openssl p11tool ssh-keygen; do
    rm -rf "${into:?}/$host"
    cp -r "Brenmoor/$host" "$into"
done
