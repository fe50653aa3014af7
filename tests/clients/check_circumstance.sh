#!/usr/bin/env bash
# A host and the tool in a bad circumstance: they end by themselves and say what is wrong, the key loses no try, and
# nothing gets into the host's output.
#   check_circumstance.sh TREE HOST CIRCUMSTANCE OTHER     TREE is an install tree, HOST is circumstance_host, OTHER is an
#                                                          install tree of the modules alone, of another version
set -euo pipefail
tree=$1 host=$2 circumstance=$3 other=$4

# Root may do what no circumstance forbids: nobody takes its place.
as=(env)
if [ "$(id -u)" -eq 0 ] && [[ $circumstance != *-inside ]]; then
    as=(setpriv --reuid nobody --regid nogroup --clear-groups env)
fi
world=$(mktemp -d /tmp/velkor-circumstance.XXXXXX) # Where that user comes, too.
trap 'rm -rf "$world"' EXIT

# install_into FOLDER: a copy of the installed libraries and programs.
install_into() {
    mkdir -p "$1"
    cp "$(find "$tree" -name velkor-pkcs11-strict.so -printf '%h\n')"/*.so "$(find "$tree" -path "*/bin/velkor-softkey")" \
        "$host" "$1"
}
give_away() { [ "${as[0]}" = env ] || chown -R nobody "$world"; }
tool() { "${as[@]}" timeout 60 "$installed/velkor-softkey" "$@"; }
make_key() {
    tool create --serial CASE1 --label "Case key" --scrypt-cost 4 --pin-env PIN --so-pin-env SO_PIN 2>/dev/null
    tool generate CASE1 RSA-2048 --label case --id 01 --pin-env PIN
}
# run [WAY]: the host over the library of the name `library`.
no_log=
run() {
    local status=0
    "${as[@]}" timeout 60 "$installed/circumstance_host" "$installed/$library.so" "$PIN" "$@" >"$world/out" 2>"$world/err" ||
        status=$?
    sed 's/^/    /' "$world/err"
    [ "$status" -eq 0 ] || fail "the host ended with $status"
    if [ "$library" = velkor-pkcs11-strict ] || [ -z "$no_log" ]; then
        [ ! -s "$world/out" ] || { cat "$world/out"; fail "this is in the host's output"; }
    elif grep -v -e '^$' -e '^Unable to write log$' -e '^Unable to getLogBaseFolderPath$' "$world/out"; then
        fail "this is in the host's output"
    fi
}
# run_without_log [WAY]: the plain module says that lines are lost, and to the strict front the same is no reason.
run_without_log() {
    local no_log=yes
    run "$@"
    [ "$library" = velkor-pkcs11-strict ] || grep -q "^Unable to write log" "$world/out" || fail "no line was lost"
}
fail() {
    echo "FAILED: $circumstance, $library: $1"
    exit 1
}
expect_signed() { [[ $(tail -n 1 "$world/err") = "signed by $installed/"* ]] || fail "it did not sign with its own library"; }
expect_outcome() { [ "$(tail -n 1 "$world/err")" = "$1" ] || fail "it did not answer $1"; }
# Neither wrong (160) nor locked (164): the PIN is right.
expect_refused() {
    [[ $(tail -n 1 "$world/err") =~ ^C_[A-Za-z]+\ [0-9]+$ ]] || fail "it was not refused"
    [[ ! $(tail -n 1 "$world/err") =~ \ (160|164)$ ]] || fail "a right PIN is called wrong"
}
expect_tries() { tool info CASE1 | grep "^user PIN  5 of 5 tries left" >/dev/null || fail "a try is gone"; }
# expect_message TEXT COMMAND...: it fails, in one line that has the text.
expect_message() {
    local status=0
    "${@:2}" >"$world/out" 2>"$world/err" || status=$?
    sed 's/^/    /' "$world/err"
    [ "$status" -gt 0 ] && [ "$status" -lt 100 ] || fail "the tool ended with $status"
    grep -q -e "$1" "$world/err" || fail "the tool does not say: $1"
}
both_libraries() { # both_libraries COMMAND...
    for library in velkor-pkcs11-strict velkor-pkcs11; do "$@"; done
}

no_home() {
    unset VELKOR_SOFTKEY_HOME
    export HOME=/proc/nowhere # Where nobody can make one.
    both_libraries run_without_home
    expect_message "/proc/nowhere.*; set VELKOR_SOFTKEY_HOME" tool create --serial CASE1 --pin-env PIN --so-pin-env SO_PIN
    expect_finding "there is no /proc/nowhere.*, and it cannot be made"
}
expect_finding() { # expect_finding TEXT: of doctor, which finds other things, too
    tool doctor >"$world/doctor" 2>&1 && fail "doctor finds nothing"
    grep -q -e "$1" "$world/doctor" || { sed 's/^/    /' "$world/doctor"; fail "doctor does not say: $1"; }
}
run_without_home() {
    run
    expect_outcome "no token 0"
}
sign_as_ever() { # sign_as_ever [WAY]
    run "$@"
    expect_signed
    expect_tries
}
unreadable_configuration() {
    make_key
    chmod 000 "$VELKOR_CONFIG"
    both_libraries sign_as_ever
}
no_log_folder() {
    make_key
    export TMPDIR=/proc/nowhere
    echo "logLevel = 3" >"$VELKOR_CONFIG"
    both_libraries sign_without_log
}
sign_without_log() {
    run_without_log
    expect_signed
    expect_tries
}
version_of() { sed -n 's/^Version: \([0-9]*\.[0-9]*\).*/\1/p' "$(find "$1" -name velkor-pkcs11.pc)"; }
sign_as_version() { # sign_as_version MAJOR.MINOR
    sign_as_ever
    grep -qx "version $1" "$world/err" || fail "it is not of version $1"
}
two_versions() {
    [ "$(version_of "$tree")" != "$(version_of "$other")" ]
    make_key
    install_into "$world/other"
    cp "$other"/lib/velkor/*.so "$world/other"
    give_away
    both_libraries sign_as_version "$(version_of "$tree")"
    installed=$world/other
    both_libraries sign_as_version "$(version_of "$other")"
}
odd_folder() {
    installed="$world/mit Leerzeichen und Umläuten"
    export VELKOR_SOFTKEY_HOME="$installed/Schlüssel" TMPDIR="$installed/flüchtig"
    install_into "$installed"
    mkdir "$TMPDIR"
    give_away
    make_key
    both_libraries sign_as_ever
}
many_files() {
    make_key
    both_libraries sign_as_ever many-files
}
forked_child() { # Of the plain module a child has to end it first: it says so.
    make_key
    library=velkor-pkcs11-strict
    sign_as_ever forked
}
service_user() {
    as+=(-i PATH="$PATH" PIN="$PIN" SO_PIN="$SO_PIN" VELKOR_SOFTKEY_HOME="$VELKOR_SOFTKEY_HOME" XDG_RUNTIME_DIR="$world/run"
        VELKOR_CONFIG="$VELKOR_CONFIG")
    mkdir -m 700 "$world/run"
    give_away
    make_key
    both_libraries sign_as_ever
    [ -d "$world/run/Brenmoor/circumstance_host" ] || fail "its log has no folder"
}
loader_path_elsewhere() {
    make_key
    mkdir "$world/elsewhere"
    as+=(LD_LIBRARY_PATH="$world/elsewhere")
    both_libraries sign_as_ever
}
# A file of the device library's name that is none: the loader takes it first.
loader_path_broken() {
    make_key
    mkdir "$world/elsewhere"
    echo "no library" >"$world/elsewhere/libVelkorDSCLibrary.so"
    give_away
    as+=(LD_LIBRARY_PATH="$world/elsewhere")
    library=velkor-pkcs11-strict
    run
    expect_outcome "C_Initialize 5"
    grep -q "the module is not loaded: .*libVelkorDSCLibrary.so" "$TMPDIR"/Brenmoor/circumstance_host/*.LOG ||
        fail "the log does not name the library"
    library=velkor-pkcs11
    run
    expect_outcome "dlopen 0"
    expect_finding "device library: .*/elsewhere/libVelkorDSCLibrary.so: "
    expect_finding "take its folder out of LD_LIBRARY_PATH"
}

# The two that need a disk of their own: in namespaces where one can be mounted.
with_disk() {
    if ! unshare -rm true 2>/dev/null; then
        echo "This user cannot mount anything: skipped."
        exit 0
    fi
    unshare -rm "$0" "$tree" "$host" "$circumstance-inside" "$other"
}
mount_disk() {
    mkdir "$world/disk"
    trap 'umount -l "$world/disk" && rm -rf "$world"' EXIT
    mount -t tmpfs -o size=4m,mode=700 none "$world/disk"
    mkdir -m 700 "$world/disk/tmp"
    export VELKOR_SOFTKEY_HOME=$world/disk/keys TMPDIR=$world/disk/tmp
    make_key
    library=velkor-pkcs11-strict
    sign_as_ever
}
sign_once_there_is_room() { # sign_once_there_is_room MAKE-ROOM...
    "$@"
    both_libraries sign_as_ever
}
run_refused() {
    run
    expect_refused
}
run_refused_without_log() {
    run_without_log
    expect_refused
}
read_only_inside() {
    mount_disk
    mount -o remount,ro "$world/disk"
    tool list | grep "^CASE1" >/dev/null || fail "the key is not listed"
    both_libraries run_refused_without_log
    expect_message "^velkor-softkey: the key file cannot be written$" tool generate CASE1 P-256 --pin-env PIN
    expect_finding "is read-only: keys are seen"
    sign_once_there_is_room mount -o remount,rw "$world/disk"
}
full_disk_inside() {
    mount_disk
    dd if=/dev/zero of="$world/disk/filling" bs=4096 2>/dev/null || true
    both_libraries run_refused
    expect_message "^velkor-softkey: the key file cannot be written$" tool generate CASE1 P-256 --pin-env PIN
    expect_finding "is on a full disk: keys are seen"
    sign_once_there_is_room rm "$world/disk/filling"
}

chmod 755 "$world"
installed=$world/installed
library=none
install_into "$installed"
mkdir -m 700 "$world/tmp"
export PIN=1357924 SO_PIN=97531086 VELKOR_SOFTKEY_HOME=$world/keys TMPDIR=$world/tmp VELKOR_CONFIG=$world/velkor.conf
unset LD_LIBRARY_PATH XDG_DATA_HOME XDG_RUNTIME_DIR VELKOR_HOME
mkdir -m 700 "$world/keys"
echo "logLevel = 2" >"$VELKOR_CONFIG"
give_away

case $circumstance in
read-only | full-disk) with_disk ;;
*) "${circumstance//-/_}" ;;
esac
