#!/usr/bin/env python3
"""What the strict front costs over the module, each figure beside the bound that it is to keep.

    strict_figures.py STRICT_BENCH MODULE STRICT_FRONT

Ends with 1 when a figure is beyond its bound. Only a quiet machine with two processors says anything.
"""
import json
import subprocess
import sys

REPETITIONS = 5
US = {"ns": 1e-3, "us": 1.0, "ms": 1e3}


def measure(bench, library):
    """The best of the repetitions of each benchmark: noise only ever adds to a time."""
    command = [bench, "--benchmark_format=json", f"--benchmark_repetitions={REPETITIONS}",
               "--benchmark_min_time=0.2", library]
    runs = json.loads(subprocess.run(command, check=True, capture_output=True, text=True).stdout)["benchmarks"]
    best = {}
    for run in runs:
        if run.get("run_type") != "iteration":
            continue
        run["us"] = run["real_time"] * US[run["time_unit"]]
        if run["run_name"] not in best or run["us"] < best[run["run_name"]]["us"]:
            best[run["run_name"]] = run
    return best


def figures(module, strict):
    """Lines of text, value, bound, and whether the bound is the highest or the lowest that is good."""
    def of(runs, name):
        return runs[name]["us"]

    def added(name):
        return of(strict, name) - of(module, name)

    def gain(runs):
        return (runs["SignInThreads/real_time/threads:2"]["items_per_second"]
                / runs["SignInThreads/real_time/threads:1"]["items_per_second"])

    first = strict["SearchByClassAndKeyTypeAmongMany"]
    yield "added to a signature with the key used last, us", added("SignWithTheKeyUsedLast"), 5, "at most"
    yield ("added to a signature with another key, beyond one look-up, us",
           added("SignWithTwoKeysInTurn") - of(module, "LookAtOneKey"), 5, "at most")
    yield "signatures of two threads over those of one", gain(strict), 1.8, "at least"
    yield ("a search for an ID among 2000 pairs, times the module's",
           of(strict, "SearchByIdAmongMany") / of(module, "SearchByIdAmongMany"), 2, "at most")
    yield "the first search by class and key type among 2000 pairs, ms", first["first_ms"], 50, "at most"
    yield "its looks at the device's list, for each pair", first["first_looks"] / 2000, 1.01, "at most"
    yield "a later one, ms", first["us"] / 1e3, 50, "at most"


def main():
    bench, module_file, strict_file = sys.argv[1:]
    module, strict = measure(bench, module_file), measure(bench, strict_file)
    print(f"{'best of ' + str(REPETITIONS) + ', us':45}{'module':>10}{'strict':>10}")
    for name in module:
        print(f"{name:45}{module[name]['us']:10.1f}{strict[name]['us']:10.1f}")
    print()
    good = True
    for text, value, bound, kind in figures(module, strict):
        is_kept = value <= bound if kind == "at most" else value >= bound
        good = good and is_kept
        print(f"{text:65}{value:9.2f}   {kind} {bound:<5}{'' if is_kept else '  NOT KEPT'}")
    return 0 if good else 1


if __name__ == "__main__":
    sys.exit(main())
