#!/usr/bin/env bash
# PyKCS11, a thin binding for Python.
# Needs: python3-pykcs11
# Limit: 120
. "$(dirname "$0")/common.sh"

number=0
with_python() { # with_python NAME THING
    number=$((number + 1))
    check "PyKCS11 $1" timeout 60 /usr/bin/python3 "$sources/tests/clients/pykcs11_client.py" "$module" $number "$2"
}

with_python "reads the token's label" pads_label
with_python "makes an RSA pair, labelled in one template" labels_pair
with_python "is not given a private exponent" keeps_exponent
with_python "signs and verifies" signs
with_python "signs and verifies, PSS" signs_pss
with_python "encrypts and decrypts" decrypts
with_python "digests" digests
with_python "makes a data object" keeps_note
with_python "finds a key by class and label" finds
with_python "makes an EC pair, its type in the mechanism alone" makes_ec_pair
with_python "derives" derives
with_python "destroys a pair" destroys
with_python "destroys both halves of a pair" destroys_both
with_python "is refused a second login" is_refused_second_login
guide pykcs11
