#!/usr/bin/env python3
"""Tests of report.py, over results that are made up."""
import contextlib
import io
import pathlib
import tempfile
import unittest

import report

DEPARTURES = """# Departures
| Behaviour | What is seen |
| --- | --- |
| Labels are cut. | They lose their end. |
| Buffers are not looked at. | They are overrun. |
"""


class ReportTest(unittest.TestCase):
    def setUp(self):
        kept = tempfile.TemporaryDirectory()
        self.addCleanup(kept.cleanup)
        self.folder = pathlib.Path(kept.name)
        self.departures = self.folder / "departures.md"
        self.departures.write_text(DEPARTURES, encoding="utf-8")
        self.limits = self.folder / "limits"
        self.limits.write_text("# Known.\nabc | plain | cuts | Labels are cut.\n", encoding="utf-8")

    def make(self, name, results, ended=True):
        (self.folder / name).mkdir()
        lines = [f"{verdict}\t{check}\n" for check, verdict in results.items()]
        (self.folder / name / "results").write_text("".join(lines), encoding="utf-8")
        if ended:
            (self.folder / name / "ended").touch()

    def judge(self, *names, seconds=60):
        printed = io.StringIO()
        with contextlib.redirect_stdout(printed):
            code = report.main(self.folder, self.limits, self.departures, seconds, *names)
        return code, printed.getvalue()

    def test_a_known_limit_is_shown_with_its_line_and_fails_nothing(self):
        self.make("abc-plain", {"signs": "ok", "cuts": "FAILED"})
        code, text = self.judge("abc-plain")
        self.assertEqual(code, 0)
        self.assertIn("1 of 2  cuts (departures.md:4)\n", text)
        self.assertTrue(text.endswith("1 passed, 0 failed\n"))

    def test_a_known_limit_that_passes_fails_the_run(self):
        self.make("abc-plain", {"signs": "ok", "cuts": "ok"})
        code, text = self.judge("abc-plain")
        self.assertEqual(code, 1)
        self.assertIn("FAILED: abc-plain: cuts: a known limit that passes", text)

    def test_a_failure_that_is_not_known_fails_the_run(self):
        self.make("abc-plain", {"signs": "FAILED", "cuts": "FAILED"})
        self.make("abc-strict", {"signs": "ok", "cuts": "FAILED"})
        code, text = self.judge("abc-plain", "abc-strict")
        self.assertEqual(code, 1)
        self.assertIn("FAILED: abc-plain: signs: failed", text)
        self.assertIn("FAILED: abc-strict: cuts: failed", text)
        self.assertTrue(text.endswith("1 passed, 2 failed\n"))

    def test_a_known_limit_whose_check_is_gone_fails_the_run(self):
        self.make("abc-plain", {"signs": "ok"})
        self.assertEqual(self.judge("abc-plain")[0], 1)

    def test_a_host_that_does_not_end_fails_the_run(self):
        self.make("abc-strict", {"signs": "ok"}, ended=False)
        code, text = self.judge("abc-strict")
        self.assertEqual(code, 1)
        self.assertIn("did not come to its end", text)

    def test_a_host_without_results_fails_the_run(self):
        self.assertEqual(self.judge("abc-strict")[0], 1)

    def test_a_run_that_takes_too_long_fails(self):
        self.make("abc-plain", {"signs": "ok", "cuts": "FAILED"})
        self.assertEqual(self.judge("abc-plain", seconds=900)[0], 0)
        code, text = self.judge("abc-plain", seconds=901)
        self.assertEqual(code, 1)
        self.assertIn("FAILED: the run took 901 s", text)

    def test_a_limit_without_its_row_fails_the_run(self):
        self.limits.write_text("abc | plain | cuts | Labels are gone.\n", encoding="utf-8")
        self.make("abc-plain", {"signs": "ok", "cuts": "FAILED"})
        self.assertEqual(self.judge("abc-plain")[0], 1)


if __name__ == "__main__":
    unittest.main()
