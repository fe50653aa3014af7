#!/usr/bin/env bash
# Runs the commands of guides, word by word, as somebody who follows them: the fenced blocks marked `sh` of each page, one
# behind the other in one shell, which ends with the first command that fails.
#
#   run_guide.sh BUILD FOLDER PAGE...    BUILD has the built libraries, or is `installed`, where the packages are; FOLDER
#                                        is made, and has the home
#
# Of a page only the folder of the installed libraries is changed, for that of BUILD. What the pages speak of is there: a
# letter, a program to sign, server.example with ssh and https, a Firefox that was started once, and a program that answers
# for whoever is asked for a PIN. At the end the page's browser visits a server that knows the user's certificate.
set -euo pipefail
sources=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
installed='/usr/lib/*/velkor' # In the words of the pages, on whatever machine.
libraries=$installed
[ "$1" = installed ] || { build=$(realpath "$1") && libraries=$build/lib; }
folder=$2
pages=()
for page in "${@:3}"; do pages+=("$(realpath "$page")"); done
mkdir "$folder"
folder=$(realpath "$folder")
mkdir -m 700 "$folder/home" "$folder/tmp" "$folder/run" "$folder/bin" "$folder/world"
# What pages have left in the background ends with them.
leave() {
    [ ! -e "$folder/world/control" ] || /usr/bin/ssh -F "$folder/world/ssh.conf" -O exit server.example 2>/dev/null || true
    kill $(jobs -p) 2>/dev/null || true
    [ ! -d "$folder/home/.gnupg" ] || GNUPGHOME=$folder/home/.gnupg timeout 20 gpgconf --kill all || true
}
trap leave EXIT

# The block's commands behind the page's name, for whoever reads a failure.
blocks_of() { # blocks_of PAGE
    echo "echo '# $(basename "$1")'"
    awk '/^```/ { inside = !inside && $0 == "```sh"; next } inside' "$1" | sed "s|${installed//\*/\\*}|$libraries|g"
}
for page in "${pages[@]}"; do
    blocks_of "$page" >"$folder/block"
    [ "$(wc -l <"$folder/block")" -gt 1 ] || { echo "no command in $page"; exit 1; }
    cat "$folder/block"
done >"$folder/commands"

mentions() { grep -q -e "$1" "$folder/commands"; }
# as_user COMMAND...: in the home, with nothing of this script's environment.
as_user() {
    (cd "$folder/home" && env -i HOME="$folder/home" PATH="$folder/bin:/usr/local/bin:/usr/bin:/bin:/usr/sbin:/sbin" \
        LANG=C.UTF-8 TMPDIR="$folder/tmp" XDG_RUNTIME_DIR="$folder/run" GNUPGHOME="$folder/home/.gnupg" \
        SSH_ASKPASS="$folder/world/askpass" SSH_ASKPASS_REQUIRE=force "$@" </dev/null)
}
# The server knows the certificate of the quickstart's key, and the browser, by its databases, the server's issuer.
start_server_to_visit() { # start_server_to_visit DATABASES
    as_user velkor-softkey export-certificate MYKEY1 1 --out "$PWD/ca.pem"
    openssl req -x509 -newkey rsa:2048 -nodes -keyout issuer.key -out issuer.pem -subj /CN=Issuer -days 2 2>/dev/null
    openssl req -x509 -CA issuer.pem -CAkey issuer.key -newkey rsa:2048 -nodes -keyout localhost.key -out localhost.pem \
        -subj /CN=localhost -days 2 -addext subjectAltName=DNS:localhost -addext basicConstraints=CA:FALSE 2>/dev/null
    certutil -A -d "sql:$1" -n issuer -t C,, -i issuer.pem
    start_server
}
visit_with_firefox() {
    local profile
    profile=$(find "$folder/home" -path '*.default-esr/cert9.db' -printf '%h\n')
    start_server_to_visit "$profile"
    as_user timeout 150 python3 "$sources/tests/clients/firefox_client.py" "$profile" mykey "$(pin)" \
        "https://localhost:$port/" "Client certificate"
}
visit_with_chromium() {
    start_server_to_visit "$folder/home/.pki/nssdb"
    as_user timeout 150 python3 "$sources/tests/clients/chromium_client.py" "$folder/chromium" "$(pin)" \
        "https://localhost:$port/" "Client certificate"
}
pin() { sed -n 's/^export PIN=\([0-9]*\) .*/\1/p' "$folder/commands"; }
. "$sources/tests/clients/hosts/servers.sh"
cd "$folder/world"
if mentions "ssh"; then
    start_sshd "$folder/home/.ssh/authorized_keys"
    printf '    ControlMaster auto\n    ControlPath %s\n' "$folder/world/control" >>ssh.conf
    if mentions "ssh -f"; then # Whoever takes a socket along has had a login before.
        ssh-keygen -q -t ed25519 -N "" -f user
        mkdir -p "$folder/home/.ssh"
        cp user.pub "$folder/home/.ssh/authorized_keys"
        printf '    IdentityFile %s\n' "$PWD/user" >>ssh.conf
    fi
    # The real one reads the configuration of the user's home, wherever HOME is.
    printf '#!/bin/sh\nexec /usr/bin/ssh -F %s "$@"\n' "$folder/world/ssh.conf" >"$folder/bin/ssh"
fi
if mentions "https://server.example"; then
    openssl req -x509 -newkey rsa:2048 -nodes -keyout server.key -out server.pem -subj /CN=server.example -days 2 \
        -addext subjectAltName=DNS:server.example 2>/dev/null
    https_port=$(free_port)
    timeout 300 openssl s_server -accept "127.0.0.1:$https_port" -cert server.pem -key server.key -Verify 2 -www \
        >https.log 2>&1 &
    await_port "$https_port"
    printf 'connect-to = "server.example:443:127.0.0.1:%s"\ncacert = "%s"\n' "$https_port" "$PWD/server.pem" \
        >"$folder/home/.curlrc"
fi
cat >askpass <<'END'
#!/bin/sh
echo "$PIN"
END
cat >pinentry <<'END'
#!/bin/sh
echo OK
while read -r command rest; do
    [ "$command" != GETPIN ] || echo "D $PIN"
    echo OK
    [ "$command" != BYE ] || exit 0
done
END
if mentions "gpgsm"; then
    mkdir -m 700 "$folder/home/.gnupg"
    echo "pinentry-program $folder/world/pinentry" >"$folder/home/.gnupg/gpg-agent.conf"
fi
if mentions "default-esr"; then # A picture of nothing: that is a start with an end.
    as_user timeout 60 firefox-esr --headless --screenshot "$folder/world/nothing.png" about:blank
fi
mkdir -p "$folder/home/.ssh"
if [ "$libraries" != "$installed" ]; then # As the packages register it for everybody.
    mkdir -p "$folder/home/.config/pkcs11/modules"
    echo "module: $libraries/velkor-pkcs11-strict.so" >"$folder/home/.config/pkcs11/modules/velkor.module"
    for program in velkor-softkey velkor-trace; do ln -s "$build/bin/$program" "$folder/bin/$program"; done
fi
ln -s /usr/bin/python3 "$folder/bin/python3" # Debian's, which has its packages.
[ ! -e "$folder/bin/ssh" ] || chmod +x "$folder/bin/ssh"
chmod +x askpass pinentry
python3 "$sources/tests/clients/hosts/make_pdf.py" "$folder/home/letter.pdf"
python3 "$sources/tests/clients/hosts/make_program.py" "$folder/home/program.exe"

as_user timeout 120 bash -euxo pipefail "$folder/commands"
! mentions "default-esr" || visit_with_firefox
! mentions "^echo '# chromium.md'" || visit_with_chromium
