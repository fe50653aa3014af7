# Sourced: servers on the loopback address, below the present folder.
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
await_socket() { # await_socket PATH: of the local kind
    local try
    for try in {1..100}; do
        ! python3 -c 'import socket, sys; socket.socket(socket.AF_UNIX).connect(sys.argv[1])' "$1" 2>/dev/null || return 0
        sleep 0.1
    done
    echo "nothing listens at $1, after $try looks"
    return 1
}
# A server that shows the certificate of its client, and has none in without one.
start_server() {
    port=$(free_port)
    timeout 120 openssl s_server -accept "127.0.0.1:$port" -cert localhost.pem -key localhost.key -CAfile ca.pem -Verify 2 \
        -verify_return_error -www >server.log 2>&1 &
    await_port "$port"
}
get() { timeout 20 curl -sS --cacert ca.pem "https://localhost:$port/" "$@"; }

# An sshd for server.example, whose users are let in by the keys of the file AUTHORIZED, and by certificates of user_ca,
# if that is there. Its client's options are in ssh.conf.
start_sshd() { # start_sshd AUTHORIZED
    local here=$PWD port
    port=$(free_port)
    [ "$(id -u)" -ne 0 ] || mkdir -p /run/sshd # Which it asks for.
    ssh-keygen -q -t ed25519 -N "" -f host_key
    cat >sshd.conf <<END
Port $port
ListenAddress 127.0.0.1
HostKey $here/host_key
PidFile $here/sshd.pid
AuthorizedKeysFile $1
PasswordAuthentication no
KbdInteractiveAuthentication no
UsePAM no
StrictModes no
PermitRootLogin yes
StreamLocalBindUnlink yes
$([ ! -e user_ca.pub ] || echo "TrustedUserCAKeys $here/user_ca.pub")
END
    cat >ssh.conf <<END
Host server.example
    HostName 127.0.0.1
    Port $port
    User $(id -un)
    HostKeyAlias server.example
    UserKnownHostsFile $here/known_hosts
    PasswordAuthentication no
END
    echo "server.example $(cut -d ' ' -f 1,2 host_key.pub)" >known_hosts
    /usr/sbin/sshd -D -f "$here/sshd.conf" -E "$here/sshd.log" &
    await_port "$port"
}
