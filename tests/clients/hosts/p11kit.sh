#!/usr/bin/env bash
# p11-kit: the registered module, and keys that another process works with, by ssh as well.
# Needs: p11-kit p11-kit-modules opensc gnutls-bin openssh-client openssh-server socat systemd
# Limit: 120
. "$(dirname "$0")/common.sh"

client=$(find /usr/lib -name p11-kit-client.so | head -n 1)
sign_through() { # sign_through LIBRARY: with the key 77 of the token, as another process
    timeout 60 pkcs11-tool --module "$1" --token-label "Client key" --login --pin 1234 --sign \
        --mechanism SHA256-RSA-PKCS --id 77 --input-file text --output-file sig
    openssl dgst -sha256 -verify tls.pub -signature sig text
}
# The other user is nobody, who has neither a shell nor a key, where this user may become that; else this one, so that no
# check's name says that there are two. Root is no choice for what follows: p11-kit passes over the files of root's home.
other=$(id -un)
as_other=(env)
if [ "$(id -u)" -eq 0 ]; then
    other=nobody
    as_other=(setpriv --reuid nobody --regid nogroup --clear-groups env -i PATH="$PATH")
fi
# A folder that both users reach, outside of this one.
make_common_folder() {
    far=$(mktemp -d /tmp/velkor-far.XXXXXX)
    trap 'kill $(jobs -p) 2>/dev/null || true; rm -rf "$far"' EXIT
}
registers() {
    make_common_folder
    mkdir -p "$far/.config/pkcs11/modules" "$far/lib"
    cp "$build"/lib/velkor-pkcs11{,-strict}.so "$build/softkey/libVelkorDSCLibrary.so" "$tool" "$far/lib"
    echo "module: $far/lib/$(basename "$module")" >"$far/.config/pkcs11/modules/velkor.module"
    echo "user-config: merge" >"$far/.config/pkcs11/pkcs11.conf"
    chown -R "$other" "$far"
    as_other+=(HOME="$far" TMPDIR="$far" VELKOR_SOFTKEY_HOME="$far/keys" LD_LIBRARY_PATH="$far/lib" USER_PIN=1234
        SO_PIN=12345678)
    "${as_other[@]}" "$far/lib/velkor-softkey" create --serial FAR1 --label "Far key" --pin-env USER_PIN \
        --so-pin-env SO_PIN
    "${as_other[@]}" timeout 60 p11-kit list-modules | tee modules.txt
    grep -q "token: Far key$" modules.txt
    grep -q "serial-number: FAR1$" modules.txt
}
start_p11_kit() {
    rm -f "$folder/run/server" # Of the check before.
    timeout 100 p11-kit server --foreground --provider "$module" --name "$folder/run/server" "$url" >p11-kit.log 2>&1 &
    await_socket "$folder/run/server"
}
serves_process() {
    start_p11_kit
    env -u VELKOR_SOFTKEY_HOME P11_KIT_SERVER_ADDRESS="unix:path=$folder/run/server" \
        timeout 60 pkcs11-tool --module "$client" --list-token-slots | grep "token label *: Client key"
    export P11_KIT_SERVER_ADDRESS="unix:path=$folder/run/server"
    sign_through "$client"
}
serves_several() { # Eight at once, whose signatures are told from each other.
    local number jobs=()
    start_p11_kit
    export P11_KIT_SERVER_ADDRESS="unix:path=$folder/run/server"
    for number in {1..8}; do
        echo "text $number" >"text$number"
        timeout 60 pkcs11-tool --module "$client" --token-label "Client key" --login --pin 1234 --sign \
            --mechanism SHA256-RSA-PKCS --id 77 --input-file "text$number" --output-file "sig$number" &
        jobs+=($!)
    done
    for number in "${jobs[@]}"; do wait "$number"; done
    for number in {1..8}; do
        openssl dgst -sha256 -verify tls.pub -signature "sig$number" "text$number"
    done
}
serves_container() { # What stands for one: a mount namespace with the socket, and with neither libraries nor key.
    start_p11_kit
    : >key
    export -f sign_through
    export build client folder P11_KIT_SERVER_ADDRESS="unix:path=$folder/key"
    unshare --mount --map-root-user bash -euxc '
        mount --bind run/server key
        for hidden in "$build" "$VELKOR_SOFTKEY_HOME" run; do mount -t tmpfs none "$hidden"; done
        sign_through "$client"'
}
serves_user() { # By ssh: the other user's end of the connection is a socket of theirs.
    make_common_folder
    chown "$other" "$far"
    ssh-keygen -q -t ed25519 -N "" -f user
    cp user.pub "$far/authorized"
    chmod a+r "$far/authorized"
    start_sshd "$far/authorized"
    start_p11_kit
    ssh -F ssh.conf -i user -l "$other" -N -R "$far/socket:$folder/run/server" server.example &
    await_socket "$far/socket"
    cp text "$far/text"
    chmod a+r "$far/text"
    "${as_other[@]}" P11_KIT_SERVER_ADDRESS="unix:path=$far/socket" TMPDIR="$far" timeout 60 \
        pkcs11-tool --module "$client" --token-label "Client key" --login --pin 1234 --sign \
        --mechanism SHA256-RSA-PKCS --id 77 --input-file "$far/text" --output-file "$far/sig"
    openssl dgst -sha256 -verify tls.pub -signature "$far/sig" text
}
# As they are installed, but for the library.
make_units() {
    mkdir units
    cp "$sources/packaging/p11-kit/velkor-p11-kit.socket" units
    sed "s|@LIBRARIES@/velkor-pkcs11-strict.so|$module|" "$sources/packaging/p11-kit/velkor-p11-kit@.service.in" \
        >units/velkor-p11-kit@.service
}
# What the service of packaging/p11-kit runs, over a socket that another program listens on as the system would.
serves_by_socket() {
    local command
    command=$(sed -n 's/^ExecStart=//p' units/velkor-p11-kit@.service)
    command=${command/pkcs11:*/$url}
    printf '#!/bin/sh\nexec %s\n' "$command" >serve
    cat serve
    grep -F -- "$module $url" serve
    chmod +x serve
    timeout 100 socat "UNIX-LISTEN:$folder/run/socket,fork" "EXEC:$folder/serve" &
    await_socket "$folder/run/socket"
    export P11_KIT_SERVER_ADDRESS="unix:path=$folder/run/socket"
    sign_through "$client"
    sign_through "$client" # Each connection has a process of its own.
}

prepare_certificates
make_units
check "p11-kit list-modules" registers
check "p11-kit server, for another process" serves_process
check "p11-kit server, for eight at once" serves_several
check "p11-kit server, for a container with its socket" serves_container
check "p11-kit server, by ssh" serves_user
check "p11-kit remote, started by a socket" serves_by_socket
if [ "$library" = strict ]; then
    check "the units of systemd are sound" systemd-analyze verify --man=no units/*
    check "docs/remote.md" "$sources/tests/clients/run_guide.sh" "$build" "$folder/remote" \
        "$sources/docs/quickstart.md" "$sources/docs/remote.md"
fi
guide p11-kit
