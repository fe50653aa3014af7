#!/usr/bin/env python3
"""Makes small changes of the sources, one at a time, and looks whether a test notices.

    scripts/mutate.sh [--count 300] [--seed 1] [--minutes N] [--list] [PATH...]

The changes are those of scripts/mutations.txt, drawn with the seed from src/, strict/ and softkey/, or from what lies
at the paths. They are made in a copy of the tree below build/mutants, whose build folders keep their objects. Each is
built, and the test programs that scripts/mutation-tests.txt names for its file run until one fails. What does not
compile, or compiles to the same object, is replaced by another. Verdicts go to build/mutants/report.txt as they come;
survivors that scripts/mutations-equivalent.txt explains are told apart. The exit code is 0 when 97 % of the others were
caught.
"""
import argparse
import hashlib
import json
import os
import pathlib
import random
import re
import shlex
import shutil
import subprocess
import sys
import time
from collections import Counter, defaultdict, namedtuple

ROOT = pathlib.Path(__file__).resolve().parent.parent
WORK = ROOT / "build" / "mutants"
TREE = WORK / "tree"
WANTED = 0.97
HANG_FACTOR, HANG_SECONDS = 4, 20
MODEL_STEPS = "4000"
STILLBORN_LIMIT = 4  # So many draws for each wanted mutant.
OPTIONS = ["-D", "CMAKE_BUILD_TYPE=Release", "-D", "CMAKE_CXX_FLAGS_RELEASE=-O1",
           "-D", "VELKOR_BUILD_TRACE=OFF", "-D", "VELKOR_PRECOMPILED_HEADERS=ON"]
# A lock that is missing shows where races are looked for.
BUILDS = {"build": [], "build-thread": ["-D", "VELKOR_SANITIZE=thread"]}
BUILD_OF = {"lock-removed": "build-thread"}

Operator = namedtuple("Operator", "name kind pattern replacement")
Mutant = namedtuple("Mutant", "path operator start end text")

LITERAL = r'"(?:[^"\\\n]|\\.)*"'
HIDDEN = re.compile(rf"//[^\n]*|/\*.*?\*/|^[ \t]*#[^\n]*|^[ \t]*static_assert[^;]*;|{LITERAL}"
                    r"|(?<!\w)'(?:[^'\\\n]|\\.)+'", re.DOTALL | re.MULTILINE)
REFUSAL = re.compile(r"^(?P<indent> +)if \([^\n]*(?:\n(?P=indent)  [^\n]*)*?"
                     r"\n(?P=indent)    return refuse\([^;]*\);\n", re.MULTILINE)


def blank(match):
    """As long as what it hides, line for line."""
    return re.sub(r"[^\n]", " ", match.group())


def rows(name):
    for line in (ROOT / "scripts" / name).read_text().splitlines():
        if line and not line.startswith("#"):
            yield line.split("\t")


def operators():
    found = []
    for name, kind, *rest in rows("mutations.txt"):
        pattern, replacement = rest if rest else ("", "")
        found.append(Operator(name, kind, re.compile(pattern, re.MULTILINE), replacement))
    return found


def literals_of(source):
    """The insides of the literals of code: those of comments and directives are not among them."""
    for match in HIDDEN.finditer(source):
        if match.group().startswith('"'):
            yield match.start() + 1, match.end() - 1


def swaps(path, operator, source):
    found = [(m.start(), m.end()) for m in REFUSAL.finditer(source)]
    for (first, end), (second, last) in zip(found, found[1:]):
        if end == second:
            yield Mutant(path, operator.name, first, last, source[second:last] + source[first:end])


def mutants_of(path, all_operators):
    source = (ROOT / path).read_text()
    code = HIDDEN.sub(blank, source)
    for operator in all_operators:
        if operator.kind == "swap":
            yield from swaps(path, operator, source)
        elif operator.kind == "literal":
            for begin, end in literals_of(source):
                match = operator.pattern.search(source, begin, end)
                if match:
                    yield Mutant(path, operator.name, match.start(), match.end(), operator.replacement)
        else:
            for match in operator.pattern.finditer(code):
                # What the pattern keeps is taken from the source: the code lacks its literals.
                kept = re.sub(r"\\1", lambda _: source[match.start(1):match.end(1)], operator.replacement)
                yield Mutant(path, operator.name, match.start(), match.end(), kept)


def sources(paths):
    listed = subprocess.run(["git", "ls-files", "--", *paths], cwd=ROOT, check=True, stdout=subprocess.PIPE, text=True)
    return [path for path in listed.stdout.split()
            if path.endswith((".cpp", ".h")) and not path.endswith(("_windows.cpp", "_windows.h"))]


def draw(paths, seed):
    """Every mutant there is, in an order of chance in which each operator comes as often as the others."""
    by_operator = defaultdict(list)
    for path in sources(paths):
        for mutant in mutants_of(path, operators()):
            by_operator[mutant.operator].append(mutant)
    chance = random.Random(seed)
    for name in sorted(by_operator):
        chance.shuffle(by_operator[name])
    drawn = []
    while by_operator:
        name = chance.choice(sorted(by_operator))
        drawn.append(by_operator[name].pop())
        if not by_operator[name]:
            del by_operator[name]
    return drawn


def folder_of(mutant):
    return WORK / BUILD_OF.get(mutant.operator, "build")


def programs_of(mutant):
    for operator, prefix, programs in rows("mutation-tests.txt"):
        if operator in ("*", mutant.operator) and mutant.path.startswith(prefix):
            return programs.split()
    raise SystemExit(f"mutate: scripts/mutation-tests.txt has no line for {mutant.operator} in {mutant.path}")


def run(command, seconds=None, **options):
    """The exit code; None when it took too long."""
    try:
        return subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                              timeout=seconds, check=False, **options).returncode
    except subprocess.TimeoutExpired:
        return None


def copy_tree():
    """What has not changed keeps its time, so that it is not compiled again."""
    listed = subprocess.run(["git", "ls-files", "-z"], cwd=ROOT, check=True, stdout=subprocess.PIPE, text=True).stdout
    names = set(filter(None, listed.split("\0")))
    for name in names:
        source, target = ROOT / name, TREE / name
        if not source.exists():
            continue
        if not target.exists() or target.read_bytes() != source.read_bytes():
            target.parent.mkdir(parents=True, exist_ok=True)
            shutil.copy(source, target)
    for target in TREE.rglob("*"):
        if target.is_file() and str(target.relative_to(TREE)) not in names:
            target.unlink()


def build(folder, programs):
    return run(["cmake", "--build", folder, "--", "-j", str(os.cpu_count() or 1), *programs]) == 0


def test(build_folder, program, seconds=None):
    """Whether the program's tests pass."""
    folder = WORK / "run"
    shutil.rmtree(folder, ignore_errors=True)
    folder.mkdir()
    models = "model_test" in program
    command = [build_folder / "bin" / program, *(["--steps", MODEL_STEPS] if models else ["--gtest_fail_fast"])]
    environment = dict(os.environ, TMPDIR=str(folder))
    for name in ("VELKOR_CONFIG", "VELKOR_HOME", "XDG_RUNTIME_DIR"):
        environment.pop(name, None)
    return run(command, seconds, cwd=folder, env=environment) == 0


def objects_of(path, folder):
    """What a source is compiled to, in every layout; empty for a header, which is in many."""
    entries = json.loads((folder / "compile_commands.json").read_text())
    found = []
    for entry in entries:
        if os.path.realpath(entry["file"]) == os.path.realpath(TREE / path):
            arguments = shlex.split(entry["command"])
            found.append(folder / arguments[arguments.index("-o") + 1])
    return found


def digest(files):
    return [hashlib.sha256(file.read_bytes()).hexdigest() for file in files if file.exists()]


def prepare(drawn):
    """The copy, built and good. Gives how long each program of each build folder may take."""
    TREE.mkdir(parents=True, exist_ok=True)
    copy_tree()
    programs = defaultdict(set)
    for mutant in drawn:
        programs[folder_of(mutant)].update(programs_of(mutant))
    seconds = {}
    for folder, names in programs.items():
        options = OPTIONS + BUILDS[folder.name]
        if run(["cmake", "-S", TREE, "-B", folder, "-G", "Ninja", *options]) != 0 or not build(folder, sorted(names)):
            raise SystemExit(f"mutate: {TREE} cannot be built in {folder}")
        for name in sorted(names):
            start = time.monotonic()
            if not test(folder, name):
                raise SystemExit(f"mutate: {name} fails without a change in {folder}")
            seconds[folder, name] = HANG_SECONDS + HANG_FACTOR * (time.monotonic() - start)
    return seconds


def judge(mutant, seconds):
    """caught, survived, stillborn or same; and by which program."""
    file, folder, programs = TREE / mutant.path, folder_of(mutant), programs_of(mutant)
    original = file.read_text()
    objects = objects_of(mutant.path, folder)
    before = digest(objects)
    file.write_text(original[:mutant.start] + mutant.text + original[mutant.end:])
    try:
        if not build(folder, programs):
            return "stillborn", ""
        if objects and digest(objects) == before:
            return "same", ""
        for program in programs:
            if not test(folder, program, seconds[folder, program]):
                return "caught", program
        return "survived", ""
    finally:
        file.write_text(original)
        if not build(folder, programs):
            raise SystemExit(f"mutate: {mutant.path} does not build any more after {mutant}")


def lines_of(mutant):
    source = (ROOT / mutant.path).read_text()
    number = source.count("\n", 0, mutant.start) + 1
    begin = source.rfind("\n", 0, mutant.start) + 1
    end = source.find("\n", mutant.end - 1)
    before = source[begin:end].strip()
    after = (source[begin:mutant.start] + mutant.text + source[mutant.end:max(end, mutant.end)]).strip()
    return number, before, after


def is_explained(mutant):
    _, before, _ = lines_of(mutant)
    first = before.split("\n")[0]
    return any(row[:3] == [mutant.path, mutant.operator, first] for row in rows("mutations-equivalent.txt"))


def tell(report, verdict, program, mutant):
    number, before, after = lines_of(mutant)
    text = f"{verdict}\t{mutant.path}:{number}\t{mutant.operator}\t{program}\t{before!r}\t{after!r}"
    report.write(text + "\n")
    report.flush()
    if verdict == "survived":
        print(f"survived: {mutant.path}:{number} ({mutant.operator})\n  - {before}\n  + {after}", flush=True)


def main():
    parser = argparse.ArgumentParser(prog="scripts/mutate.sh", description=__doc__.split("\n")[0])
    parser.add_argument("--count", type=int, default=300, help="mutants that compile to something else")
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--minutes", type=float, default=float("inf"), help="begin no other mutant after these")
    parser.add_argument("--list", action="store_true", help="only print what would be changed")
    parser.add_argument("paths", nargs="*", default=["src", "strict", "softkey"])
    wanted = parser.parse_args()
    drawn = draw(wanted.paths, wanted.seed)[:STILLBORN_LIMIT * wanted.count]
    if wanted.list:
        for mutant in drawn[:wanted.count]:
            number, before, after = lines_of(mutant)
            print(f"{mutant.path}:{number} ({mutant.operator})\n  - {before}\n  + {after}")
        return 0
    seconds = prepare(drawn)
    verdicts = Counter()
    end = time.monotonic() + 60 * wanted.minutes
    with open(WORK / "report.txt", "w", encoding="utf-8") as report:
        for mutant in drawn:
            made = verdicts["caught"] + verdicts["survived"] + verdicts["explained"]
            if made >= wanted.count or time.monotonic() > end:
                break
            verdict, program = judge(mutant, seconds)
            if verdict == "survived" and is_explained(mutant):
                verdict = "explained"
            verdicts[verdict] += 1
            tell(report, verdict, program, mutant)
    judged = verdicts["caught"] + verdicts["survived"]
    share = verdicts["caught"] / judged if judged else 0
    print(f"seed {wanted.seed}: {judged + verdicts['explained']} mutants, {verdicts['caught']} caught, "
          f"{verdicts['survived']} survived, {verdicts['explained']} explained; {verdicts['same']} compiled to the "
          f"same, {verdicts['stillborn']} did not compile; {100 * share:.1f} % caught")
    return 0 if share >= WANTED else 1


if __name__ == "__main__":
    sys.exit(main())
