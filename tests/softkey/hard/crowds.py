"""Many processes at one key: wrong PINs, first signatures, readers beside writers."""
import os
import pathlib
import subprocess
import threading
import time

from world import AGENT, PIN, SERIAL, ReadBack, environment, make_key, require, require_whole, tool, verify


def give_way():
    """A crowd that takes all memory is to be the first to lose it."""
    pathlib.Path("/proc/self/oom_score_adj").write_text("1000", encoding="ascii")


class Crowd:
    """Processes that are ready, and go on together."""

    def __init__(self, folder, argument_lists, serial=SERIAL):
        surroundings = environment(folder)
        self.processes = [
            subprocess.Popen([str(AGENT), mode, serial, *map(str, arguments)], env=surroundings, text=True,
                             stdin=subprocess.PIPE, stdout=subprocess.PIPE, preexec_fn=give_way)
            for mode, *arguments in argument_lists]
        for process in self.processes:
            require(process.stdout.readline() == "ready\n", "a process is not ready")

    def go(self):
        for process in self.processes:
            process.stdin.write("\n")
            process.stdin.flush()

    def results(self):
        """What each has printed, as lines. All are read at once: a pipe that is full stops who fills it."""
        texts = [[] for _ in self.processes]

        def collect(process, lines):
            lines.extend(process.stdout.read().splitlines())
            process.stdin.close()
            process.wait()

        threads = [threading.Thread(target=collect, args=each) for each in zip(self.processes, texts)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        codes = {process.returncode for process in self.processes}
        require(codes == {0}, f"processes ended with {codes}")
        return texts


def guess(folder, serial, count):
    """Statuses and tries left that so many processes get, each with a wrong PIN of its own."""
    crowd = Crowd(folder, [("guess", f"wrong-{number}") for number in range(count)], serial)
    crowd.go()
    return [tuple(map(int, lines[0].split()[1:])) for lines in crowd.results()]


def wrong_pins(folder, material, count):
    """Each costs one try and no more, and with too few of them the key locks at zero."""
    make_key(folder, material, tries=255)
    answers = guess(folder, SERIAL, count)
    require({status for status, _ in answers} == {312}, f"wrong PINs answer {sorted(answers)}")
    expected = list(range(255 - count, 255))
    require(sorted(tries for _, tries in answers) == expected, f"tries left: {sorted(answers)}")
    require(ReadBack(folder).tries == 255 - count, "the file has other tries than were reported")
    require_whole(folder)
    few = count // 2
    make_key(folder, material, tries=few, serial="FEW")
    answers = guess(folder, "FEW", count)
    require(sorted(status for status, _ in answers) == [312] * (few - 1) + [313] * (count - few + 1),
            f"with {few} tries wrong PINs answer {sorted(answers)}")
    locked = ReadBack(folder, PIN, "FEW")
    require(locked.tries == 0 and set(locked.signatures.values()) == {313}, "a key without tries is not locked")
    tool(folder, "unlock", "FEW", "--so-pin-env", "SO_PIN", "--new-pin-env", "PIN")
    require_whole(folder, PIN, "FEW")


def resident(process):
    """Bytes of a process in memory."""
    try:
        return int(pathlib.Path(f"/proc/{process.pid}/statm").read_text().split()[1]) * os.sysconf("SC_PAGE_SIZE")
    except (FileNotFoundError, ProcessLookupError):
        return 0


class Watch(threading.Thread):
    """Counts again and again how many processes have the memory that a derivation takes."""

    def __init__(self, processes, size):
        super().__init__(daemon=True)
        self.processes, self.size, self.peak, self.over = processes, size, 0, threading.Event()

    def run(self):
        while not self.over.wait(0.01):
            self.peak = max(self.peak, sum(resident(process) > self.size for process in self.processes))


def first_signatures(folder, material, count, cost):
    """All at once, with one try: none is refused or finds the PIN locked. Gives the peak of derivations and the
    seconds until the last signature."""
    make_key(folder, material, cost=None if cost == 17 else cost, tries=1)
    crowd = Crowd(folder, [("first", PIN)] * count)
    idle = max(resident(process) for process in crowd.processes)
    watch = Watch(crowd.processes, idle + 2 ** cost * 1024 // 2)
    watch.start()
    begin = time.monotonic()
    crowd.go()
    answers = [lines[0].split() for lines in crowd.results()]
    seconds = time.monotonic() - begin
    watch.over.set()
    watch.join()
    refused = [status for _, status, _ in answers if status != "0"]
    require(not refused, f"{len(refused)} of {count} first signatures were refused: {sorted(set(refused))}")
    require(verify(folder) == 0 and ReadBack(folder).tries == 1, "a try is missing")
    slots = min(os.cpu_count(), 8)
    require(1 <= watch.peak <= slots, f"{watch.peak} derivations at once, where {slots} may be")
    return watch.peak, seconds


def percentile(durations, share):
    return sorted(durations)[min(int(len(durations) * share), len(durations) - 1)] / 1000


def contention(folder, material, limit, seconds, leniency):
    """Two writers and eight readers. Gives rows of kind, calls, and milliseconds of median, 99.9th percentile and the
    longest; then by how many milliseconds the machine made one in a thousand rests of the readers longer. `leniency`
    times that is added to the limit."""
    make_key(folder, material)
    kinds = ["relabel"] * 2 + ["list"] * 4 + ["sign"] * 4
    crowd = Crowd(folder, [(kind, PIN, seconds) for kind in kinds])
    crowd.go()
    durations = {kind: [] for kind in kinds}
    refused, late = 0, 0
    for kind, (first, *rest) in zip(kinds, crowd.results()):
        refused += int(first.split()[1])
        late = max(late, int(first.split()[3]) / 1000)
        durations[kind] += map(int, rest)
    require(refused == 0, f"{refused} calls were refused")
    rows = [(kind, len(times), percentile(times, 0.5), percentile(times, 0.999), max(times) / 1000)
            for kind, times in durations.items()]
    require(all(calls >= 10 * seconds for _, calls, *_ in rows), f"hardly anything happened: {rows}")
    for kind, _, _, high, _ in rows:
        require(kind == "relabel" or high < limit + leniency * late,
                f"the 99.9th percentile of {kind} is {high:.1f} ms, where rests are {late:.1f} ms late: {rows}")
    require_whole(folder)
    return rows, late
