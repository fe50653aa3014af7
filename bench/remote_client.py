#!/usr/bin/env python3
"""Signs texts of its own through a PKCS #11 module, for as long as it is told, and keeps each text with its signature.

    remote_client.py MODULE TOKEN PIN NAME SECONDS FILE

Waits for a line on its standard input between the login and the first signature, so that several begin together. FILE
gets one line for each: the text and the signature in hexadecimal.
"""
import sys
import time

import PyKCS11
from PyKCS11 import LowLevel as C


def open_session(module, token, pin):
    library = PyKCS11.PyKCS11Lib()
    library.load(module)
    slots = library.getSlotList(tokenPresent=True)
    slot = next(slot for slot in slots if library.getTokenInfo(slot).label.strip() == token)
    session = library.openSession(slot)
    session.login(pin)
    return session


def main(module, token, pin, name, seconds, file):
    session = open_session(module, token, pin)
    key = session.findObjects([(C.CKA_CLASS, C.CKO_PRIVATE_KEY)])[0]
    mechanism = PyKCS11.Mechanism(C.CKM_SHA256_RSA_PKCS, None)
    print("ready", flush=True)
    sys.stdin.readline()
    signed = []
    end = time.monotonic() + float(seconds)
    while time.monotonic() < end:
        text = f"{name}, text {len(signed)}"
        signed.append((text, bytes(session.sign(key, text.encode(), mechanism))))
    with open(file, "w", encoding="utf-8") as out:
        out.writelines(f"{text}\t{signature.hex()}\n" for text, signature in signed)
    session.logout()


if __name__ == "__main__":
    main(*sys.argv[1:])
