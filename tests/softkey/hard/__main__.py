"""Treats a software key badly, in ways that end with a look at what it says, and prints a table of what it withstood.

    hard [--short] [--only NAME] [SECONDS]

SECONDS: how long readers and writers contend, 60 unless said otherwise. The exit code is 0 when nothing failed.
"""
import argparse
import os
import sys
import time

import crashes
import crowds
import leaks
import memory
import mutations
from world import Material, scratch

READER_LIMIT = 50  # Milliseconds.


def kills_at_random(folder, material, count):
    return f"{crashes.kill_at_random(folder, material, count)} processes killed"


def kills_at_calls(folder, material, size):
    return f"{crashes.kill_at_calls(folder, material, *size)} processes killed"


def lies(folder, material, _):
    return f"{crashes.find_lies(folder, material)} processes that had not done what they said, all found out"


def failing_writes(folder, material, stride):
    return f"{crashes.fail_writes(folder, material, stride)} processes with failing writes"


def left_journals(folder, material, size):
    return f"{size[0]} journals, from {crashes.journals(folder, material, *size)} moments"


def spoilt_files(folder, material, count):
    harmless = mutations.mutations(folder, material, count)
    return f"{count} files: {harmless} without effect, {count - harmless} refused"


def guesses(folder, material, count):
    crowds.wrong_pins(folder, material, count)
    return f"{count} wrong PINs at once, twice"


def beginners(folder, material, size):
    count, cost = size
    peak, seconds = crowds.first_signatures(folder, material, count, cost)
    return f"{count} at cost 2^{cost} in {seconds:.1f} s, at most {peak} derivations at once"


def contenders(folder, material, size):
    rows, late = crowds.contention(folder, material, READER_LIMIT, *size)
    lines = [f"{kind}: {calls} calls, median {median:.2f}, 99.9 % below {high:.1f}, longest {longest:.1f} ms"
             for kind, calls, median, high, longest in rows]
    return "\n".join([*lines, f"(the machine itself was late by {late:.1f} ms, one time in a thousand)"])


def searches(folder, material, _):
    secrets, seconds = memory.memory(folder, material)
    return f"{secrets} secrets, at 6 places; dropped {seconds:.1f} s after the last use where 1 s was asked for"


def searches_for_leaks(folder, material, _):
    return "\n".join(f"{name}: {row}" for name, row in leaks.leaks(folder, material).items())


def checks(seconds):
    """Name, check, its size in full and in short."""
    return (("kills at random moments", kills_at_random, 500, 20),
            ("kills at successive calls", kills_at_calls, (500, 1), (0, 13)),
            ("lies", lies, None, None),
            ("failing writes", failing_writes, 1, 31),
            ("journals", left_journals, (100, 1), (12, 7)),
            ("mutations", spoilt_files, 500, 40),
            ("wrong PINs", guesses, 40, 40),
            ("first signatures", beginners, (200, 17), (24, 15)),
            # A machine that does other things as well makes single calls late.
            ("contention", contenders, (seconds, 0), (4, 3)),
            ("memory", searches, None, None),
            ("leaks", searches_for_leaks, None, None))


def run_check(name, check, size, folder, material):
    """Prints the row of the table; gives whether it passed."""
    begin = time.monotonic()
    try:
        folder.mkdir()
        result, passed = check(folder / "keys", material, size), True
    except Exception as failure:  # pylint: disable=broad-except # Whatever it is, the other checks are run.
        result, passed = f"{type(failure).__name__}: {failure}", False
    lines = result.split("\n")
    mark = "passed" if passed else "FAILED"
    row = f"{mark} {time.monotonic() - begin:6.1f} s  {name:26} {lines[0]}"
    print("\n".join([row, *(" " * 44 + line for line in lines[1:])]), flush=True)
    return passed


def main():
    parser = argparse.ArgumentParser(prog="softkey-hard", description=__doc__.split("\n", maxsplit=1)[0])
    parser.add_argument("seconds", nargs="?", type=int, default=60, help="how long readers and writers contend")
    parser.add_argument("--short", action="store_true", help="every kind of check, but few of each")
    parser.add_argument("--only", help="the checks whose names contain this")
    options = parser.parse_args()
    chosen = [row for row in checks(options.seconds) if not options.only or options.only in row[0]]
    begin = time.monotonic()
    print(f"{os.cpu_count()} processors, load {os.getloadavg()[0]:.1f}", flush=True)
    with scratch() as folder:
        material = Material(folder)
        results = [run_check(name, check, short if options.short else full, folder / name.replace(" ", "-"), material)
                   for name, check, full, short in chosen]
    print(f"{results.count(True)} passed, {results.count(False)} failed in {time.monotonic() - begin:.0f} s, "
          f"load {os.getloadavg()[0]:.1f}")
    return 0 if results and all(results) else 1


if __name__ == "__main__":
    sys.exit(main())
