#!/usr/bin/env python3
"""Runs clang-tidy over sources that a build has compiled, where something changed since it last was content with them.

    scripts/check-tidy.py BUILD-FOLDER SOURCE... [-- CLANG-TIDY-ARGUMENT...]

What it was content with is kept in the user's cache folder by the content of all that it depends on: the source, every
header that the build read, the compile commands, clang-tidy's configuration and version. So a clone finds what another
one has checked, and a new configuration checks everything. A source is checked in every layout that it is compiled in;
its other compilations, in tests, are left out.

Most of its time goes into the standard library's headers. So sources of one folder that are compiled alike are checked a
few at a time, in units that include them; what does not go together with the others, by a name that stands twice, is checked by itself.
"""
import concurrent.futures
import hashlib
import json
import os
import pathlib
import re
import shlex
import subprocess
import sys
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
KEPT_DAYS = 30
UNIT_SIZE = 12


def commands_by_source(build):
    """The compile commands of the products, without what clang-tidy has no use for, as {source: [entry]}."""
    found = {}
    for entry in json.loads((build / "compile_commands.json").read_text()):
        if not entry["file"].endswith((".cpp", ".cxx")):
            continue
        arguments = shlex.split(entry["command"])
        if os.path.basename(arguments[0]) == "ccache":
            del arguments[0]
        output = arguments[arguments.index("-o") + 1]
        if output.startswith("tests/"):
            continue
        kept = []
        for argument in arguments:
            if "cmake_pch.hxx" in argument:
                del kept[-1]  # -include
            elif argument not in ("-Winvalid-pch", "-fno-keep-inline-dllexport"):
                kept.append(argument)
        for source in sources_of(entry["file"]):
            found.setdefault(source, []).append(
                {"directory": entry["directory"], "file": source, "output": output,
                 "arguments": [source if argument == entry["file"] else argument for argument in kept]})
    return found


def sources_of(file):
    """What is compiled as this file: itself, or the sources that a build has put together in it."""
    if "/Unity/unity_" not in file:
        return [file]
    return re.findall(r'#include "(.+)"', pathlib.Path(file).read_text())


def headers_by_output(build):
    """What the build read for each object, as the build tool noted it."""
    listed = subprocess.run(["ninja", "-C", build, "-t", "deps"], check=True, stdout=subprocess.PIPE, text=True).stdout
    headers, output = {}, None
    for line in listed.splitlines():
        if line.startswith("    "):
            headers[output].append(line.strip())
        elif ": #deps" in line:
            output = line.split(": #deps")[0]
            headers[output] = []
    return headers


class Contents:
    """Hashes of files, each read once."""

    def __init__(self):
        self.known = {}

    def of(self, path):
        if path not in self.known:
            self.known[path] = hashlib.sha256(path.read_bytes()).hexdigest()
        return self.known[path]


def version(program):
    return subprocess.run([program, "--version"], check=True, stdout=subprocess.PIPE, text=True).stdout


def key(build, entries, headers, contents, general):
    """Names all that the verdict on a source depends on, wherever the clone lies."""
    text = [general]
    for entry in entries:
        text.append(" ".join(entry["arguments"]).replace(str(ROOT), "."))
        for path in sorted({os.path.normpath(build / header) for header in headers.get(entry["output"], [])}):
            text.append(path.replace(str(ROOT), ".") + " " + contents.of(pathlib.Path(path)))
        text.append(contents.of(pathlib.Path(entry["file"])))
    return hashlib.sha256("\n".join(text).encode()).hexdigest()


def units_of(sources, commands, database):
    """The sources put together: [([source], file to check)]. Adds what compiles the units to the commands."""
    alike = {}
    for source in sources:
        entries = commands[str(ROOT / source)]
        how = [" ".join(entry["arguments"]).replace(entry["output"], "").replace(entry["file"], "") for entry in entries]
        alike.setdefault((os.path.dirname(source), *how), []).append(source)
    units = []
    for group in alike.values():
        count = -(-len(group) // UNIT_SIZE)
        for members in (group[i::count] for i in range(count)):
            if len(members) == 1:
                units.append((members, ROOT / members[0]))
                continue
            unit = database / f"unit_{len(units)}.cpp"
            first = ROOT / members[0]
            commands[str(unit)] = [
                {**entry, "file": str(unit),
                 "arguments": [str(unit) if argument == entry["file"] else argument for argument in entry["arguments"]]}
                for entry in commands[str(first)]]
            units.append((members, unit))
    return units


def tidy(file, database, *arguments):
    return subprocess.run(["clang-tidy", "--quiet", "-p", database, *arguments, file], stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True)


def without_strangers(members, unit, database, arguments):
    """Leaves in the unit what compiles together; gives those members, and the others."""
    together, strangers = list(members), []
    while len(together) > 1:
        unit.write_text("".join(f'#include "{ROOT / member}" // NOLINT(bugprone-suspicious-include)\n' for member in together))
        run = tidy(unit, database, *arguments, "--checks=-*,portability-restrict-system-includes")
        if run.returncode == 0:
            break
        lines = re.findall(re.escape(str(unit)) + r":(\d+)", run.stdout)
        strangers.append(together.pop(int(lines[0]) - 1 if lines else 0))
    return together, strangers


def check(members, file, database, arguments):
    """What clang-tidy is content with of the members."""
    if len(members) > 1:
        together, strangers = without_strangers(members, file, database, arguments)
        if len(together) == 1 or tidy(file, database, *arguments).returncode != 0:
            together, strangers = [], members  # Each by itself, so that it is seen which it is.
        return together + [source for source in strangers if check([source], ROOT / source, database, arguments)]
    run = tidy(file, database, *arguments)
    if run.returncode == 0:
        return members
    print(*(line for line in run.stdout.splitlines() if "warnings generated" not in line), sep="\n", flush=True)
    return []


def main(build, *rest):
    rest = list(rest)
    split = rest.index("--") if "--" in rest else len(rest)
    sources, arguments = rest[:split], rest[split + 1:]
    build = ROOT / build
    cache = pathlib.Path(os.environ.get("XDG_CACHE_HOME") or pathlib.Path.home() / ".cache") / "velkor-tidy"
    cache.mkdir(parents=True, exist_ok=True)
    for old in cache.iterdir():
        if old.stat().st_mtime < time.time() - KEPT_DAYS * 24 * 3600:
            old.unlink()

    commands, headers, contents = commands_by_source(build), headers_by_output(build), Contents()
    compilers = {entry["arguments"][0] for entries in commands.values() for entry in entries}
    general = "\n".join([version("clang-tidy"), *map(version, sorted(compilers)), (ROOT / ".clang-tidy").read_text(),
                         " ".join(arguments).replace(str(ROOT), ".")])
    missing = [source for source in sources if str(ROOT / source) not in commands]
    if missing or not sources:
        print("check-tidy.py: not compiled:", *missing)
        return 1

    database = build / "tidy"
    database.mkdir(exist_ok=True)
    stamps = {source: cache / key(build, commands[str(ROOT / source)], headers, contents, general)
              for source in sources}
    changed = [source for source in sources if not stamps[source].exists()]
    print(f"clang-tidy: {len(changed)} of {len(sources)} sources to check", flush=True)
    units = units_of(changed, commands, database)
    (database / "compile_commands.json").write_text(
        json.dumps([entry for entries in commands.values() for entry in entries]))
    clean = set(sources) - set(changed)
    for source in clean:
        stamps[source].touch()
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        for content in pool.map(lambda unit: check(*unit, database, arguments), units):
            for source in content:
                stamps[source].touch()
            clean.update(content)
    return 0 if clean == set(sources) else 1


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
