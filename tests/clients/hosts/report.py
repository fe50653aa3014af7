#!/usr/bin/env python3
"""Judges the checks of the hosts by the table of known limits, and prints both.

    report.py FOLDER LIMITS DEPARTURES SECONDS HOST-LIBRARY...

FOLDER/HOST-LIBRARY has the results of each, and a file `ended` when it came to its end in time. A line of LIMITS is
"host | library | check | row": the check is expected to fail, for the reason that is the line of DEPARTURES that begins
with that row. Ends with 0 when every other check passed, and none of those did, within the time that a run may take;
SECONDS is what it took. The last line counts both.
"""
import pathlib
import sys
from dataclasses import dataclass

LONGEST_RUN = 15 * 60  # seconds


@dataclass
class Limit:
    host: str
    library: str
    check: str
    row: str


def read_limits(path):
    lines = [line for line in path.read_text(encoding="utf-8").splitlines() if line and not line.startswith("#")]
    return [Limit(*(part.strip() for part in line.split(" | "))) for line in lines]


def line_of(row, departures):
    """The number of the one line whose table row begins so; None when there is none, or more than one."""
    places = [number for number, line in enumerate(departures.read_text(encoding="utf-8").splitlines(), start=1)
              if line.startswith(f"| {row}")]
    return places[0] if len(places) == 1 else None


def read_results(folder):
    """Whether each check passed, by name."""
    file = folder / "results"
    lines = file.read_text(encoding="utf-8").splitlines() if file.exists() else []
    return {name: verdict == "ok" for verdict, name in (line.split("\t", 1) for line in lines)}


class Report:
    def __init__(self, limits, departures):
        self.limits = limits
        self.departures = departures
        self.rows = [("HOST", "LIBRARY", "PASSED", "KNOWN LIMITS")]
        self.passed = 0
        self.problems = []

    def add(self, name, folder):
        host, library = name.rsplit("-", 1)
        results = read_results(folder)
        limits = {limit.check: limit for limit in self.limits if (limit.host, limit.library) == (host, library)}
        known = []
        for check, passed in results.items():
            if check in limits:
                known.append(f"{check} ({self.departures.name}:{line_of(limits[check].row, self.departures)})")
                if passed:
                    self.problems.append(f"{name}: {check}: a known limit that passes; take it out of the table")
            elif not passed:
                self.problems.append(f"{name}: {check}: failed")
        for check in limits.keys() - results.keys():
            self.problems.append(f"{name}: {check}: a known limit of a check that was not made")
        if not (folder / "ended").exists():
            self.problems.append(f"{name}: did not come to its end in time")
        good = sum(results.values())
        self.passed += good
        self.rows.append((host, library, f"{good} of {len(results)}", known[0] if known else ""))
        self.rows += [("", "", "", each) for each in known[1:]]

    def check_limits(self):
        for limit in self.limits:
            if line_of(limit.row, self.departures) is None:
                self.problems.append(f"known limit of {limit.host}: not one row of {self.departures.name}: {limit.row}")

    def check_time(self, seconds):
        if seconds > LONGEST_RUN:
            self.problems.append(f"the run took {seconds} s, more than {LONGEST_RUN}")

    def print(self):
        widths = [max(len(row[column]) for row in self.rows) for column in range(3)]
        for row in self.rows:
            print("  ".join([cell.ljust(width) for cell, width in zip(row, widths)] + [row[3]]).rstrip())
        for problem in self.problems:
            print(f"FAILED: {problem}")
        print(f"{self.passed} passed, {len(self.problems)} failed")


def main(folder, limits, departures, seconds, *names):
    report = Report(read_limits(pathlib.Path(limits)), pathlib.Path(departures))
    for name in names:
        report.add(name, pathlib.Path(folder) / name)
    report.check_limits()
    report.check_time(int(seconds))
    report.print()
    return 1 if report.problems or not report.passed else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
