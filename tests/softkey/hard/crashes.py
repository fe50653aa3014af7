"""Processes that are killed, and processes whose writes fail: what was reported done is there, what was refused is
not, and the key is whole."""
import errno
import json
import random
import shutil
import subprocess
import time

from history import WRITE_REFUSED, History, other
from world import (AGENT, OTHER_PIN, PIN, SERIAL, TOOL, Failure, ReadBack, environment, faulty, journal_of, key_file,
                   make_key, opening_pin, require, require_whole, run, tool, verify)


def agent(pin, material, rounds):
    return [AGENT, "work", SERIAL, pin, other(pin), material.certificate, rounds]


def kill_at_random(folder, material, count, lines=(1, 18), **more):
    """One key goes through all the kills, each after one of so many lines."""
    make_key(folder, material)
    chance, pin = random.Random(20240229), PIN
    for _ in range(count):
        history = History(folder, pin)
        with subprocess.Popen(list(map(str, agent(pin, material, 0))), env=environment(folder, **more), text=True,
                              stdout=subprocess.PIPE) as process:
            seen = "".join(process.stdout.readline() for _ in range(chance.randint(*lines)))
            time.sleep(chance.uniform(0, 0.003))
            process.kill()
            seen += process.stdout.read()
        history.follow(seen)
        pin = history.hold()
    return count


class Scenario:
    """A command, and what is to be seen after it was done or not."""

    def __init__(self, command, holds):
        self.command, self.holds = command, holds

    def at(self, folder, call, what, calls="changes"):
        """None when the command has fewer calls than that."""
        report = folder.parent / "hit"
        report.unlink(missing_ok=True)
        code, out, error = run(self.command, faulty(folder, call, what, report, calls))
        if not report.exists():
            require(code == 0, f"without a fault {self.command[1]} answers {code} {error}")
            return None
        require(code >= 0 or (code == -9 and what == "kill"), f"{self.command[1]} ended with {code}")
        try:
            self.holds(folder, Ending(code, out, report.read_text()))
        except Failure as failure:
            raise Failure(f"{self.command[1]}, call {call} ({report.read_text()}), {what}: {failure}") from failure
        return report.read_text()


class Ending:
    """How a process ended, and at which call."""

    def __init__(self, code, out, call):
        self.code, self.out, self.call = code, out, call

    def was_killed(self):
        return self.code < 0

    def is_open(self):
        """Nobody knows what is on a disk that did not say that it is there."""
        return self.call in ("fsync", "fdatasync")

    def must_have_done(self):
        return self.code == 0

    def must_not_have_done(self):
        return self.code > 0 and not self.is_open()


def hold_one_of(*states):
    """The key says one of several things, and is whole; a command that reported success has left the last one."""
    def hold(folder, ending):
        says = require_whole(folder).says()
        require(says in states, f"the key says neither what it did before nor what it does after: {says}")
        require(not ending.must_have_done() or says == states[-1], "what was reported done is lost")
        require(not ending.must_not_have_done() or says == states[0], "what was refused was done")
    return hold


def hold_created(folder, ending):
    if key_file(folder, "FRESH").exists():
        tool(folder, "verify", "FRESH", "--pin-env", "PIN")
    else:
        require(not ending.must_have_done(), "what was reported made is not there")
        tool(folder, "create", "--serial", "FRESH", "--scrypt-cost", 4, "--pin-env", "PIN", "--so-pin-env", "SO_PIN")
        tool(folder, "verify", "FRESH", "--pin-env", "PIN")
    tool(folder, "remove", "FRESH", "--yes")
    require(not list(folder.glob(".*.draft")), "a draft stays, although a key was removed since")
    require_whole(folder)


def hold_removed(folder, ending):
    if not key_file(folder).exists():
        return
    require(not ending.must_have_done(), "what was reported removed is there")
    tool(folder, "plug", SERIAL)
    require_whole(folder)
    tool(folder, "remove", SERIAL, "--yes")
    require(not key_file(folder).exists(), "removing again removes nothing")


def hold_unplugged(folder, ending):
    plugged = json.loads(tool(folder, "--json", "info", SERIAL))["plugged"]
    require(not ending.must_have_done() or not plugged, "what was reported unplugged is plugged in")
    require(not ending.must_not_have_done() or plugged, "what was refused was done")
    tool(folder, "plug", SERIAL)
    require_whole(folder)


def hold_backed_up(folder, ending):
    copy = folder / "copy"
    if copy.exists():
        restored = folder.parent / "restored"
        shutil.rmtree(restored, ignore_errors=True)
        restored.mkdir(mode=0o700)
        tool(restored, "restore", copy)
        require_whole(restored)
    else:
        require(not ending.must_have_done(), "the copy that was reported is not there")
    require_whole(folder)


def hold_rekeyed(folder, ending):
    pin = opening_pin(folder)
    require(not ending.must_have_done() or pin == OTHER_PIN, "what was reported done is lost")
    require(not ending.must_not_have_done() or pin == PIN, "what was refused was done")
    require_whole(folder, pin)


def worked_from(pristine):
    """The history of a process that works on a copy of a folder whose key has all its tries."""
    def hold(folder, ending):
        history = History(pristine)
        history.folder = folder
        history.follow(ending.out)
        if not ending.was_killed():
            require(history.pending is None, "a step has no end")
            answers = {status for _, _, status in history.refused}
            require(answers <= WRITE_REFUSED, f"a failed write answers {history.refused}")
            if history.refused and ending.is_open():
                history.pending = history.refused[0][:2]
        history.hold()
    return hold


def scenarios(pristine, material):
    """Everything that writes. Each begins with a copy of the folder."""
    before = ReadBack(pristine).says()
    relabelled = pristine.parent / "relabelled"
    shutil.copytree(pristine, relabelled)
    tool(relabelled, "import-certificate", SERIAL, material.certificate, "--label", "new", "--pin-env", "PIN")
    after, backup = ReadBack(relabelled).says(), pristine.parent / "backup"
    tool(relabelled, "backup", SERIAL, backup)
    pins = ("--pin-env", "PIN", "--so-pin-env", "SO_PIN")
    return [
        Scenario(agent(PIN, material, 1), worked_from(pristine)),
        Scenario([TOOL, "import-certificate", SERIAL, material.certificate, "--label", "new", "--pin-env", "PIN"],
                 hold_one_of(before, after)),
        Scenario([TOOL, "set-pin", SERIAL, "--rekey", "--new-pin-env", "OTHER_PIN", *pins], hold_rekeyed),
        Scenario([TOOL, "create", "--serial", "FRESH", "--scrypt-cost", 4, *pins], hold_created),
        Scenario([TOOL, "restore", backup, "--yes"], hold_one_of(before, after)),
        Scenario([TOOL, "backup", SERIAL, pristine.parent / "at-work/copy"], hold_backed_up),
        Scenario([TOOL, "unplug", SERIAL], hold_unplugged),
        Scenario([TOOL, "remove", SERIAL, "--yes"], hold_removed),
    ]


def fresh_copy(pristine):
    folder = pristine.parent / "at-work"
    shutil.rmtree(folder, ignore_errors=True)
    shutil.copytree(pristine, folder)
    return folder


def at_successive_calls(scenario, pristine, what, calls, stride, limit):
    """The fault at every call, or at every so manieth; how often it came."""
    for number, call in enumerate(range(1, 100_000, stride)):
        if number == limit or scenario.at(fresh_copy(pristine), call, what, calls) is None:
            return number
    return 0


def kill_at_calls(folder, material, count, stride):
    """At calls that change something, of every scenario; what is left of the count, at calls of any kind."""
    make_key(folder, material)
    found = scenarios(folder, material)
    killed = sum(at_successive_calls(scenario, folder, "kill", "changes", stride, 100_000) for scenario in found)
    step = 1
    while killed < count:
        killed += at_successive_calls(found[0], folder, "kill", "all", step, count - killed)
        step += 1
    return killed


# What a process says to have done and has not done, and what is to be said of it.
LIES = {"wrong": "left 7 tries", "generate": "key pairs differ", "delete": "key pairs differ",
        "certificate": "certificates differ", "uncertificate": "certificates differ", f"pin {OTHER_PIN}": "tries of"}


def require_failure(text, check, *arguments, **more):
    try:
        check(*arguments, **more)
    except Failure as failure:
        require(text in str(failure), f"another failure than '{text}': {failure}")
    else:
        raise Failure(f"nothing was noticed, although '{text}' was to be")


def find_lies(folder, material):
    """Processes that lie are killed like others, and commands that did nothing are said to have done their work: the
    checks above fail then. Gives how many times they did."""
    folder.mkdir()
    for number, (lie, text) in enumerate(LIES.items()):
        # In the second round, when the lie has been told.
        require_failure(text, kill_at_random, folder / str(number), material, 5, (22, 34), HARD_LIE=lie)
    pristine = folder / "pristine"
    make_key(pristine, material)
    commands = scenarios(pristine, material)[1:]
    for scenario in commands:
        require_failure("", scenario.holds, fresh_copy(pristine), Ending(0, "", ""))
    return len(LIES) + len(commands)


def fail_writes(folder, material, stride):
    """EIO and ENOSPC at every call that writes, and a disk that is full from there on."""
    make_key(folder, material)
    failed = 0
    for scenario in scenarios(folder, material):
        for what in (errno.EIO, errno.ENOSPC, "full"):
            failed += at_successive_calls(scenario, folder, what, "changes", stride, 100_000)
    return failed


def leave_journals(folder, pristine, stride):
    """Folders of processes that were killed while a change of all private keys was under way, with their journals."""
    command = [TOOL, "set-pin", SERIAL, "--rekey", "--new-pin-env", "OTHER_PIN", "--pin-env", "PIN", "--so-pin-env",
               "SO_PIN"]
    left = []
    for call in range(1, 10_000, stride):
        report = folder / "hit"
        report.unlink(missing_ok=True)
        at = folder / f"left{len(left)}"
        shutil.copytree(pristine, at)
        run(command, faulty(at, call, "kill", report))
        if not report.exists():
            shutil.rmtree(at)
            break
        if journal_of(at).exists() and journal_of(at).stat().st_size > 0:
            left.append(at)
        else:
            shutil.rmtree(at)
    require(left, "no process left a journal")
    return left


def damage(journal, chance):
    """Cuts a journal or turns some of its bits."""
    content = bytearray(journal.read_bytes())
    if chance.random() < 0.4:
        content = content[:chance.randrange(len(content))]
    else:
        for _ in range(chance.choice((1, 1, 8))):
            content[chance.randrange(len(content))] ^= 1 << chance.randrange(8)
    journal.write_bytes(content)


def hold_recovered(folder, before):
    """Without a PIN first, past the journal; then by processes that put it back."""
    tool(folder, "info", SERIAL)
    require_whole(folder, opening_pin(folder))
    require(ReadBack(folder).says() == before, "the contents differ")


def hold_recovered_or_refused(folder, before):
    """Whatever works is right, and what does not is said to be damaged; a PIN is never called wrong instead."""
    answers = []
    for pin in (PIN, OTHER_PIN):
        found = ReadBack(folder, pin)
        answers.append(set(found.signatures.values()) or {found.status})
        if 0 in answers[-1]:
            require(found.says() == before, "changed contents are used")
            require(answers[-1] == {0} or 341 in answers[-1], f"signatures answer {answers[-1]}")
            require((verify(folder, pin) == 0) == (answers[-1] == {0}), "verify and signatures differ")
    require(any(0 in each or each <= {341, 342, 343} for each in answers), f"neither recovered nor refused: {answers}")


def journals(folder, material, count, stride):
    """Two thirds as they were left, the others damaged; gives from how many moments they are."""
    pristine = folder / "pristine"
    folder.mkdir()
    make_key(pristine, material)
    before = ReadBack(pristine).says()
    left, chance = leave_journals(folder, pristine, stride), random.Random(20240303)
    for number in range(count):
        at = folder / "at-work"
        shutil.rmtree(at, ignore_errors=True)
        shutil.copytree(left[number * len(left) // count], at)
        if number % 3 < 2:
            hold_recovered(at, before)
        else:
            damage(journal_of(at), chance)
            hold_recovered_or_refused(at, before)
    return len(left)
