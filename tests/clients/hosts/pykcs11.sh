#!/usr/bin/env bash
# PyKCS11, a thin binding for Python.
# Needs: python3-pykcs11
# Limit: 60
. "$(dirname "$0")/common.sh"

check "PyKCS11" timeout 60 /usr/bin/python3 "$sources/tests/clients/pykcs11_client.py" "$module"
guide pykcs11
