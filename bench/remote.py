#!/usr/bin/env python3
"""Signatures a second with several clients of one module at once, every one of them verified.

    remote.py MODULE TOKEN PIN PUBLIC-KEY FOLDER SECONDS CLIENTS...

Prints a row for each number of clients. Ends with 1 when a signature is missing, is wrong, or is of another text.
"""
import pathlib
import subprocess
import sys

from cryptography.exceptions import InvalidSignature
from cryptography.hazmat.primitives import hashes, serialization
from cryptography.hazmat.primitives.asymmetric import padding

CLIENT = pathlib.Path(__file__).with_name("remote_client.py")


def run_clients(count, folder, seconds, arguments):
    """The files of that many clients, which have begun together."""
    files = [folder / f"{count}-{number}" for number in range(count)]
    clients = [subprocess.Popen([sys.executable, CLIENT, *arguments, f"client {number}", seconds, file],
                                stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
               for number, file in enumerate(files)]
    for client in clients:
        if client.stdout.readline() != "ready\n":
            raise SystemExit("a client does not come to its login")
    for client in clients:
        client.stdin.write("go\n")
        client.stdin.flush()
    if any(client.wait() != 0 for client in clients):
        raise SystemExit("a client failed")
    return files


def count_good(file, number, key):
    """The signatures of a client's file, each of which has to be of the client's next text."""
    lines = file.read_text(encoding="utf-8").splitlines()
    for place, line in enumerate(lines):
        text, signature = line.split("\t")
        if text != f"client {number}, text {place}":
            raise SystemExit(f"{file.name}: text {place} is missing")
        try:
            key.verify(bytes.fromhex(signature), text.encode(), padding.PKCS1v15(), hashes.SHA256())
        except InvalidSignature:
            raise SystemExit(f"{file.name}: the signature of \"{text}\" is not one") from None
    return len(lines)


def main(module, token, pin, public_key, folder, seconds, *counts):
    key = serialization.load_pem_public_key(pathlib.Path(public_key).read_bytes())
    print("CLIENTS  SIGNATURES  A SECOND")
    for count in map(int, counts):
        files = run_clients(count, pathlib.Path(folder), seconds, [module, token, pin])
        good = [count_good(file, number, key) for number, file in enumerate(files)]
        if min(good) == 0:
            raise SystemExit("a client has signed nothing")
        print(f"{count:7}  {sum(good):10}  {sum(good) / float(seconds):8.0f}", flush=True)


if __name__ == "__main__":
    main(*sys.argv[1:])
