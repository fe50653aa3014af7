#!/usr/bin/env bash
# The tool's doctor as it is installed: it finds the libraries of its own tree and finds all well, and says what to do
# where something of the installation is missing.
#   check_doctor.sh TREE      an install tree with the software key
set -euo pipefail
world=$(mktemp -d)
trap 'rm -rf "$world"' EXIT
fail() {
    cat "$world/said"
    echo "FAILED: $1"
    exit 1
}

# The tree in another place: what is in it is found by where the tool lies.
cp -a "$1" "$world/tree"
libraries=$(dirname "$(find "$world/tree" -name velkor-pkcs11-strict.so)")
tool=$(find "$world/tree" -path '*/bin/velkor-softkey')
mkdir -m 700 "$world/home" "$world/tmp"
registration=$world/home/.config/pkcs11/modules/velkor.module
mkdir -p "$(dirname "$registration")"
echo "module: $libraries/velkor-pkcs11-strict.so" >"$registration"
unset LD_LIBRARY_PATH XDG_CONFIG_HOME XDG_DATA_HOME XDG_RUNTIME_DIR VELKOR_HOME VELKOR_SOFTKEY_HOME
export HOME=$world/home TMPDIR=$world/tmp VELKOR_CONFIG=$world/velkor.conf PIN=13579024 SO_PIN=97531086
echo "logLevel = 2" >"$VELKOR_CONFIG"
"$tool" create --serial TREE1 --scrypt-cost 4 --pin-env PIN --so-pin-env SO_PIN >/dev/null

expect_well() {
    "$tool" doctor >"$world/said" 2>&1 || fail "it is not well"
    grep -q "^good     module: $libraries/velkor-pkcs11.so loads and works" "$world/said" || fail "no module"
    grep -q "^good     strict front: $libraries/velkor-pkcs11-strict.so loads and works" "$world/said" ||
        fail "no strict front"
    grep -q "^good     device library: .*/libVelkorDSCLibrary.so" "$world/said" || fail "no device library"
    grep -q "^good     tokens: the module shows 1" "$world/said" || fail "no token"
    grep -q "^All is well" "$world/said" || fail "it does not say so"
}
# expect_problem PART TEXT FIX
expect_problem() {
    ! "$tool" doctor >"$world/said" 2>&1 || fail "nothing is found"
    grep -A 1 "^problem  $1: .*$2" "$world/said" | grep -q "^         to mend it: .*$3" || fail "$1: $2: $3"
}
# without LIBRARY PART TEXT FIX
without() {
    mv "$libraries/$1" "$world/kept"
    expect_problem "${@:2}"
    mv "$world/kept" "$libraries/$1"
}

expect_well
without velkor-pkcs11.so module "it is not there" "install it"
without libVelkorDSCLibrary.so "device library" "libVelkorDSCLibrary.so" "put the device library into $libraries"
without velkor-pkcs11-strict.so "strict front" "it is not there" "install it again"
echo "module: another.so" >"$registration"
expect_problem p11-kit "is not registered" "module: $libraries/velkor-pkcs11-strict.so"
echo "module: $libraries/velkor-pkcs11-strict.so" >"$registration"
expect_well
