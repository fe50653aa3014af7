#!/usr/bin/env python3
"""Runs clang-tidy over sources that a build has compiled, where something changed since it last was content with them.

    scripts/check-tidy.py BUILD-FOLDER SOURCE... [-- CLANG-TIDY-ARGUMENT...]

What it was content with is kept in the user's cache folder by the content of all that it depends on: the source, every
header that the build read, the compile commands, clang-tidy's configuration and version. So a clone finds what another
one has checked, and a new configuration checks everything. A source is checked in every layout that it is compiled in;
its other compilations, in tests, are left out.
"""
import concurrent.futures
import hashlib
import json
import os
import pathlib
import shlex
import subprocess
import sys
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
KEPT_DAYS = 30


def commands_by_source(build):
    """The compile commands of the products, without what clang-tidy has no use for, as {source: [entry]}."""
    found = {}
    for entry in json.loads((build / "compile_commands.json").read_text()):
        if not entry["file"].endswith(".cpp"):
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
        found.setdefault(entry["file"], []).append(
            {"directory": entry["directory"], "file": entry["file"], "arguments": kept, "output": output})
    return found


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


def check(source, database, arguments):
    run = subprocess.run(["clang-tidy", "--quiet", "-p", database, *arguments, source], stdout=subprocess.PIPE,
                         stderr=subprocess.STDOUT, text=True)
    if run.returncode != 0:
        print(*(line for line in run.stdout.splitlines() if "warnings generated" not in line), sep="\n", flush=True)
    return run.returncode == 0


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
    (database / "compile_commands.json").write_text(
        json.dumps([entry for entries in commands.values() for entry in entries]))
    stamps = {source: cache / key(build, commands[str(ROOT / source)], headers, contents, general)
              for source in sources}
    changed = [source for source in sources if not stamps[source].exists()]
    print(f"clang-tidy: {len(changed)} of {len(sources)} sources to check", flush=True)
    good = True
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        for source, clean in zip(changed, pool.map(lambda source: check(source, database, arguments), changed)):
            if clean:
                stamps[source].touch()
            good = good and clean
    for source in set(sources) - set(changed):
        stamps[source].touch()
    return 0 if good else 1


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
