#!/usr/bin/env python3
"""Sums up what llvm-cov exported, for scripts/coverage.sh.

    scripts/coverage.py EXPORT MISSED

Prints lines and branches of each folder of scripts/coverage-floor.txt and of each of its files, and writes the lines
that were not reached to MISSED. The exit code is 1 when a folder is below its floor, or has nothing at all.
"""
import json
import pathlib
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent


def floors():
    for line in (ROOT / "scripts" / "coverage-floor.txt").read_text().splitlines():
        if line and not line.startswith("#"):
            folder, lines, branches = line.split()
            yield folder, float(lines), float(branches)


def share(counts):
    reached, there = counts
    return 100 * reached / there if there else 100.0


def added(total, summary):
    return total[0] + summary["covered"], total[1] + summary["count"]


def missed_lines(segments):
    """Lines that a region without a count begins in, or goes through, and no region with one begins in."""
    missed, reached = set(), set()
    for (line, _, count, counted, _, gap), following in zip(segments, segments[1:]):
        if not counted or gap:
            continue
        if count:
            reached.add(line)
        else:
            missed.update(range(line, max(following[0], line + 1)))
    return sorted(missed - reached)


def main(export, missed_path):
    files = {}
    for file in json.loads(pathlib.Path(export).read_text())["data"][0]["files"]:
        path = pathlib.Path(file["filename"]).resolve()
        if path.is_relative_to(ROOT):
            files[str(path.relative_to(ROOT))] = file
    good = True
    with open(missed_path, "w", encoding="utf-8") as missed:
        for folder, least_lines, least_branches in floors():
            lines, branches = (0, 0), (0, 0)
            for name, file in sorted(files.items()):
                if not name.startswith(folder + "/"):
                    continue
                summary = file["summary"]
                lines, branches = added(lines, summary["lines"]), added(branches, summary["branches"])
                print(f"{summary['lines']['percent']:6.1f} {summary['branches']['percent']:6.1f}  {name}")
                source = (ROOT / name).read_text().splitlines()
                for number in missed_lines(file["segments"]):
                    missed.write(f"{name}:{number}: {source[number - 1].strip()}\n")
            print(f"{share(lines):6.1f} {share(branches):6.1f}  {folder}: {lines[0]} of {lines[1]} lines, "
                  f"{branches[0]} of {branches[1]} branches")
            if lines[1] == 0 or share(lines) < least_lines or share(branches) < least_branches:
                print(f"{folder} is below its floor: {least_lines} % of the lines, {least_branches} % of the branches")
                good = False
    return 0 if good else 1


if __name__ == "__main__":
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    sys.exit(main(*sys.argv[1:]))
