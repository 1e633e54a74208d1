"""How much of its stack each thread of the daemon has ever touched, while all services and jobs run,
hosts are killed and the driver fails now and then. Usage: stack_marks.py SECONDS

The mark of a thread is the resident part of the mapping that its stack pointer lies in. It has
whole pages, and on top of the stack what the C library keeps there for the thread. It is an upper
bound: the library gives the stack of a thread that has ended to a new one and leaves some 20 KiB of
it in place. What a thread touches behind its last sample is missed, so a short-lived kind of thread
is only as good as its many samples. Behind the marks stand the largest single frames of the program,
as objdump shows them."""
import collections
import pathlib
import random
import re
import subprocess
import sys
import threading

import test_chaos
from device import BIN, Device, settled, wait_for
from wire import FRAMEWORK, REQUESTS

NAMED_BY_JOB = re.compile(r"(TLET_Upld_|TLET_ChanPool_).*")
PREFIX = re.compile(r"^([0-9a-f]+)-([0-9a-f]+) ")


def stack_pointers(process):
    """Thread id, name and stack pointer of the threads that wait for the kernel."""
    for task in (process / "task").iterdir():
        try:
            words = (task / "syscall").read_text().split()
            name = (task / "comm").read_text().strip()
        except OSError:
            continue  # it has ended
        if len(words) > 2:  # else it runs
            yield int(task.name), name, int(words[-2], 16)


def mappings(process):
    """First and last address, and resident KiB."""
    found = []
    for line in (process / "smaps").read_text().splitlines():
        if line.startswith("Rss:"):
            found[-1][2] = int(line.split()[1])
        elif match := PREFIX.match(line):
            found.append([int(match[1], 16), int(match[2], 16), 0])
    return found


class Sampler(threading.Thread):
    """By thread id: name, limit and mark in KiB."""

    def __init__(self, pid):
        super().__init__()
        self.process, self.pid = pathlib.Path(f"/proc/{pid}"), pid
        self.over, self.marks, self.rounds = threading.Event(), {}, 0
        self.start()

    def run(self):
        while not self.over.wait(0.002):
            pointers, maps = list(stack_pointers(self.process)), mappings(self.process)
            for thread, name, pointer in pointers:
                for begin, finish, touched in maps:
                    if begin <= pointer < finish:
                        self.take(thread, name, (finish - begin) // 1024, touched)
            self.rounds += 1

    def take(self, thread, name, limit, touched):
        name = "main" if thread == self.pid else NAMED_BY_JOB.sub(r"\1...", name)
        if name == "orla":  # nobody has named it: those of the platform have the system's stacks
            name = "(framework)" if limit < 1024 else "(platform)"
        before = self.marks.get(thread, (name, limit, 0))
        # A stack may have grown together with other memory above it: the least is its own size.
        self.marks[thread] = (name, min(limit, before[1]), max(touched, before[2]))

    def table(self):
        rows = collections.defaultdict(list)
        for name, limit, mark in self.marks.values():
            rows[name].append((mark, limit))
        for name, seen in sorted(rows.items(), key=lambda row: -max(row[1])[0]):
            mark, limit = max(seen)
            yield name, len(seen), mark, limit


def largest_frames(program, count):
    """Bytes and name of the functions that take the largest frames at once."""
    frames, name = {}, ""
    listing = subprocess.run(["objdump", "-dC", "--no-show-raw-insn", program], text=True,
                             stdout=subprocess.PIPE, check=True).stdout
    for line in listing.splitlines():
        if line.endswith(">:"):
            name = line.partition("<")[2][:-2]
        elif match := re.search(r"sub +\$0x([0-9a-f]{3,6}),%rsp", line):
            frames[name] = max(frames.get(name, 0), int(match[1], 16))
    return sorted(((size, name) for name, size in frames.items()), reverse=True)[:count]


def main():
    chance = random.Random(1)
    faults = list(test_chaos.make_faults(chance))
    scenario = test_chaos.make_scenario({})
    with Device({**scenario, "faults": faults}) as device:
        device.start(BIN / "orla-appmon")
        wait_for((device.root / "var/driver/appmon.socket").exists, "application monitor")
        daemon = device.daemon(join=True)
        wait_for(lambda: all(device.listens(n, s) for n in (0, 1) for s in (REQUESTS, FRAMEWORK)),
                 "all services")
        device.start(BIN / "orla-slogd", join=True)
        settled(daemon)
        sampler = Sampler(daemon.pid)
        try:
            test_chaos.Hosts(device, chance, scenario).run(chance, float(sys.argv[1]))
        finally:
            sampler.over.set()
            sampler.join()
    print(f"{sampler.rounds} samples\n| Thread | Seen | Mark, KiB | Stack, KiB |\n|---|---|---|---|")
    for row in sampler.table():
        print("| {} | {} | {} | {} |".format(*row))
    print("largest frames, bytes:")
    for size, name in largest_frames(BIN / "orla", 12):
        print(f"{size:8}  {name[:110]}")


main()
