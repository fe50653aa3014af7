#!/usr/bin/env python3
"""Measures velkor-trace over a log of 1 GiB: the recorded log of a host, again and again.

    scripts/trace-figures.py [BUILD]      build/release when none is named

Prints what each way of reading takes: megabytes for each second of processor time and of the clock, and the most
memory. The log is made below a temporary folder (TMPDIR), with what is printed thrown away.
"""
import os
import pathlib
import subprocess
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
RECORDED = ROOT / "tests/trace/recorded/pkcs11-tool/2026-11-22.LOG"
SIZE = 1 << 30
WAYS = {"a table": [], "JSON": ["--json"], "refused calls alone": ["--errors"], "a summary": ["summary"]}


def write_log(path):
    part = RECORDED.read_bytes()
    part *= max(1, (1 << 20) // len(part))
    with path.open("wb") as log:
        while log.tell() < SIZE:
            log.write(part)
    return path.stat().st_size


def most_memory(process, before):
    """In KiB, as the system tells it of a running process alone: what is told at its end has that of its parent, too."""
    try:
        status = pathlib.Path(f"/proc/{process}/status").read_text()
    except OSError:
        return before
    return next((int(line.split()[1]) for line in status.splitlines() if line.startswith("VmHWM:")), before)


def measure(tool, arguments, log):
    start = time.monotonic()
    process = subprocess.Popen([tool, *arguments, log], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    ended, memory = 0, 0
    while ended == 0:
        memory = most_memory(process.pid, memory)
        time.sleep(0.02)
        ended, status, usage = os.wait4(process.pid, os.WNOHANG)
    if status != 0:
        sys.exit(f"{tool} failed")
    return usage.ru_utime + usage.ru_stime, time.monotonic() - start, memory / 1024


def main(build="build/release"):
    with tempfile.TemporaryDirectory() as folder:
        log = pathlib.Path(folder) / "2026-11-22.LOG"
        size = write_log(log)
        print(f"{size / 1e6:.0f} MB    MB/s of processor time    MB/s    MiB of memory")
        for name, arguments in WAYS.items():
            processor, clock, memory = measure(ROOT / build / "bin/velkor-trace", arguments, log)
            print(f"{name:20} {size / 1e6 / processor:12.0f} {size / 1e6 / clock:17.0f} {memory:13.1f}", flush=True)


main(*sys.argv[1:])
