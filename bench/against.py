#!/usr/bin/env python3
"""Holds the software key of this tree against that of an earlier commit.

    bench/against.py COMMIT [ROUNDS]

Builds the libraries of both, the earlier one in a folder below build/, and runs one benchmark program with the one and
the other in turn, ROUNDS times (5). It prints the microseconds of a call through each library, and the same as a part
of what OpenSSL alone takes in that run, which says less of the machine: medians of all rounds, each with the least and
the greatest. Five rounds take some two minutes, and mean little on a machine that does other things as well.
"""
import json
import os
import pathlib
import shutil
import statistics
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
ROWS = "Overhead"


def run(*command, **more):
    done = subprocess.run([str(part) for part in command], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False,
                          **more)
    if done.returncode != 0:
        sys.exit(f"{' '.join(map(str, command))}:\n{done.stdout.decode(errors='replace')}")
    return done.stdout


def build(sources, option, *targets):
    """Builds as everything else is built; gives the folder."""
    run("cmake", "--preset", "release", "-D", option, cwd=sources)
    run("cmake", "--build", "--preset", "release", "--target", "softkey", "velkor-softkey", *targets, cwd=sources)
    return sources / "build/release"


def sources_of(commit):
    sources = ROOT / "build/against" / commit
    if not sources.exists():
        sources.mkdir(parents=True)
        archive = subprocess.run(["git", "archive", commit], cwd=ROOT, check=True, stdout=subprocess.PIPE).stdout
        subprocess.run(["tar", "-x", "-C", str(sources)], check=True, input=archive)
    return sources


def make_key(built, home):
    shutil.rmtree(home, ignore_errors=True)
    home.mkdir(mode=0o700, parents=True)
    surroundings = {**os.environ, "VELKOR_SOFTKEY_HOME": str(home), "PIN": "123456", "SO_PIN": "87654321"}
    run(built / "bin/velkor-softkey", "create", "--serial", "BENCH1", "--pin-env", "PIN", "--so-pin-env", "SO_PIN",
        env=surroundings)


def measure(built, home):
    """One run with one library: its rows, each with the microseconds of OpenSSL alone and of the library."""
    make_key(built, home)
    report = home.parent / "report.json"
    run(ROOT / "build/release/bin/softkey_bench", f"--benchmark_filter={ROWS}", "--benchmark_min_time=1",
        f"--benchmark_out={report}", "--benchmark_out_format=json",
        env={**os.environ, "SOFTKEY_BENCH_HOME": str(home), "LD_LIBRARY_PATH": str(built / "softkey")})
    rows = json.loads(report.read_text(encoding="utf-8"))["benchmarks"]
    failed = [row["name"] for row in rows if row.get("error_occurred")]
    if failed or not rows:
        sys.exit(f"{built}: no figures of {', '.join(failed) or 'anything'}")
    return {row["name"].removesuffix(ROWS): (row["direct_us"], row["library_us"]) for row in rows}


def show(values, form):
    return f"{form % statistics.median(values)} ({form % min(values)} to {form % max(values)})"


def print_rows(name, before, now):
    for what, form, of in (("us", "%.1f", lambda one: one[1]), ("of OpenSSL's", "%.3f", lambda one: one[1] / one[0])):
        old, new = [of(one) for one in before], [of(one) for one in now]
        change = 100 * (statistics.median(new) / statistics.median(old) - 1)
        print(f"{name:22} {what:13} {show(old, form):30} {show(new, form):30} {change:+.1f} %")
        name = ""


def main():
    if len(sys.argv) not in (2, 3) or sys.argv[1].startswith("-"):
        sys.exit(__doc__.strip())
    commit = run("git", "rev-parse", "--short", f"{sys.argv[1]}^{{commit}}", cwd=ROOT).decode().strip()
    rounds = int(sys.argv[2]) if len(sys.argv) == 3 else 5
    builds = {commit: build(sources_of(commit), "VELKOR_BUILD_TESTS=OFF"),
              "here": build(ROOT, "VELKOR_BUILD_BENCHMARKS=ON", "softkey_bench")}
    runs = {name: [] for name in builds}
    for number in range(rounds):
        # Who comes first changes, so that neither always finds the warmer machine.
        for name in sorted(builds, reverse=number % 2 == 1):
            runs[name].append(measure(builds[name], ROOT / "build/against/keys" / name))
    print(f"{'':36} {commit:30} {'here':30} change")
    for row in runs["here"][0]:
        print_rows(row, [each[row] for each in runs[commit]], [each[row] for each in runs["here"]])


if __name__ == "__main__":
    main()
