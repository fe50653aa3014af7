"""Searches for secrets in all that a host, its libraries, the tool and its files leave: log, standard streams, stored
files, core dumps, memory."""
import hashlib
import os
import pathlib
import random
import shlex
import struct
import subprocess
import time

from memory import numbers_of, secrets_of_key, writable_memory
from spellings import Search, planted
from world import BUILD, SERIAL, TOOL, openssl, require

LEAK_HOST = BUILD / "bin/softkey_hard_leak_host"
LIBRARIES = {"module": BUILD / "lib/velkor-pkcs11.so", "strict front": BUILD / "lib/velkor-pkcs11-strict.so"}
LIMIT = 60  # Seconds.

PINS = ("first PIN", "PIN", "SO PIN", "wrong PIN", "wrong SO PIN", "PIN for C_InitPIN", "PIN for C_InitToken",
        "PIN for another login", "wrong old PIN", "PIN behind a wrong one", "overlong PIN", "overlong new PIN")
TEXTS = {"digested text": 100, "text digested in parts": 100, "text signed with SHA256-RSA": 100,
         "text signed with SHA256-RSA in parts": 100, "text signed with ECDSA-SHA256": 100,
         "text signed with ECDSA-SHA256 in parts": 100, "text encrypted with PKCS": 48, "text encrypted with OAEP": 48,
         "text from elsewhere": 48, "text encrypted in parts": 48, "text decrypted in parts": 48, "overlong text": 300,
         "text of a digest left": 48, "text of a signature left": 32, "text not fetched": 48, "data object": 64,
         "refused secret key": 32, "number of a refused EC key": 32, "seed": 32, "attribute to set": 64,
         "attribute to find": 64, "text for what is not supported": 64}
CIPHERTEXTS = {"ciphertext from elsewhere": "text from elsewhere",
               "ciphertext decrypted in parts": "text decrypted in parts",
               "ciphertext of a text not fetched": "text not fetched"}
# The log has it, as docs/logging.md says, and so has the memory that its lines were made in.
LOGGED = ("text signed as it is", "text signed as it is in parts")

# What a process that is logged in has in ordinary memory, which core dumps hold.
USED = {"module": {"PIN", "shared secret", "cut shared secret", "hashed shared secret", "text of a digest left",
                   "text of a signature left", "text not fetched"},
        "strict front": {"PIN", "shared secret", "cut shared secret", "rest of the cut shared secret", "data object",
                         "text of a digest left", "text of a signature left", "text not fetched"}}
# What is left until the process ends: the values of derived keys (docs/departures.md).
LEFT = {"module": {"shared secret", "cut shared secret", "hashed shared secret"},
        "strict front": {"shared secret", "cut shared secret", "rest of the cut shared secret"}}
# Never in a core dump; in memory while they are used.
UNLOCKED = {"master key", "rsa prime1", "rsa prime2", "ec priv", "created prime1"}

# Exit codes of the tool.
PIN_REFUSED, BAD_INPUT = 3, 8

# The calls that do not answer CKR_OK, with the module and with the strict front.
OK, FAILED, READ_ONLY, SENSITIVE, TYPE, VALUE = 0, 6, 0x10, 0x11, 0x12, 0x13
DATA_LENGTH, NOT_SUPPORTED, PARAMETER, ACTIVE = 0x21, 0x54, 0x71, 0x90
OBJECT, WRONG_PIN, PIN_LENGTH, LOGGED_IN, NO_SEED = 0x82, 0xA0, 0xA2, 0x100, 0x120
REFUSALS = {"C_Login wrong PIN": (WRONG_PIN, WRONG_PIN),
            "C_Login wrong SO PIN": (WRONG_PIN, WRONG_PIN),
            "C_Login overlong PIN": (PIN_LENGTH, WRONG_PIN),
            "C_Login PIN for another login": (LOGGED_IN, LOGGED_IN),
            "C_SetPIN PIN behind a wrong one": (FAILED, WRONG_PIN),
            "C_SetPIN overlong new PIN": (PIN_LENGTH, PIN_LENGTH),
            "C_CreateObject refused": (FAILED, FAILED),
            "C_CreateObject EC": (FAILED, VALUE),
            "C_CreateObject secret key": (NOT_SUPPORTED, VALUE),
            "C_CreateObject data": (NOT_SUPPORTED, OK),
            "C_CopyObject": (NOT_SUPPORTED, OK),
            "C_DestroyObject of the copy": (OBJECT, OK),
            "C_GetAttributeValue 291": (OK, SENSITIVE),
            "C_GetAttributeValue 292": (OK, SENSITIVE),
            "C_GetAttributeValue 17": (OK, TYPE),
            "C_SetAttributeValue": (OK, READ_ONLY),
            "C_EncryptUpdate": (NOT_SUPPORTED, OK),
            "C_EncryptFinal": (NOT_SUPPORTED, OK),
            "C_DecryptInit in parts": (ACTIVE, OK),
            "C_DecryptUpdate": (NOT_SUPPORTED, OK),
            "C_DecryptFinal": (NOT_SUPPORTED, OK),
            "C_Encrypt overlong text": (FAILED, DATA_LENGTH),
            "C_DeriveKey hashed shared secret": (OK, PARAMETER),
            "C_SeedRandom": (NOT_SUPPORTED, NO_SEED)}
REFUSALS |= {call: (NOT_SUPPORTED, NOT_SUPPORTED) for call in
             ("C_InitPIN", "C_InitToken", "C_GenerateKey", "C_WrapKey", "C_UnwrapKey", "C_SetOperationState",
              "C_DigestKey", "C_SignRecover", "C_DigestEncryptUpdate")}


def new_pin(size=24):
    alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789"
    return "".join(random.SystemRandom().choice(alphabet) for _ in range(size)).encode()


def piped(command, given=b""):
    return subprocess.run([str(part) for part in command], check=True, input=given, stdout=subprocess.PIPE).stdout


def numbers_named(name, pem):
    return {f"{name} {number}": value for number, value in numbers_of(pem).items()}


def learn_from_file(around, secrets, pin):
    """Adds what the key's file hides: its master key, and the numbers of keys that were made on it."""
    known = set(secrets.values())
    made = 0
    for name, value in secrets_of_key(around.keys, pin.decode()):
        if name == "private key":
            (around.folder.parent / "private.der").write_bytes(value)
            numbers = numbers_named(f"made {made}", around.folder.parent / "private.der")
            if known.isdisjoint(numbers.values()):
                secrets |= numbers
                made += 1
        else:
            secrets[name if name not in secrets else f"later {name}"] = value
    return made


def derived_values(folder, ec_key):
    """What the host derives, by the names that it has for it, and what it must not keep of it; and the peers."""
    values, peers = {}, {}
    for name in ("shared secret", "cut shared secret", "hashed shared secret"):
        peer = folder / "peer.pem"
        openssl("genpkey", "-algorithm", "EC", "-pkeyopt", "ec_paramgen_curve:P-256", "-out", peer)
        public = piped(["openssl", "pkey", "-in", peer, "-pubout", "-outform", "DER"])
        (folder / "public.der").write_bytes(public)
        peers[f"peer of the {name}"] = public[-65:]
        secret = piped(["openssl", "pkeyutl", "-derive", "-inkey", ec_key, "-peerkey", folder / "public.der",
                        "-peerform", "DER"])
        if name == "hashed shared secret":
            values["shared secret behind the hash"] = secret
            secret = hashlib.sha384(secret).digest()
            values[name], values["rest of the hashed shared secret"] = secret[:32], secret[32:]
        elif name == "cut shared secret":
            values[name], values["rest of the cut shared secret"] = secret[:16], secret[16:]
        else:
            values[name] = secret
    return values, peers


class World:
    """Secrets by their names, and what else the host asks for."""

    def __init__(self, folder, material):
        self.secrets = {name: new_pin(70 if "overlong" in name else 24) for name in PINS}
        self.secrets |= {name: os.urandom(size) for name, size in TEXTS.items()}
        created = folder / "created.pem"
        openssl("genpkey", "-algorithm", "RSA", "-pkeyopt", "rsa_keygen_bits:2048", "-out", created)
        for name, pem in (("rsa", material.rsa), ("ec", material.ec), ("created", created)):
            self.secrets |= numbers_named(name, pem)
        self.secrets |= {f"refused {name.split()[1]}": os.urandom(len(number))
                         for name, number in self.secrets.items() if name.startswith("created ")}
        derived, self.others = derived_values(folder, material.ec)
        self.secrets |= derived
        for name in CIPHERTEXTS:
            self.others[name] = piped(["openssl", "pkeyutl", "-encrypt", "-inkey", material.rsa],
                                      self.secrets[CIPHERTEXTS[name]])
        self.others |= {name: os.urandom(32) for name in LOGGED}
        modulus = piped(["openssl", "rsa", "-in", created, "-noout", "-modulus"])
        self.others["created modulus"] = bytes.fromhex(modulus.decode().split("=")[1])
        self.others["refused modulus"] = b"\x80" + os.urandom(254) + b"\x01"

    def named(self, name):
        return self.secrets[name] if name in self.secrets else self.others[name]

    def learn(self, name, value):
        if name not in self.secrets:
            self.secrets[name] = value
        require(self.secrets[name] == value, f"the host has another {name}")


class Surroundings:
    """Folders of their own for a process: home, keys, temporary files, and what it prints."""

    def __init__(self, folder):
        self.folder = folder
        for name in ("home", "tmp", "run", "streams"):
            (folder / name).mkdir(mode=0o700)
        (folder / "velkor.conf").write_text("logLevel = 3\n", encoding="utf-8")
        self.keys = folder / "keys"
        self.variables = {"PATH": os.environ["PATH"], "HOME": str(folder / "home"), "TMPDIR": str(folder / "tmp"),
                          "XDG_RUNTIME_DIR": str(folder / "run"), "VELKOR_CONFIG": str(folder / "velkor.conf"),
                          "VELKOR_SOFTKEY_HOME": str(self.keys)}
        self.runs = 0

    def streams(self):
        self.runs += 1
        return [open(self.folder / "streams" / f"{self.runs}.{name}", "wb") for name in ("out", "error")]

    def tool(self, *arguments, expected=0, **given):
        """Runs a command of the tool, with lines on descriptor 0 or variables."""
        lines = given.pop("lines", b"")
        out, error = self.streams()
        variables = {name: value.decode() for name, value in given.items()}
        with out, error:
            code = subprocess.run([str(TOOL), *map(str, arguments)], env=self.variables | variables, input=lines,
                                  stdout=out, stderr=error, timeout=LIMIT, check=False).returncode
        said = pathlib.Path(error.name).read_text(encoding="utf-8")
        require(expected in (code, None), f"velkor-softkey {arguments[0]} answers {code}: {said.strip()}")

    def stored(self):
        """Each file with its name: log, streams, keys, whatever is there."""
        for file in sorted(self.folder.rglob("*")):
            yield file, str(file).encode() + b"\0" + (file.read_bytes() if file.is_file() else b"")


def make_key(around, world, material):
    secrets = world.secrets
    around.tool("create", "--serial", SERIAL, "--scrypt-cost", 4, "--tries", 99, "--so-tries", 99, "--pin-env", "A",
                "--so-pin-env", "B", A=secrets["first PIN"], B=secrets["SO PIN"])
    for file, label in ((material.rsa, "rsa"), (material.ec, "ec")):
        around.tool("import-key", SERIAL, file, "--label", label, "--id", label.encode().hex(), "--pin-fd", 0,
                    lines=secrets["first PIN"] + b"\n")


class Host:
    """The process that is searched."""

    def __init__(self, library, around, world):
        self.world, self.answers = world, {}
        to_read, self.to_host = os.pipe()
        self.from_host, to_write = os.pipe()
        out, error = around.streams()
        with out, error:
            self.process = subprocess.Popen(
                ["sh", "-c", 'exec "$1" "$2" 3<&"$3" 4>&"$4"', "sh", str(LEAK_HOST), str(library), str(to_read),
                 str(to_write)], env=around.variables, stdin=subprocess.DEVNULL, stdout=out, stderr=error,
                pass_fds=(to_read, to_write))
        os.close(to_read)
        os.close(to_write)
        self.read = os.fdopen(self.from_host, "rb")

    def give(self, content):
        content = struct.pack("=I", len(content)) + content
        while content:
            content = content[os.write(self.to_host, content):]

    def run_to(self, place):
        """Answers what it asks for until it stops there."""
        while True:
            word, _, rest = self.read.readline().decode().rstrip("\n").partition(" ")
            if word == "ask":
                self.give(self.world.named(rest))
            elif word == "hand":
                size = struct.unpack("=I", self.read.read(4))[0]
                self.world.learn(rest, self.read.read(size))
            elif word == "did":
                code, _, call = rest.partition(" ")
                self.answers.setdefault(call, set()).add(int(code))
            else:
                require((word, rest) == ("stop", place), f"the host is not at '{place}' but at '{word} {rest}'")
                return

    def go_on(self):
        os.write(self.to_host, b"\n")

    def end(self):
        self.go_on()
        require(self.process.wait(LIMIT) == 0, "the host failed")

    def await_threads(self):
        """The strict front ends the module behind C_Finalize."""
        begin = time.monotonic()
        while len(os.listdir(f"/proc/{self.process.pid}/task")) > 1:
            require(time.monotonic() - begin < LIMIT, "threads of the libraries are left")
            time.sleep(0.01)

    def memory(self, search):
        found = set()
        for content in writable_memory(self.process.pid):
            found |= search.found_in(content)
        return found

    def core_dump(self, folder, search):
        made = subprocess.run(["gcore", "-o", str(folder / "core"), str(self.process.pid)], stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
        core = folder / f"core.{self.process.pid}"
        require(made.returncode == 0 and core.exists(), f"no core dump: {made.stdout[-300:]}")
        found = search.found_in(core.read_bytes())
        core.unlink()
        return found


def require_only(found, allowed, place):
    wrong = sorted(f"{name} ({spelling})" for name, spelling in found if name not in allowed)
    require(not wrong, f"{place}: {'; '.join(wrong[:8])}" + (f" and {len(wrong) - 8} more" if len(wrong) > 8 else ""))


def require_all(found, names, place):
    missing = set(names) - {name for name, _ in found}
    require(not missing, f"{place}: the search does not find {', '.join(sorted(missing))}")


def require_stored_nothing(around, search, logged):
    texts = set()
    for file, content in around.stored():
        require_only(search.found_in(content), (), file.relative_to(around.folder))
        if file.suffix == ".LOG":
            texts |= logged.found_in(content)
    return {name for name, _ in texts}


def require_answers(answers, name):
    column = list(LIBRARIES).index(name)
    expected = {call: {codes[column]} for call, codes in REFUSALS.items()}
    require(set(expected) <= set(answers), f"not called: {sorted(set(expected) - set(answers))}")
    odd = {call: codes for call, codes in answers.items() if codes != expected.get(call, {0})}
    require(not odd, f"{name}: calls answer {odd}")


def require_found_when_planted(host, search, folder):
    """One secret of each kind, in every spelling."""
    names = ("PIN", "SO PIN", "rsa prime1", "ec priv", "digested text", "rest of the cut shared secret", "master key")
    content, expected = planted({name: host.world.secrets[name] for name in names})
    host.world.others["what is planted"] = content
    host.go_on()
    host.run_to("planted")
    (folder / "planted").write_bytes(content)
    for place, found in (("memory", host.memory(search)), ("a core dump", host.core_dump(folder, search)),
                         ("a file", search.found_in((folder / "planted").read_bytes()))):
        missing = sorted(expected - found)
        require(not missing, f"the search does not find in {place}: {missing[:8]}")
    return len(expected)


def search_host(name, folder, material):
    """Of one library. Says what was searched for."""
    folder.mkdir()
    (folder / "world").mkdir()
    world = World(folder, material)
    around = Surroundings(folder / "world")
    make_key(around, world, material)
    host = Host(LIBRARIES[name], around, world)
    try:
        host.run_to("used")
        require(learn_from_file(around, world.secrets, world.secrets["PIN"]) == 2, "not two key pairs were generated")
        search = Search(world.secrets)
        require_all(host.memory(search), UNLOCKED | {"PIN"}, f"{name}, in use")
        found = host.core_dump(folder, search)
        require_all(found, {"PIN"}, f"{name}, core dump in use")
        require_only(found, USED[name], f"{name}, core dump in use")
        host.go_on()
        host.run_to("finalised")
        require_answers(host.answers, name)
        host.await_threads()
        for place, found in (("memory", host.memory(search)), ("core dump", host.core_dump(folder, search))):
            require_only(found, LEFT[name], f"{name}, {place} after C_Finalize")
            require_all(found, LEFT[name], f"{name}, {place} after C_Finalize")
        logged = require_stored_nothing(around, search, Search({each: world.others[each] for each in LOGGED}))
        require("text signed as it is" in logged, f"{name}: the search does not find what the log has")
        pieces = require_found_when_planted(host, search, folder)
        host.end()
    finally:
        host.process.kill()
        host.process.wait()
    return "%d secrets in %d spellings, %d pieces planted and found" % (*search.size(), pieces)


def tool_dump(around, search, *arguments, lines):
    """What a core dump of the tool has at the end of a command that gets its PINs as lines."""
    pins, core, said = around.folder.parent / "lines", around.folder.parent / "core", around.folder.parent / "said"
    pins.write_bytes(b"".join(line + b"\n" for line in lines))
    run = f"run {' '.join(map(shlex.quote, map(str, arguments)))} <{pins} >{said}"
    made = subprocess.run(["gdb", "-nx", "-batch", "-ex", "catch syscall exit_group", "-ex", run, "-ex",
                           f"gcore {core}", "-ex", "kill", str(TOOL)], env=around.variables, stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, timeout=LIMIT, check=False)
    require(core.exists(), f"no core dump of the tool: {made.stdout[-300:]}")
    content = core.read_bytes()
    core.unlink()
    require_only(search.found_in(said.read_bytes() + made.stdout.encode()), (), f"what {arguments[0]} prints")
    require_only(search.found_in(content), (), f"a core dump of {arguments[0]}")
    return said.read_text(encoding="utf-8")


def use_tool(around, secrets, files):
    """Every command that is given a secret, or makes one. The key's PINs are those of the last two lines."""
    pins = {"A": secrets["PIN"], "B": secrets["SO PIN"], "C": secrets["new PIN"], "D": secrets["new SO PIN"],
            "E": secrets["pass phrase"], "W": secrets["wrong PIN"]}

    def tool(*arguments, expected=0):
        around.tool(*arguments, expected=expected, **pins)

    tool("create", "--serial", SERIAL, "--scrypt-cost", 4, "--pin-env", "A", "--so-pin-env", "B")
    tool("import", SERIAL, files["pem"], "--passphrase-env", "E", "--pin-env", "A")
    tool("import", SERIAL, files["p12"], "--passphrase-env", "W", "--pin-env", "A", expected=BAD_INPUT)
    tool("import", SERIAL, files["p12"], "--passphrase-env", "E", "--pin-env", "A")
    tool("generate", SERIAL, "RSA-2048", "--pin-env", "A")
    tool("generate", SERIAL, "P-256", "--pin-env", "A")
    tool("verify", SERIAL, "--pin-env", "W", expected=PIN_REFUSED)
    tool("verify", SERIAL, "--pin-env", "A")
    tool("self-sign", SERIAL, 1, "--subject", "CN=Leak", "--pin-env", "A")
    tool("csr", SERIAL, 1, "--subject", "CN=Leak", "--pin-env", "A")
    tool("export-certificate", SERIAL, 1, "--format", "pkcs12", "--out", around.folder / "exported", "--passphrase-env",
         "E")
    tool("backup", SERIAL, around.folder / "backup")
    tool("set-pin", SERIAL, "--pin-env", "W", "--new-pin-env", "C", expected=PIN_REFUSED)
    tool("set-pin", SERIAL, "--so", "--pin-env", "B", "--new-pin-env", "D")
    tool("unlock", SERIAL, "--so-pin-env", "D", "--new-pin-env", "C")
    for command in (("list", "--tree"), ("list", "--json"), ("info", SERIAL), ("doctor",)):
        around.tool(*command, expected=None)
    tool("restore", around.folder / "backup", "--yes")
    tool("set-pin", SERIAL, "--pin-env", "A", "--new-pin-env", "C")
    tool("set-pin", SERIAL, "--so", "--pin-env", "B", "--new-pin-env", "D")


def search_tool(folder, material):
    """Says what was searched for."""
    folder.mkdir()
    (folder / "world").mkdir()
    around = Surroundings(folder / "world")
    secrets = {name: new_pin() for name in ("PIN", "SO PIN", "new PIN", "new SO PIN", "last PIN", "wrong PIN")}
    secrets["pass phrase"] = b"a pass phrase " + new_pin()
    files = {"pem": folder / "rsa.pem", "p12": folder / "ec.p12"}
    environment = os.environ | {"E": secrets["pass phrase"].decode()}
    for command in (["pkcs8", "-topk8", "-in", material.rsa, "-out", files["pem"], "-passout", "env:E"],
                    ["x509", "-in", material.certificate, "-out", folder / "ec.crt"],
                    ["pkcs12", "-export", "-inkey", material.ec, "-in", folder / "ec.crt", "-out", files["p12"],
                     "-passout", "env:E"]):
        subprocess.run(["openssl", *map(str, command)], check=True, env=environment, stderr=subprocess.DEVNULL)
    secrets |= numbers_named("rsa", material.rsa) | numbers_named("ec", material.ec)
    use_tool(around, secrets, files)
    require(learn_from_file(around, secrets, secrets["new PIN"]) == 2, "not two key pairs were generated")
    search = Search(secrets)
    imported = tool_dump(around, search, "import", SERIAL, files["p12"], "--passphrase-fd", 0, "--pin-fd", 0,
                         lines=(secrets["pass phrase"], secrets["new PIN"]))
    changed = tool_dump(around, search, "set-pin", SERIAL, "--rekey", "--pin-fd", 0, "--new-pin-fd", 0, "--so-pin-fd", 0,
                        lines=(secrets["new PIN"], secrets["last PIN"], secrets["new SO PIN"]))
    require("key pair" in imported and "PIN changed" in changed, f"the tool says {imported}{changed} under a debugger")
    learn_from_file(around, secrets, secrets["last PIN"])
    search = Search(secrets)
    require_stored_nothing(around, search, search)
    return "%d secrets in %d spellings" % search.size()


def leaks(folder, material):
    """Says what was searched for, of each of the three."""
    folder.mkdir()
    searched = {name: search_host(name, folder / name.replace(" ", "-"), material) for name in LIBRARIES}
    return searched | {"tool": search_tool(folder / "tool", material)}
