#!/usr/bin/env python3
"""Tests of scripts/run-tests.py, over a build whose programs are made up. They are run together, once."""
import json
import pathlib
import subprocess
import sys
import tempfile
import unittest

RUN_TESTS = pathlib.Path(__file__).resolve().parents[2] / "scripts" / "run-tests.py"

# A program of GoogleTest's, as far as it shows: what a test does is the last word of its name. Each process leaves a
# line with its tests.
PROGRAM = '''
import os, sys, time
names = next(a for a in sys.argv if a.startswith("--gtest_filter=")).split("=")[1].split(":")
with open("processes", "a") as file:
    file.write(":".join(names) + "\\n")
status = 0
for name in names:
    does = name.split("_")[-1]
    print(f"[ RUN      ] {name}", flush=True)
    if does == "crashes":
        os.abort()
    if does == "hangs":
        time.sleep(60)
    if does == "skips":
        print("source.cpp:7: Skipped\\nnot on this machine")
    if does == "fails" or does == "dislikesCompany" and len(names) > 1:
        status = 1
        print("source.cpp:8: Failure")
        print(f"[  FAILED  ] {name} (0 ms)")
    else:
        print(f"[  SKIPPED ] {name} (0 ms)" if does == "skips" else f"[       OK ] {name} (0 ms)", flush=True)
    if does == "spoilsTheEnd":
        status = 3
sys.exit(status)
'''


class FakeBuild:
    """A source folder with a preset, whose tests ctest knows from one file."""

    def __init__(self, folder):
        self.folder = pathlib.Path(folder)
        (self.folder / "build").mkdir()
        (self.folder / "program.py").write_text(PROGRAM, encoding="utf-8")
        presets = {"version": 6, "configurePresets": [{"name": "fake", "binaryDir": "${sourceDir}/build"}],
                   "testPresets": [{"name": "fake", "configurePreset": "fake", "environment": {"OF_THE_PRESET": "yes"}}]}
        (self.folder / "CMakePresets.json").write_text(json.dumps(presets), encoding="utf-8")
        self.lines = []

    def add(self, name, *command, **properties):
        words = " ".join(f"[==[{word}]==]" for word in command)
        self.lines.append(f"add_test([==[{name}]==] {words})")
        properties["WORKING_DIRECTORY"] = self.folder
        for key, value in properties.items():
            self.lines.append(f"set_tests_properties([==[{name}]==] PROPERTIES {key} [==[{value}]==])")

    def add_tests(self, suite, *names, **properties):
        """Of one program: they may share a process. An argument of its own makes each suite's program another one."""
        for name in names:
            self.add(f"{suite}.{name}", sys.executable, "program.py", suite, f"--gtest_filter={suite}.{name}", **properties)

    def run(self, *options):
        (self.folder / "build" / "CTestTestfile.cmake").write_text("\n".join(self.lines), encoding="utf-8")
        run = subprocess.run([sys.executable, "-B", RUN_TESTS, "fake", "report", *options], cwd=self.folder, text=True,
                             stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False)
        report = [line.split("\t") for line in (self.folder / "report").read_text(encoding="utf-8").splitlines()]
        return run, {name: (result, reason) for result, name, reason in report}

    def processes(self):
        """The tests of each process, without their suite."""
        lines = (self.folder / "processes").read_text(encoding="utf-8").splitlines()
        return [[name.split(".")[1] for name in line.split(":")] for line in lines]


def new_build(case):
    kept = tempfile.TemporaryDirectory()
    case.addClassCleanup(kept.cleanup)
    return FakeBuild(kept.name)


class VerdictsTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        build = new_build(cls)
        build.add_tests("Failing", "first", "second_fails", "third", "fourth_skips")
        build.add_tests("Crashing", "a", "b_crashes", "c", "d")
        build.add_tests("Hanging", "e", "f_hangs", "g", TIMEOUT=2)  # A test that is waited for in vain.
        build.add_tests("Spoilt", "h", "i_spoilsTheEnd")
        build.add_tests("Alone", "j", "k", LABELS="own-process")
        build.add("Said.right", "echo", "all is well", PASS_REGULAR_EXPRESSION="is well")
        build.add("Said.wrong", "echo", "all is well", PASS_REGULAR_EXPRESSION="is not")
        build.add("Said.bad", "echo", "Unable", FAIL_REGULAR_EXPRESSION="Unable|line ")
        build.add("Said.skipped", "echo", "no such thing here", SKIP_REGULAR_EXPRESSION="no such")
        build.add("Ended.badly", "false")
        build.add("Preset.isHeard", "sh", "-c", "test \"$OF_THE_PRESET\" = yes")
        build.add("Never.built", "./there-is-no-such-program")
        cls.run_, cls.report = build.run()
        cls.processes = build.processes()

    def test_a_failure_among_others_is_told_by_its_name(self):
        self.assertEqual(self.report["Failing.second_fails"][0], "failed")
        self.assertIn("FAILED: Failing.second_fails (", self.run_.stdout)
        self.assertIn("source.cpp:8: Failure", self.run_.stdout)
        self.assertEqual(self.report["Failing.first"], ("passed", ""))
        self.assertEqual(self.report["Failing.third"], ("passed", ""))

    def test_a_skipped_test_has_its_reason(self):
        self.assertEqual(self.report["Failing.fourth_skips"], ("skipped", "not on this machine"))

    def test_a_crash_is_its_tests_and_the_rest_is_run(self):
        self.assertEqual(self.report["Crashing.b_crashes"], ("failed", "exit code -6"))
        for name in ("a", "c", "d"):
            self.assertEqual(self.report[f"Crashing.{name}"], ("passed", ""))
        self.assertIn(["c"], self.processes)
        self.assertIn(["d"], self.processes)
        self.assertNotIn(["b_crashes"], self.processes)  # It was at it: once is enough.

    def test_a_test_that_takes_too_long_is_ended_and_the_rest_is_run(self):
        self.assertEqual(self.report["Hanging.f_hangs"], ("failed", "timeout"))
        self.assertEqual(self.report["Hanging.e"], ("passed", ""))
        self.assertEqual(self.report["Hanging.g"], ("passed", ""))

    def test_a_program_that_ends_badly_without_a_test_to_blame_has_passed_none(self):
        self.assertEqual(self.report["Spoilt.h"], ("failed", "exit code 3"))
        self.assertEqual(self.report["Spoilt.i_spoilsTheEnd"], ("failed", "exit code 3"))

    def test_tests_of_one_program_share_a_process_unless_they_want_their_own(self):
        self.assertIn(["first", "second_fails", "third", "fourth_skips"], self.processes)
        self.assertIn(["j"], self.processes)
        self.assertIn(["k"], self.processes)

    def test_a_program_is_judged_as_ctest_does(self):
        self.assertEqual(self.report["Said.right"], ("passed", ""))
        self.assertEqual(self.report["Said.wrong"], ("failed", "its output"))
        self.assertEqual(self.report["Said.bad"], ("failed", "its output"))
        self.assertEqual(self.report["Said.skipped"][0], "skipped")
        self.assertEqual(self.report["Ended.badly"], ("failed", "exit code 1"))
        self.assertEqual(self.report["Preset.isHeard"], ("passed", ""))
        self.assertEqual(self.report["Never.built"], ("failed", "not built"))

    def test_each_test_is_reported_and_the_run_has_failed(self):
        self.assertEqual(len(self.report), 22)
        self.assertEqual(self.run_.returncode, 1)


class ExitCodeTest(unittest.TestCase):
    def test_it_is_0_where_none_failed(self):
        build = new_build(type(self))
        build.add_tests("Good", "one", "two_skips")
        run, report = build.run()
        self.assertEqual((run.returncode, run.stdout), (0, ""))
        self.assertEqual(report["Good.one"], ("passed", ""))

    def test_it_is_1_where_there_was_none(self):
        self.assertEqual(new_build(type(self)).run()[0].returncode, 1)


class PatienceTest(unittest.TestCase):
    def run_with(self, *options):
        build = new_build(type(self))
        build.add_tests("Shy", "one", "two_dislikesCompany", "three_fails")
        run, report = build.run(*options)
        return run, report, build.processes()

    def test_without_it_the_first_run_decides(self):
        _, report, processes = self.run_with()
        self.assertEqual(report["Shy.two_dislikesCompany"][0], "failed")
        self.assertEqual(len(processes), 1)

    def test_with_it_what_failed_is_run_by_itself_and_that_decides(self):
        run, report, processes = self.run_with("--patient")
        self.assertEqual(report["Shy.two_dislikesCompany"], ("passed", ""))
        self.assertIn("did not pass at once: Shy.two_dislikesCompany (", run.stdout)
        self.assertEqual(report["Shy.three_fails"][0], "failed")
        self.assertEqual(run.returncode, 1)
        self.assertEqual(processes[1:], [["two_dislikesCompany"], ["three_fails"]])


if __name__ == "__main__":
    unittest.main()
