#!/usr/bin/env bash
# Real clients over a software key, each with what its users do.
#
#   scripts/clients.sh                            through the strict front; all have to succeed
#   scripts/clients.sh plain                      through the module itself, to see what a host meets there
#   scripts/clients.sh strict|plain CLIENT...     these only, of: gnutls opensc openssh nss pykcs11 java provider curl
#                                                 stunnel nginx gnupg firefox
#
# Firefox, which is large, is run only when it is named. Installs the clients from Debian's packages, the provider from
# Debian's backports below build/clients. Writes there only, too.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
which=${1:-strict}
[ $# -eq 0 ] || shift
[ $# -ne 0 ] || set -- gnutls opensc openssh nss pykcs11 java provider curl stunnel nginx gnupg
declare -A packages=(
    [gnutls]=gnutls-bin [opensc]=opensc [openssh]=openssh-client [nss]=libnss3-tools [pykcs11]=python3-pykcs11
    [java]=default-jdk-headless [provider]=dpkg [curl]="curl libengine-pkcs11-openssl"
    [stunnel]="stunnel4 libengine-pkcs11-openssl curl" [nginx]="nginx-light libengine-pkcs11-openssl curl"
    [gnupg]="gnupg-pkcs11-scd gpgsm gpg-agent" [firefox]="firefox-esr libnss3-tools"
)
wanted=()
for client; do
    read -ra of_client <<<"${packages[$client]:?there is no client of that name}"
    wanted+=("${of_client[@]}")
done
scripts/setup.sh
scripts/setup.sh "${wanted[@]}"

folder=$root/build/clients
rm -rf "$folder"
mkdir -p "$folder/tmp"
cmake --preset release >"$folder/build.log"
cmake --build --preset release --target velkor-pkcs11 velkor-pkcs11-strict velkor-softkey >>"$folder/build.log"

export VELKOR_SOFTKEY_HOME=$folder/keys VELKOR_CONFIG=$folder/velkor.conf TMPDIR=$folder/tmp
export USER_PIN=1234 SO_PIN=12345678 GNUTLS_PIN=1234
module=$root/build/release/lib/velkor-pkcs11-strict.so
[ "$which" = strict ] || module=$root/build/release/lib/velkor-pkcs11.so
export module PKCS11_MODULE_PATH=$module
echo "logLevel = 2" >"$VELKOR_CONFIG"
tool=$root/build/release/bin/velkor-softkey
cd "$folder"
"$tool" create --serial CLIENT1 --label "Client key" --pin-env USER_PIN --so-pin-env SO_PIN >/dev/null
echo 1234 >pin
echo hello >text
openssl req -x509 -newkey rsa:2048 -nodes -keyout key.pem -out cert.pem -subj /CN=client -days 30 2>/dev/null
url="pkcs11:token=Client%20key"
trap 'kill $(jobs -p) 2>/dev/null || true' EXIT

passed=0
failed=0
# check NAME COMMAND...: one line for each; what the command says goes to a file. A failure within a function fails it.
check() {
    local name=$1 status=0
    shift
    set +e
    (set -e; "$@") >last.out 2>&1
    status=$?
    set -e
    if [ $status -eq 0 ]; then
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
p11() { timeout 60 p11tool --provider "$module" --login --batch "$@"; }
has() { p11 --list-all "$url" | grep -q "object=$1;type=$2"; }
export_public() { p11 --export "$url;object=$1;type=public" | openssl pkey -pubin -noout; }
delete_object() { p11 --delete "$url;object=$1" && ! has "$1" private; }
client_gnutls() {
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
}

# ---- OpenSC ----
p15() { timeout 60 pkcs11-tool --module "$module" --login --pin 1234 "$@"; }
sign_rsa() {
    p15 --sign --mechanism SHA256-RSA-PKCS --id 01 --input-file text --output-file sig
    p15 --read-object --type pubkey --id 01 --output-file pub.der
    openssl dgst -sha256 -verify <(openssl pkey -pubin -inform DER -in pub.der) -signature sig text
}
sign_ec() {
    local point spki
    p15 --sign --mechanism ECDSA-SHA512 --id 02 --signature-format openssl --input-file text --output-file sig
    # The point, since pkcs11-tool uses memory that it has freed when it reads a public key of P-256 whole.
    point=$(p15 --list-objects --type pubkey --id 02 | sed -n 's/^ *EC_POINT: *//p')
    spki=3059301306072a8648ce3d020106082a8648ce3d030107034200${point: -130}
    printf "$(sed 's/../\\x&/g' <<<"$spki")" >pub.der
    openssl dgst -sha512 -verify <(openssl pkey -pubin -inform DER -in pub.der) -signature sig text
}
no_errors() { p15 --test | grep -q "No errors"; }
client_opensc() {
    check "pkcs11-tool --keypairgen, RSA" p15 --keypairgen --key-type rsa:2048 --id 01 --label orsa
    check "pkcs11-tool --keypairgen, EC" p15 --keypairgen --key-type EC:prime256v1 --id 02 --label oec
    check "pkcs11-tool --sign, RSA" sign_rsa
    check "pkcs11-tool --sign, ECDSA-SHA512" sign_ec
    check "pkcs11-tool --test" no_errors
    check "pkcs11-tool --delete-object" p15 --delete-object --type privkey --id 02
}

# ---- OpenSSH ----
add_with() { ASK_PIN=$1 SSH_ASKPASS=$folder/askpass SSH_ASKPASS_REQUIRE=force timeout 30 ssh-add -s "$module"; }
wrong_pin() {
    if add_with 9999; then return 1; fi
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
client_openssh() {
    printf '#!/bin/sh\necho "$ASK_PIN"\n' >askpass
    chmod +x askpass
    "$tool" generate CLIENT1 RSA-2048 --label ssh --id 61 --pin-env USER_PIN >/dev/null
    eval "$(ssh-agent -P "$root/*")" >/dev/null
    check "ssh-agent gets a wrong PIN and lives" wrong_pin
    check "ssh-agent signs" agent_signs
    ssh-agent -k >/dev/null || true
}

# ---- NSS ----
nss() { timeout 60 certutil -d sql:nss -h "Client key" -f pin "$@" </dev/null; }
client_nss() {
    mkdir nss
    certutil -N -d sql:nss --empty-password
    modutil -dbdir sql:nss -add Velkor -libfile "$module" -force </dev/null >/dev/null 2>&1 || true
    head -c 64 /dev/urandom >noise
    check "certutil -G" nss -G -z noise -k rsa -g 2048
    check "certutil -S, RSA" nss -S -z noise -k rsa -g 2048 -n nrsa -s CN=nrsa -t ",," -x -m 1
    check "certutil -S -k ec" nss -S -z noise -k ec -q nistp256 -n nec -s CN=nec -t ",," -x -m 2
    check "certutil -A" nss -A -n nadd -t ",," -i cert.pem
    check "certutil -L" grep -q "Client key:nec" <(nss -L)
    check "certutil -K" grep -q "nrsa" <(nss -K)
    check "certutil -D" nss -D -n "Client key:nadd"
    check "certutil -F" nss -F -n "Client key:nec"
}

# ---- PyKCS11 ----
client_pykcs11() {
    check "PyKCS11" timeout 60 /usr/bin/python3 "$root/tests/clients/pykcs11_client.py" "$module"
}

# ---- Java ----
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
client_java() {
    printf 'name = Velkor\nlibrary = %s\nslotListIndex = 0\n' "$module" >java.cfg
    check "keytool -genkeypair, RSA" java_keytool -genkeypair -alias jrsa -keyalg RSA -keysize 2048 -dname CN=jrsa
    check "keytool -genkeypair, EC" java_keytool -genkeypair -alias jec -keyalg EC -groupname secp256r1 -dname CN=jec
    check "jarsigner, RSA" sign_jar jrsa
    check "jarsigner, EC" sign_jar jec
    check "Signature, Cipher, KeyAgreement in Java" timeout 120 java "$root/tests/clients/JavaClient.java" java.cfg
    check "keytool -delete" java_keytool -delete -alias jec
}

# ---- What clients with certificates need ----
# A CA, a server's certificate in a file, and a key with its certificate on the token. Each is made once.
certify() { # certify NAME [OPENSSL-REQ-ARGUMENT...]
    [ -e ca.pem ] || openssl req -x509 -newkey rsa:2048 -nodes -keyout ca.key -out ca.pem -subj "/CN=Test CA" -days 30
    openssl req -newkey "${2:-rsa:2048}" "${@:3}" -nodes -keyout "$1.key" -out "$1.csr" -subj "/CN=$1"
    openssl x509 -req -in "$1.csr" -CA ca.pem -CAkey ca.key -CAcreateserial -days 30 -out "$1.pem" \
        -extfile <(echo "subjectAltName=DNS:localhost,IP:127.0.0.1")
    openssl pkey -in "$1.key" -pubout -out "$1.pub"
}
put_on_token() { # put_on_token NAME ID
    "$tool" import-key CLIENT1 "$1.key" --label "$1" --id "$2" --pin-env USER_PIN
    "$tool" import-certificate CLIENT1 "$1.pem" --pin-env USER_PIN
}
prepare_certificates() {
    [ ! -e tls.pem ] || return 0
    { certify localhost && certify tls && put_on_token tls 77; } >prepare.log 2>&1 || { cat prepare.log; return 1; }
}
free_port() { python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'; }
await_port() {
    local try
    for try in {1..100}; do
        ! (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null || return 0
        sleep 0.1
    done
    echo "nothing listens on port $1, after $try looks"
    return 1
}
# A server that shows the certificate of its client, and has none in without one.
start_server() {
    port=$(free_port)
    timeout 120 openssl s_server -accept "127.0.0.1:$port" -cert localhost.pem -key localhost.key -CAfile ca.pem -Verify 2 \
        -verify_return_error -www >server.log 2>&1 &
    server=$!
    await_port "$port"
}
get() { timeout 20 curl -sS --cacert ca.pem "https://localhost:$port/" "$@"; }
tls_url="$url;object=tls"

# ---- The provider of OpenSSL 3 ----
# As a package of this Debian, or of its backports, which are looked at without the machine's own lists changing.
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
client_provider() {
    check "the provider can be had" find_provider
    check "keys for the provider" configure_provider
    certify localhost-ec ec -pkeyopt ec_paramgen_curve:P-256 >/dev/null 2>&1
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
    "$tool" remove CLIENT2 --yes >/dev/null
}

# ---- curl, stunnel and nginx, by OpenSSL's engine ----
curl_shows_certificate() {
    start_server
    get --cert "$tls_url;type=cert" --key "$tls_url;type=private;pin-value=1234" >page
    grep "Subject: CN=tls" page
    kill $server
}
client_curl() {
    prepare_certificates
    check "curl with a client certificate" curl_shows_certificate
}

stunnel_serves() {
    local inside outside answers=() answer
    inside=$(free_port)
    timeout 120 python3 -m http.server --bind 127.0.0.1 --directory . "$inside" >/dev/null 2>&1 &
    await_port "$inside"
    outside=$(free_port)
    cat >stunnel.conf <<END
foreground = yes
pid =
output = $folder/stunnel.log
engine = pkcs11
engineCtrl = MODULE_PATH:$module
engineCtrl = PIN:1234
[server]
accept = 127.0.0.1:$outside
connect = 127.0.0.1:$inside
engineNum = 1
cert = $tls_url;type=cert
key = $tls_url;type=private
END
    timeout 60 stunnel stunnel.conf &
    await_port "$outside"
    for _ in {1..8}; do
        timeout 20 curl -sS --cacert ca.pem "https://localhost:$outside/text" >>"stunnel.answers" &
        answers+=($!)
    done
    for answer in "${answers[@]}"; do wait "$answer"; done
    [ "$(grep -c '^hello$' stunnel.answers)" -eq 8 ]
    kill $(jobs -p)
}
client_stunnel() {
    prepare_certificates
    check "stunnel, eight connections at once" stunnel_serves
}

nginx_answers() { # The worker of each of 12 connections; more than one has to have a turn.
    local try
    for try in {1..12}; do get || return; done | sort | uniq -c >workers
    cat workers
    [ "$(wc -l <workers)" -gt 1 ]
}
start_nginx() {
    port=$(free_port)
    cat >nginx.conf <<END
user $(id -un);
env VELKOR_SOFTKEY_HOME; env VELKOR_CONFIG; env TMPDIR; env PKCS11_MODULE_PATH;
worker_processes 3;
pid $folder/nginx.pid;
error_log $folder/nginx.log;
ssl_engine pkcs11;
events { worker_connections 64; }
http {
    access_log off;
    client_body_temp_path nginx; proxy_temp_path nginx; fastcgi_temp_path nginx; uwsgi_temp_path nginx;
    scgi_temp_path nginx;
    server {
        listen 127.0.0.1:$port ssl reuseport;
        ssl_certificate tls.pem;
        ssl_certificate_key "engine:pkcs11:$tls_url;type=private;pin-value=1234";
        return 200 "worker \$pid\n";
    }
}
END
    timeout 60 /usr/sbin/nginx -p "$folder/" -c "$folder/nginx.conf"
    await_port "$port"
}
reload_nginx() {
    local before
    before=$(sort workers)
    kill -HUP "$(cat nginx.pid)"
    sleep 2
    nginx_answers
    [ "$before" != "$(sort workers)" ]
}
client_nginx() {
    prepare_certificates
    port=0
    start_nginx >nginx.out 2>&1 || true
    check "nginx, forked workers" nginx_answers
    check "nginx, new workers after a reload" reload_nginx
    [ ! -e nginx.pid ] || kill -QUIT "$(cat nginx.pid)"
}

# ---- GnuPG ----
prepare_gnupg() {
    export GNUPGHOME=$folder/gnupg
    mkdir -m 700 "$GNUPGHOME"
    cat >gnupg-pinentry <<'END'
#!/bin/sh
echo OK
while read -r command rest; do
    [ "$command" != GETPIN ] || echo "D $USER_PIN"
    echo OK
    [ "$command" != BYE ] || exit 0
done
END
    chmod +x gnupg-pinentry
    printf 'scdaemon-program /usr/bin/gnupg-pkcs11-scd\npinentry-program %s\n' "$folder/gnupg-pinentry" \
        >"$GNUPGHOME/gpg-agent.conf"
    printf 'providers velkor\nprovider-velkor-library %s\n' "$module" >"$GNUPGHOME/gnupg-pkcs11-scd.conf"
    echo "$(openssl x509 -in ca.pem -noout -fingerprint -sha1 | cut -d = -f 2) S relax" >"$GNUPGHOME/trustlist.txt"
    echo disable-crl-checks >"$GNUPGHOME/gpgsm.conf"
}
sm() { timeout 60 gpgsm --batch --yes "$@"; }
learns_card() {
    sm --import ca.pem
    sm --learn-card
    sm --list-secret-keys | grep "Subject: /CN=tls"
}
sm_signs() {
    sm --armor --local-user tls --output signed --sign text
    sm --verify signed # Not by openssl: gpgsm drops a signature's leading zero, which one in 256 has.
}
sm_decrypts() {
    sm --recipient tls --output encrypted --encrypt text
    sm --output decrypted --decrypt encrypted
    cmp decrypted text
}
client_gnupg() {
    prepare_certificates
    prepare_gnupg
    check "gpgsm learns a card through gnupg-pkcs11-scd" learns_card
    check "gpgsm signs" sm_signs
    check "gpgsm decrypts" sm_decrypts
    timeout 20 gpgconf --kill all || true
}

# ---- Firefox ----
firefox_shows_certificate() {
    mkdir -p firefox/home
    certutil -N -d sql:firefox --empty-password
    certutil -A -d sql:firefox -n ca -t CT,C,C -i ca.pem
    modutil -dbdir sql:firefox -add Velkor -libfile "$module" -force </dev/null
    start_server
    HOME=$folder/firefox/home timeout 150 python3 "$root/tests/clients/firefox_client.py" firefox "Client key" 1234 \
        "https://localhost:$port/" "Client certificate"
    kill $server
}
client_firefox() {
    prepare_certificates
    check "Firefox with a client certificate" firefox_shows_certificate
}

for client; do "client_$client"; done
echo "$passed succeeded, $failed failed, through $(basename "$module"); all output is in $folder/all.out"
[ "$failed" -eq 0 ]
