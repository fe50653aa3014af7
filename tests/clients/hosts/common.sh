# Sourced by the script of each host: a world of its own, and what several hosts need.
#
#   HOST.sh BUILD LIBRARY FOLDER    BUILD has the built libraries, LIBRARY is plain or strict, FOLDER is made
#
# Each check is a line of FOLDER/results, "ok" or "FAILED" and its name; what it said is in FOLDER/all.out. The exit code
# is 0 when all checks were made, good or bad: report.py judges them.
set -euo pipefail
if [ $# -ne 3 ]; then
    echo "usage: $(basename "$0") BUILD plain|strict FOLDER" >&2
    exit 2
fi
sources=$(cd "$(dirname "${BASH_SOURCE[0]}")/../../.." && pwd)
build=$(realpath "$1")
library=$2
mkdir -p "$(dirname "$3")"
mkdir "$3" # One that is there has another key.
folder=$(realpath "$3")

declare -A modules=([plain]=velkor-pkcs11.so [strict]=velkor-pkcs11-strict.so)
module=$build/lib/${modules[$library]}
tool=$build/bin/velkor-softkey
mkdir -m 700 "$folder/tmp" "$folder/home" "$folder/run"
export VELKOR_SOFTKEY_HOME=$folder/keys VELKOR_CONFIG=$folder/velkor.conf TMPDIR=$folder/tmp
export HOME=$folder/home XDG_RUNTIME_DIR=$folder/run
export USER_PIN=1234 SO_PIN=12345678 GNUTLS_PIN=1234
export module PKCS11_MODULE_PATH=$module
unset LD_LIBRARY_PATH XDG_CONFIG_HOME XDG_DATA_HOME SSH_AUTH_SOCK P11_KIT_SERVER_ADDRESS
echo "logLevel = 2" >"$VELKOR_CONFIG"
cd "$folder"
"$tool" create --serial CLIENT1 --label "Client key" --pin-env USER_PIN --so-pin-env SO_PIN >create.log 2>&1
url="pkcs11:token=Client%20key"
echo 1234 >pin
echo hello >text
: >results
trap 'kill $(jobs -p) 2>/dev/null || true' EXIT

# check NAME COMMAND...: one line for each. A command of a function that fails ends and fails it: a subshell of its own,
# since a condition around it would switch that off inside. What it has started in the background ends with it.
check() {
    local name=$1 status=0
    shift
    set +e
    (
        trap 'kill $(jobs -p) 2>/dev/null || true' EXIT
        set -e
        "$@"
    ) >last.out 2>&1
    status=$?
    set -e
    if [ $status -eq 0 ]; then
        printf 'ok\t%s\n' "$name" | tee -a results
    else
        printf 'FAILED\t%s\n' "$name" | tee -a results
        tail -n 3 last.out | sed 's/^/        /'
    fi
    { echo "== $name"; cat last.out; } >>all.out
}

# guide PAGE: the commands of docs/hosts/PAGE.md, behind those of the quickstart. Pages are written for the strict front.
guide() {
    [ "$library" = strict ] || return 0
    check "docs/hosts/$1.md" "$sources/tests/clients/run_guide.sh" "$build" "$folder/guide" \
        "$sources/docs/quickstart.md" "$sources/docs/hosts/$1.md"
}

# The plain module loses its first two lines where its log has no folder yet, and says so on standard output.
make_log_folder() { mkdir -p "$TMPDIR/Brenmoor/$1"; } # make_log_folder PROGRAM

# ---- A CA, and certificates of it in files; each is made once ----
# The usage is that of the variable `usage`, if it is set.
certify() { # certify NAME [OPENSSL-REQ-ARGUMENT...]: NAME.key, NAME.pem and NAME.pub
    [ -e ca.pem ] || openssl req -x509 -newkey rsa:2048 -nodes -keyout ca.key -out ca.pem -subj "/CN=Test CA" -days 30
    openssl req -newkey "${2:-rsa:2048}" "${@:3}" -nodes -keyout "$1.key" -out "$1.csr" -subj "/CN=$1"
    {
        echo "subjectAltName=DNS:localhost,IP:127.0.0.1,email:$1@example.org"
        [ -z "${usage:-}" ] || echo "extendedKeyUsage=$usage"
    } >"$1.extensions"
    openssl x509 -req -in "$1.csr" -CA ca.pem -CAkey ca.key -CAcreateserial -days 30 -out "$1.pem" \
        -extfile "$1.extensions"
    openssl pkey -in "$1.key" -pubout -out "$1.pub"
}
put_on_token() { # put_on_token NAME ID
    "$tool" import-key CLIENT1 "$1.key" --label "$1" --id "$2" --pin-env USER_PIN
    "$tool" import-certificate CLIENT1 "$1.pem" --pin-env USER_PIN
}
# A server's certificate in a file, and a key with its certificate on the token.
make_certificates() {
    certify localhost
    certify tls
    put_on_token tls 77
}
prepare_certificates() { check "certificates are put on the token" make_certificates; }
tls_url="$url;object=tls"

. "$sources/tests/clients/hosts/servers.sh"
# Programs of OpenSSH ask this one for the PIN.
make_askpass() {
    printf '#!/bin/sh\necho "$ASK_PIN"\n' >askpass
    chmod +x askpass
    export SSH_ASKPASS=$folder/askpass SSH_ASKPASS_REQUIRE=force ASK_PIN=1234
}
