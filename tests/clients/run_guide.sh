#!/usr/bin/env bash
# Runs the commands of guides, word by word, as somebody who follows them: the fenced blocks marked `sh` of each page, one
# behind the other in one shell, which ends with the first command that fails.
#
#   run_guide.sh BUILD FOLDER PAGE...    BUILD has the built libraries; FOLDER is made, and has the home
#
# Of a page only the folder of the installed libraries is changed, for that of BUILD. What the pages speak of is there: a
# letter, a program to sign, server.example with ssh and https, and a program that answers for whoever is asked for a PIN.
set -euo pipefail
sources=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
build=$(realpath "$1")
folder=$2
pages=()
for page in "${@:3}"; do pages+=("$(realpath "$page")"); done
installed=/usr/lib/x86_64-linux-gnu/velkor
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
    awk '/^```/ { inside = !inside && $0 == "```sh"; next } inside' "$1" | sed "s|$installed|$build/lib|g"
}
for page in "${pages[@]}"; do
    blocks_of "$page" >"$folder/block"
    [ "$(wc -l <"$folder/block")" -gt 1 ] || { echo "no command in $page"; exit 1; }
    cat "$folder/block"
done >"$folder/commands"

mentions() { grep -q -e "$1" "$folder/commands"; }
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
if mentions ".mozilla"; then
    mkdir -p "$folder/home/.mozilla/firefox/abc.default-esr"
    certutil -N -d "sql:$folder/home/.mozilla/firefox/abc.default-esr" --empty-password
fi
mkdir -p "$folder/home/.config/pkcs11/modules" "$folder/home/.ssh" # As the packages register it for everybody.
echo "module: $build/lib/velkor-pkcs11-strict.so" >"$folder/home/.config/pkcs11/modules/velkor.module"
for program in velkor-softkey velkor-trace; do ln -s "$build/bin/$program" "$folder/bin/$program"; done
ln -s /usr/bin/python3 "$folder/bin/python3" # Debian's, which has its packages.
[ ! -e "$folder/bin/ssh" ] || chmod +x "$folder/bin/ssh"
chmod +x askpass pinentry
python3 "$sources/tests/clients/hosts/make_pdf.py" "$folder/home/letter.pdf"
python3 "$sources/tests/clients/hosts/make_program.py" "$folder/home/program.exe"

cd "$folder/home"
env -i HOME="$folder/home" PATH="$folder/bin:/usr/local/bin:/usr/bin:/bin:/usr/sbin:/sbin" LANG=C.UTF-8 TMPDIR="$folder/tmp" \
    XDG_RUNTIME_DIR="$folder/run" GNUPGHOME="$folder/home/.gnupg" SSH_ASKPASS="$folder/world/askpass" \
    SSH_ASKPASS_REQUIRE=force \
    timeout 120 bash -euxo pipefail "$folder/commands" </dev/null
