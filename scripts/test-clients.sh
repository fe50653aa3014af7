#!/usr/bin/env bash
# Real programs with the module over a software key, each with what its users do, through the module itself and through
# the strict front; with the commands of the host's page in docs/hosts.
#
#   scripts/test-clients.sh            all hosts
#   scripts/test-clients.sh HOST...    these only: names of tests/clients/hosts/*.sh
#
# Installs the hosts from Debian's packages, some of which start a service of the system (sshd, nginx). Each host has a
# software key and a time limit of its own, and writes below build/clients alone, but for a folder in /tmp where another
# user is to reach it, the X server's lock and socket there, and sshd's own folder in /run. Ends with a table
# (host, library, checks passed, known limits, each with the line of docs/departures.md that explains it) and a last line
# that counts; a known limit that passes fails the run, until it is taken out of tests/clients/hosts/known_limits.txt. So
# does a run of more than a quarter of an hour.
set -uo pipefail
cd "$(dirname "$0")/.." || exit 1
. scripts/steps.sh
hosts=tests/clients/hosts
folder=$PWD/build/clients

all() { find "$hosts" -name '*.sh' ! -name common.sh ! -name servers.sh -printf '%f\n' | sort | sed 's/\.sh$//'; }
[ $# -ne 0 ] || mapfile -t chosen < <(all)
[ $# -eq 0 ] || chosen=("$@")
for host in "${chosen[@]}"; do
    [ -x "$hosts/$host.sh" ] && continue
    echo "there is no host $host, but: $(all | tr '\n' ' ')" >&2
    exit 2
done

of_host() { sed -n "s/^# $2: //p" "$hosts/$1.sh"; } # of_host HOST WORD: what its head says of it
install() {
    local wanted=() of_one host
    for host in "${chosen[@]}"; do
        read -ra of_one <<<"$(of_host "$host" Needs)"
        wanted+=("${of_one[@]}")
    done
    scripts/setup.sh && scripts/setup.sh "${wanted[@]}"
}
build() {
    rm -rf "$folder"
    mkdir -p "$folder"
    { cmake --preset release && cmake --build --preset release --target velkor-pkcs11 velkor-pkcs11-strict softkey \
        velkor-softkey velkor-trace; } >"$folder/build.log" 2>&1 || { cat "$folder/build.log"; return 1; }
}
# run_host HOST LIBRARY: its checks, in the time that it has.
run_host() {
    timeout --kill-after 10 "$(of_host "$1" Limit)" "$hosts/$1.sh" build/release "$2" "$folder/$1-$2" \
        >"$folder/$1-$2.log" 2>&1 && touch "$folder/$1-$2/ended"
}
# As many at once as there are processors.
run_hosts() {
    local host library running=0
    names=()
    for host in "${chosen[@]}"; do
        for library in strict plain; do
            [ "$running" -lt "$(nproc)" ] || { wait -n; running=$((running - 1)); }
            run_host "$host" "$library" &
            running=$((running + 1))
            names+=("$host-$library")
        done
    done
    wait
}

step "install hosts" install || exit 1
step "build" build || exit 1
step "hosts" run_hosts
print_steps
python3 "$hosts/report.py" "$folder" "$hosts/known_limits.txt" docs/departures.md "$SECONDS" "${names[@]}"
