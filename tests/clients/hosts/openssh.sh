#!/usr/bin/env bash
# OpenSSH: public keys from the token, a login to an sshd, an agent with right and wrong PINs, certificates.
# Needs: openssh-client openssh-server
# Limit: 120
. "$(dirname "$0")/common.sh"

add_with() { ASK_PIN=$1 timeout 30 ssh-add -s "$module"; }
with_agent() { # with_agent COMMAND...: for the rest of the check
    eval "$(ssh-agent -P "$build/*")"
    trap 'ssh-agent -k' EXIT # In place of the check's own: it has no other jobs.
    "$@"
}
wrong_pin() {
    if add_with 9999; then return 1; fi
    ssh-add -l || [ $? -eq 1 ] # 2 when there is no agent any more.
    add_with 1234 # Which gives the try back.
}
refuses_elsewhere() { # An agent that knows no more folders than its own.
    ssh-agent -d -a "$folder/run/agent" 2>agent.log &
    await_socket "$folder/run/agent"
    export SSH_AUTH_SOCK=$folder/run/agent
    if add_with 1234 2>answer; then return 1; fi
    cat answer agent.log
    grep "agent refused operation" answer
    grep "provider not allowed" agent.log
}
# On a machine that has never logged anything.
adds_on_fresh_machine() {
    export TMPDIR=$folder/fresh
    mkdir -m 700 "$TMPDIR"
    with_agent wrong_pin
}
signs_file() {
    add_with 1234
    grep rsa listed >id.pub
    ssh-add -T id.pub
    rm -f text.sig
    ssh-keygen -Y sign -f id.pub -n file text
    echo "me $(cut -d ' ' -f 1,2 id.pub)" >signers
    ssh-keygen -Y verify -f signers -I me -n file -s text.sig <text
}
lists_keys() {
    ssh-keygen -D "$module" >listed
    cat listed
    [ "$(grep -c -e '^ssh-rsa ' -e '^ecdsa-sha2-nistp256 ' listed)" -eq 2 ]
}
logs_in() { # logs_in SSH-OPTION...
    [ "$(timeout 30 ssh -F ssh.conf "$@" server.example echo in)" = in ]
}
logs_in_with_wrong_pin() {
    if ASK_PIN=9999 logs_in -I "$module"; then return 1; fi
    logs_in -I "$module"
}
logs_in_by_agent() {
    add_with 1234
    logs_in
}
logs_in_by_certificate() { # Where no key by itself is let in.
    : >authorized
    grep ecdsa listed >ec.pub
    ssh-keygen -q -s user_ca -I token -n "$(id -un)" -V +1h ec.pub
    logs_in -I "$module" -o CertificateFile="$folder/ec-cert.pub"
}
issues_certificate() { # With the token's key as the CA.
    ssh-keygen -q -t ed25519 -N "" -f user
    grep rsa listed >token_ca.pub
    ssh-keygen -q -s token_ca.pub -D "$module" -I user -n "$(id -un)" -V +1h user.pub
    ssh-keygen -L -f user-cert.pub | tee issued
    grep -q "Signing CA: RSA $(ssh-keygen -l -f token_ca.pub | cut -d ' ' -f 2)" issued
}

make_askpass
"$tool" generate CLIENT1 RSA-2048 --label ssh --id 61 --pin-env USER_PIN >/dev/null
"$tool" generate CLIENT1 P-256 --label sshec --id 62 --pin-env USER_PIN >/dev/null
check "ssh-agent on a machine without a log" adds_on_fresh_machine
for program in ssh ssh-keygen ssh-pkcs11-helper; do make_log_folder $program; done
check "ssh-keygen -D" lists_keys
check "ssh-agent gets a wrong PIN and lives" with_agent wrong_pin
check "ssh-agent without -P refuses the module where it was built" refuses_elsewhere
check "ssh-agent signs" with_agent signs_file
ssh-keygen -q -t ed25519 -N "" -f user_ca
grep rsa listed >authorized || true
start_sshd "$folder/authorized" >/dev/null
check "ssh -I logs in" logs_in -I "$module"
check "ssh -I is given a wrong PIN" logs_in_with_wrong_pin
check "ssh logs in by the agent" with_agent logs_in_by_agent
check "ssh logs in by a certificate for the token's key" logs_in_by_certificate
check "ssh-keygen -s issues a certificate with the token's key" issues_certificate
guide openssh
