"""Keys in folders of their own, and what is asked of them from outside: by the tool and by processes of their own."""
import contextlib
import os
import pathlib
import shutil
import subprocess
import tempfile

ROOT = pathlib.Path(__file__).resolve().parents[3]
BUILD = pathlib.Path(os.environ.get("SOFTKEY_HARD_BUILD", ROOT / "build/release"))
AGENT = BUILD / "bin/softkey_hard_agent"
HOST = BUILD / "bin/softkey_hard_host"
KEY_SECRETS = BUILD / "bin/softkey_hard_key_secrets"
TOOL = BUILD / "bin/velkor-softkey"
FAULT = BUILD / "lib/libsoftkey_hard_fault.so"

PIN, OTHER_PIN, SO_PIN = "first-pin", "other-pin", "officer-pin"
SERIAL = "HARD1"
LIMIT = 120  # Seconds after which a process counts as hanging.

# Statuses of a file that is refused, and of a write that failed.
FILE_REFUSED = {40, 242, 341, 342, 343}
PIN_LOCKED = 313
PIN_INCORRECT = 312


class Failure(Exception):
    """Something that a software key must not do."""


def require(condition, text):
    if not condition:
        raise Failure(text)


def environment(folder, **more):
    return {**os.environ, "VELKOR_SOFTKEY_HOME": str(folder), "PIN": PIN, "SO_PIN": SO_PIN, "OTHER_PIN": OTHER_PIN,
            **{name: str(value) for name, value in more.items()}}


def faulty(folder, call, what, report, calls="changes"):
    """What makes a process fail at one of its calls for files in a folder."""
    return environment(folder, LD_PRELOAD=FAULT, HARD_FOLDER=folder, HARD_AT=call, HARD_DO=what, HARD_HIT=report,
                       HARD_CALLS=calls)


def run(command, surroundings):
    """Exit code, negative for a signal, and what was printed: labels of a spoilt file may hold any bytes."""
    with subprocess.Popen([str(part) for part in command], env=surroundings, text=True, errors="backslashreplace",
                          stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE) as process:
        try:
            out, error = process.communicate(timeout=LIMIT)
        except subprocess.TimeoutExpired as expired:
            process.kill()
            raise Failure(f"{command[0]} hangs") from expired
    return process.returncode, out, error


def tool(folder, *arguments, **more):
    code, out, error = run([TOOL, *arguments], environment(folder, **more))
    require(code == 0, f"velkor-softkey {arguments[0]} answers {code}: {error.strip()}")
    return out


@contextlib.contextmanager
def scratch():
    base = BUILD / "tmp"
    base.mkdir(exist_ok=True)
    folder = pathlib.Path(tempfile.mkdtemp(prefix="hard-", dir=base)).resolve()
    try:
        yield folder
    finally:
        shutil.rmtree(folder)


def openssl(*arguments):
    subprocess.run(["openssl", *map(str, arguments)], check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)


class Material:
    """Private keys and a certificate, as files."""

    def __init__(self, folder):
        self.rsa, self.ec, self.certificate = folder / "rsa.pem", folder / "ec.pem", folder / "certificate.der"
        openssl("genpkey", "-algorithm", "RSA", "-pkeyopt", "rsa_keygen_bits:2048", "-out", self.rsa)
        openssl("genpkey", "-algorithm", "EC", "-pkeyopt", "ec_paramgen_curve:P-256", "-out", self.ec)
        openssl("req", "-x509", "-key", self.ec, "-subj", "/CN=Hard", "-days", "30", "-outform", "DER", "-out",
                self.certificate)


def make_key(folder, material, cost=4, tries=255, serial=SERIAL):
    """A key with an RSA and an EC key pair and a certificate; PIN checks are cheap unless told otherwise."""
    folder.mkdir(mode=0o700, exist_ok=True)
    cost_option = ("--scrypt-cost", cost) if cost else ()
    tool(folder, "create", "--serial", serial, *cost_option, "--tries", tries, "--pin-env", "PIN", "--so-pin-env",
         "SO_PIN")
    for file, label in ((material.rsa, "rsa"), (material.ec, "ec")):
        tool(folder, "import-key", serial, file, "--label", label, "--id", label.encode().hex(), "--pin-env", "PIN")
    tool(folder, "import-certificate", serial, material.certificate, "--pin-env", "PIN")


def key_file(folder, serial=SERIAL):
    return folder / f"{serial}.velkorkey"


def journal_of(folder, serial=SERIAL):
    return folder / f"{serial}.velkorkey-journal"


class ReadBack:
    """What a key says to a new process, and what a signature with each of its key pairs answered."""

    def __init__(self, folder, pin=PIN, serial=SERIAL):
        code, out, error = run([AGENT, "read-back", serial, pin], environment(folder))
        require(code == 0 and out.endswith("end\n"), f"a reader ended with {code} {error}")
        self.status, self.device, self.tries = 0, "", 0
        self.key_pairs, self.signatures, self.certificates = {}, {}, []
        for line in out.splitlines():
            word, _, rest = line.partition(" ")
            if word == "status":
                self.status = int(rest)
            elif word == "device":
                self.device = rest
            elif word == "tries":
                self.tries = int(rest.split()[0])
            elif word == "certificate":
                self.certificates.append(rest)
            elif word == "key":
                identifier, signature, description = rest.split(" ", 2)
                self.key_pairs[identifier] = description
                self.signatures[identifier] = int(signature)

    def says(self):
        return self.device, self.key_pairs, self.certificates

    def signs_with_all(self):
        return bool(self.signatures) and set(self.signatures.values()) == {0}


def verify(folder, pin=PIN, serial=SERIAL):
    """The exit code of the tool that looks at a key as a whole, with its PIN."""
    code, _, error = run([TOOL, "verify", serial, "--pin-env", "GIVEN"], environment(folder, GIVEN=pin))
    require(code >= 0, f"verify ended with {code} {error}")
    return code


def require_whole(folder, pin=PIN, serial=SERIAL):
    """Reads a key back; its tool and a signature with each key pair agree that it is whole."""
    found = ReadBack(folder, pin, serial)
    require(found.status == 0, f"opening answers {found.status}")
    require(found.signs_with_all(), f"signatures answer {found.signatures}")
    require(verify(folder, pin, serial) == 0, "verify finds damage")
    return found


def opening_pin(folder, serial=SERIAL):
    """The one of both PINs that opens the key."""
    statuses = {pin: set(ReadBack(folder, pin, serial).signatures.values()) for pin in (PIN, OTHER_PIN)}
    opening = [pin for pin, answers in statuses.items() if answers == {0}]
    require(len(opening) == 1, f"not one PIN opens the key: {statuses}")
    return opening[0]
