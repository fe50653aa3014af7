#!/usr/bin/env bash
# How many signatures a second a key carries for other machines: 1, 4 and 16 clients of p11-kit's server, through ssh on
# the loopback address, RSA-2048. Every signature is verified. For comparison the same without ssh, and without p11-kit.
#
#   bench/remote.sh [SECONDS]     of each row, 10 by default
#
# Installs what it needs from Debian's packages; writes below build/remote only. To be run on a machine that does nothing
# else.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-10}
scripts/setup.sh
scripts/setup.sh p11-kit p11-kit-modules openssh-client openssh-server python3-pykcs11 python3-cryptography
cmake --preset release >/dev/null
cmake --build --preset release --target velkor-pkcs11 velkor-pkcs11-strict softkey velkor-softkey >/dev/null
rm -rf build/remote
set -- build/release strict build/remote
. tests/clients/hosts/common.sh

client=$(find /usr/lib -name p11-kit-client.so | head -n 1)
measure() { # measure TITLE MODULE
    mkdir "$1"
    echo "$1"
    /usr/bin/python3 "$sources/bench/remote.py" "$2" "Client key" 1234 bench.pub "$folder/$1" "$seconds" 1 4 16
}

certify bench >certify.log 2>&1
put_on_token bench 01 >>certify.log
ssh-keygen -q -t ed25519 -N "" -f user
start_sshd "$folder/user.pub"
p11-kit server --foreground --provider "$module" --name "$folder/run/server" "$url" >p11-kit.log 2>&1 &
await_socket "$folder/run/server"
ssh -F ssh.conf -i user -N -L "$folder/run/far:$folder/run/server" server.example &
await_socket "$folder/run/far"

measure "the module itself" "$module"
P11_KIT_SERVER_ADDRESS="unix:path=$folder/run/server" measure "p11-kit server" "$client"
P11_KIT_SERVER_ADDRESS="unix:path=$folder/run/far" measure "p11-kit server through ssh" "$client"
