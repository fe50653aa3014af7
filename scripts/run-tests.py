#!/usr/bin/env python3
"""Runs the tests of a build as ctest would, but many of one program in one process.

    scripts/run-tests.py PRESET REPORT [--patient]

Where a process starts slowly, as under a sanitizer, under Wine and emulated, this takes a fraction of the time. Each
test is reported by itself: REPORT gets a line "passed|failed|skipped <tab> name <tab> reason" for each. One that did
not pass is run again by itself with --patient, and that decides; without, only one that a crash before it kept from
running. Tests labelled "own-process", and those that are judged by their output, are always by themselves. The exit
code is 0 when no test failed and there was one.
"""
import concurrent.futures
import json
import os
import re
import select
import signal
import subprocess
import sys
import threading
import time
from collections import defaultdict

TESTS_IN_A_PROCESS = 24
PROCESSES_PER_CORE = 2  # Tests wait more than they work.
PROCESSES_PER_CORE_PATIENTLY = 6  # Ends of the module's monitor are waited for.
RESULT = re.compile(r"\[ +(RUN|OK|FAILED|SKIPPED) +\] ([^\s,(]+)(.*\(\d+ ms\))?$")
FILTER = "--gtest_filter="


def told_in(run, patterns):
    output = "\n".join(run.output)
    return any(re.search(pattern, output, re.DOTALL) for pattern in patterns or [])


class Test:
    def __init__(self, entry):
        self.name = entry["name"]
        self.command = entry.get("command", [])
        properties = {p["name"]: p["value"] for p in entry.get("properties", [])}
        self.timeout = properties.get("TIMEOUT", 1500)
        self.environment = tuple(properties.get("ENVIRONMENT", []))
        self.folder = properties.get("WORKING_DIRECTORY")
        self.says = properties.get("PASS_REGULAR_EXPRESSION")
        self.never_says = properties.get("FAIL_REGULAR_EXPRESSION")
        self.locks = tuple(sorted(properties.get("RESOURCE_LOCK", [])))
        self.waits_for = properties.get("DEPENDS", [])
        self.filter = next((a[len(FILTER):] for a in self.command if a.startswith(FILTER)), None)
        self.skips = properties.get("SKIP_REGULAR_EXPRESSION") if self.filter is None else None
        if self.filter and "*" in self.filter:  # Several tests, which are one here.
            self.filter = None
        self.alone = bool(self.filter is None or self.says or self.never_says or
                          "own-process" in properties.get("LABELS", []))

    def program(self):
        """What tests of one process have in common."""
        arguments = tuple(a for a in self.command if not a.startswith(FILTER))
        return arguments, self.timeout, self.environment, self.folder, self.locks

    def refuses(self, run):
        return told_in(run, self.never_says)

    def verdict(self, run):
        """A program that is not GoogleTest's is judged as ctest does: by what it printed, or by its exit code."""
        if self.refuses(run):
            return "failed", "its output"
        if told_in(run, self.skips):
            return "skipped", run.output[-1]
        if self.says and not run.timed_out:
            return ("passed", "") if told_in(run, self.says) else ("failed", "its output")
        return ("failed", run.end()) if run.end() else ("passed", "")


class Run:
    """One process that runs some tests of one program, and what it said of each of them."""

    def __init__(self, tests):
        self.results = {}  # By filter: passed, failed or skipped.
        self.reasons = {}
        self.current = None
        self.output = []
        self.timed_out = False
        first = tests[0]
        command = list(first.command)
        if first.filter is not None:
            names = FILTER + ":".join(test.filter for test in tests)
            command = [names if a.startswith(FILTER) else a for a in command]
        environment = dict(os.environ, **dict(entry.split("=", 1) for entry in first.environment))
        self.process = subprocess.Popen(command, cwd=first.folder, env=environment, stdin=subprocess.DEVNULL,
                                        stdout=subprocess.PIPE, stderr=subprocess.STDOUT, start_new_session=True)
        self.read(first.timeout)

    def read(self, timeout):
        """Reads until the process ends, or one test takes longer than it may."""
        pipe = self.process.stdout.fileno()
        deadline = time.monotonic() + timeout
        rest = b""
        while True:
            ready, _, _ = select.select([pipe], [], [], 0.5)
            if ready:
                data = os.read(pipe, 65536)
                if not data:
                    break
                *lines, rest = (rest + data).split(b"\n")
                for line in lines:
                    if self.take(line.decode(errors="replace").rstrip("\r")):
                        deadline = time.monotonic() + timeout
            elif self.process.poll() is not None:
                break  # What it has started may hold the pipe.
            if time.monotonic() > deadline:
                self.timed_out = True
                os.killpg(self.process.pid, signal.SIGKILL)
                break
        self.take(rest.decode(errors="replace"))
        self.process.wait()
        self.process.stdout.close()

    def take(self, line):
        """One line; true when a test has begun or ended."""
        if self.output and self.output[-1].endswith(": Skipped"):
            self.reasons[self.current] = line
        self.output.append(line)
        match = RESULT.search(line)
        if not match:
            return False
        kind, name = match.group(1), match.group(2)
        if kind == "RUN":
            self.current = name
            return True
        if match.group(3):
            self.results[name] = {"OK": "passed", "FAILED": "failed", "SKIPPED": "skipped"}[kind]
        return bool(match.group(3))

    def end(self):
        if self.timed_out:
            return "timeout"
        return "" if self.process.returncode == 0 else f"exit code {self.process.returncode}"


def environment_of(preset):
    """What the preset adds for its tests."""
    with open("CMakePresets.json", encoding="utf-8") as file:
        presets = json.load(file)["testPresets"]
    return next(entry for entry in presets if entry["name"] == preset).get("environment", {})


class Runner:
    def __init__(self, preset, patient):
        self.patient = patient
        os.environ.update(environment_of(preset))
        listed = subprocess.run(["ctest", "--preset", preset, "--show-only=json-v1"], check=True,
                                stdout=subprocess.PIPE, text=True).stdout
        self.tests = [Test(entry) for entry in json.loads(listed[listed.index("{"):])["tests"]]
        self.locks = defaultdict(threading.Lock)
        for lock in {lock for test in self.tests for lock in test.locks}:
            self.locks[lock] = threading.Lock()
        self.verdicts = {}  # By test, since several may have one name: result and reason.
        self.printing = threading.Lock()

    def waves(self):
        """What others wait for, then these."""
        left = list(self.tests)
        while left:
            names = {test.name for test in left}
            yield [test for test in left if not names.intersection(test.waits_for)]
            left = [test for test in left if names.intersection(test.waits_for)]

    @staticmethod
    def batches(wave):
        """The longest first: what one test at a time has to wait for, whole programs, many tests."""
        programs = defaultdict(list)
        for test in wave:
            if not test.alone:
                programs[test.program()].append(test)
        batches = [[test] for test in wave if test.alone]
        for tests in programs.values():
            batches += [tests[i:i + TESTS_IN_A_PROCESS] for i in range(0, len(tests), TESTS_IN_A_PROCESS)]
        return sorted(batches, key=lambda batch: (not batch[0].locks, batch[0].filter is not None, -len(batch)))

    def run(self, tests):
        for lock in tests[0].locks:
            self.locks[lock].acquire()
        try:
            return Run(tests)
        finally:
            for lock in tests[0].locks:
                self.locks[lock].release()

    def run_batch(self, tests):
        if not tests[0].command:
            self.verdicts[tests[0]] = ("failed", "not built")
            return
        together = self.run(tests)
        for test in tests:
            run = together
            result, reason = self.judge(run, test, len(tests) == 1)
            if result == "failed" and (self.patient or not reason):
                self.tell(test, reason)
                run = self.run([test])
                result, reason = self.judge(run, test, True)
            if result == "failed":
                with self.printing:
                    print(f"FAILED: {test.name} ({reason})", *run.output, sep="\n", flush=True)
            self.verdicts[test] = (result, reason)

    @staticmethod
    def judge(run, test, alone):
        """In a program that ends badly without a test to blame, none has passed."""
        told = run.results.get(test.filter)
        if test.filter is None or test.refuses(run):
            return test.verdict(run)
        blamed = "failed" in run.results.values() or run.current not in run.results
        if told in ("passed", "skipped") and (not run.end() or (blamed and not alone)):
            return told, run.reasons.get(test.filter, "")
        reached = alone or told or run.current == test.filter
        return "failed", (run.end() or "failed") if reached else ""

    def tell(self, test, reason):
        if reason:
            with self.printing:
                print(f"did not pass at once: {test.name} ({reason})", flush=True)


def main(preset, report, *options):
    for number in (signal.SIGINT, signal.SIGQUIT):  # A shell's background jobs ignore them; tests see what they do.
        if signal.getsignal(number) == signal.SIG_IGN:
            signal.signal(number, signal.SIG_DFL)
    runner = Runner(preset, "--patient" in options)
    per_core = PROCESSES_PER_CORE_PATIENTLY if runner.patient else PROCESSES_PER_CORE
    with concurrent.futures.ThreadPoolExecutor(per_core * (os.cpu_count() or 1)) as pool:
        for wave in runner.waves():
            for _ in pool.map(runner.run_batch, runner.batches(wave)):
                pass
    with open(report, "w", encoding="utf-8") as file:
        for test in runner.tests:
            result, reason = runner.verdicts.get(test, ("failed", "did not run"))
            file.write(f"{result}\t{test.name}\t{reason}\n")
    results = [result for result, _ in runner.verdicts.values()]
    return 0 if results and "failed" not in results and len(results) == len(runner.tests) else 1


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
