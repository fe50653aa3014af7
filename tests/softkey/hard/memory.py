"""Searches of a process's memory for what it must have forgotten."""
import pathlib
import re
import subprocess
import time

from world import HOST, KEY_SECRETS, SERIAL, environment, key_file, make_key, require, require_whole, run, tool

PART = 24  # Bytes of a number that are searched for.
IDLE_LIMIT = 20  # Seconds; a key counts as idle after one, and the module looks every second.


def numbers_of(pem):
    """The secret numbers of a private key, by their names."""
    text = subprocess.run(["openssl", "pkey", "-in", str(pem), "-noout", "-text"], check=True, text=True,
                          stdout=subprocess.PIPE).stdout
    named = re.findall(r"^(priv\w*|prime1|prime2|exponent1|exponent2|coefficient):\n((?:    .*\n)+)", text, re.M)
    return {name: bytes.fromhex(re.sub(r"[\s:]", "", digits)).lstrip(b"\0") for name, digits in named}


def both_orders(name, number):
    """As it stands in an encoding, and as it stands in OpenSSL's memory."""
    return {f"{name}, big end first": number[-PART:], f"{name}, small end first": number[::-1][:PART]}


def secrets_of_key(folder, pin):
    """Names and contents of what a PIN opens: the master key, the key that the PIN makes, and the private keys."""
    code, out, error = run([KEY_SECRETS, key_file(folder), pin], environment(folder))
    require(code == 0, f"no master key: {error}")
    return [(name, bytes.fromhex(digits)) for name, digits in (line.split(": ") for line in out.splitlines())]


def needles(folder, material, pin):
    found = {}
    for pem in (material.rsa, material.ec):
        for name, number in numbers_of(pem).items():
            found.update(both_orders(f"{pem.stem} {name}", number))
    require(len(found) == 14, f"there are {len(found)} numbers to search for")
    found["master key"] = secrets_of_key(folder, pin)[0][1]
    found["PIN"] = pin.encode()
    return found


def writable_memory(process):
    """Region by region, what a process may write to."""
    with open(f"/proc/{process}/maps", encoding="utf-8") as maps, open(f"/proc/{process}/mem", "rb", 0) as memory:
        for line in maps:
            begin, end, rights = re.match(r"(\w+)-(\w+) (\S+)", line).groups()
            if "w" not in rights:
                continue
            memory.seek(int(begin, 16))
            content = b""
            while len(content) < int(end, 16) - int(begin, 16):
                part = memory.read(int(end, 16) - int(begin, 16) - len(content))
                if not part:
                    break
                content += part
            yield content


def found_in(process, needles_by_name):
    names = set()
    for content in writable_memory(process):
        names |= {name for name, needle in needles_by_name.items() if needle in content}
    return names


class Host:
    """An application that uses the key through the module, stop by stop."""

    def __init__(self, folder, **more):
        (folder.parent / "velkor.conf").write_text("logLevel = 0\n", encoding="utf-8")
        surroundings = environment(folder, VELKOR_CONFIG=folder.parent / "velkor.conf", **more)
        self.process = subprocess.Popen([str(HOST)], env=surroundings, text=True, stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE)

    def go_on(self, line=""):
        self.process.stdin.write(line + "\n")
        self.process.stdin.flush()

    def stop(self, place):
        line = self.process.stdout.readline()
        require(line.startswith(place), f"the application is not at '{place}' but at '{line.strip()}'"
                f" {self.process.poll()}")
        return line.split()[1:]


def require_gone(process, secrets, place, left=()):
    found = found_in(process, secrets) - set(left)
    require(not found, f"{place}: {', '.join(sorted(found))}")


def seconds_until_dropped(folder, pin, secrets):
    """Of an application that uses the key no more, and makes no calls; after one second it counts as idle."""
    host = Host(folder, VELKOR_SOFTKEY_IDLE=1)
    host.go_on(pin)
    host.stop("used")
    begin = time.monotonic()
    while found := found_in(host.process.pid, secrets):
        require(time.monotonic() - begin < IDLE_LIMIT, f"not dropped when idle: {', '.join(sorted(found))}")
    seconds = time.monotonic() - begin
    host.process.kill()
    host.process.wait()
    return seconds


def memory(folder, material):
    """What a search finds in use; nothing of it may be left at the other places. Gives the number of secrets, and
    the seconds after which an idle key was dropped."""
    folder.mkdir()
    at, pin = folder / "keys", "a-pin-that-stands-nowhere-else"
    make_key(at, material)
    tool(at, "set-pin", SERIAL, "--pin-env", "PIN", "--new-pin-env", "NEW_PIN", NEW_PIN=pin)
    secrets = needles(at, material, pin)
    numbers = {name: needle for name, needle in secrets.items() if name != "PIN"}
    host = Host(at)
    host.go_on(pin)
    host.stop("used")
    seen = found_in(host.process.pid, secrets)
    require({"PIN", "master key"} <= seen and len(seen) >= 9, f"the search does not find what is there: {seen}")
    host.go_on()
    require_gone(int(host.stop("forked")[0]), numbers, "in a forked child")
    host.go_on()
    host.stop("left")
    require_gone(host.process.pid, {"PIN": secrets["PIN"]}, "after C_Logout")
    host.go_on()
    require_gone(int(host.stop("forked")[0]), secrets, "in a child forked after C_Logout")
    host.go_on()
    host.stop("refused")
    require_gone(host.process.pid, secrets, "after C_Logout and the next call")
    host.go_on()
    host.go_on(pin)
    host.stop("used")
    host.go_on()
    host.stop("finalised")
    require_gone(host.process.pid, secrets, "after C_Finalize")
    host.go_on()
    require(host.process.wait() == 0, "the application failed")
    seconds = seconds_until_dropped(at, pin, numbers)
    require_whole(at, pin)
    return len(secrets), seconds
