"""Jobs, pulls and log requests in a loop, for as long as asked for, while the daemon's memory, threads
and descriptors are watched. Fails when its memory at the end is more than 5 % above that of the
plateau, or anything else did not come back. Usage: soak.py SECONDS"""
import statistics
import sys
import tempfile
import threading
import time

from device import BIN, Device, end, resident, settled, wait_for

SCENARIO = {"devices": [{"logical": 0, "physical": 0}, {"logical": 1, "physical": 1}]}
ROUNDS = {  # what one host does again and again
    "job": ["profile", "--duration", "2", "--cpu-events", "0x11", "--device", "0"],
    "other job": ["profile", "--duration", "0.5", "--mode", "system-wide", "--device", "1"],
    "pull": ["pull", "slog", "bbox", "--device", "1"],
    "log": ["log", "get", "CORE"],
}
# Of two jobs one has the samplers: the other is refused, or misses them.
MAY_FAIL = {"job": {0, 3, 5}, "other job": {0, 3, 5}}


def host(device, name, until, counts):
    while time.monotonic() < until:
        with tempfile.TemporaryDirectory() as output:
            arguments = ROUNDS[name] + (["-o", output] if name != "log" else [])
            result = device.orlactl(*arguments)
        if result.returncode not in MAY_FAIL.get(name, {0}):
            raise AssertionError(f"{name}: {result.returncode} {result.stdout}{result.stderr}")
        counts[name] += 1


def main():
    seconds = float(sys.argv[1])
    errors = []
    threading.excepthook = lambda failure: errors.append(failure.exc_value)
    with Device(SCENARIO) as device:
        device.environment["ORLA_LOG_LEVEL"] = "error"
        daemon = device.start(BIN / "orla")
        wait_for(lambda: device.listens(0) and device.listens(1), "daemon")
        device.start(BIN / "orla-slogd", join=True)
        for i in range(20):
            (device.root / f"var/log/npu/slog/file{i}").write_bytes(bytes(100000 * i))
        at_rest = settled(daemon)
        counts = dict.fromkeys(ROUNDS, 0)
        until = time.monotonic() + seconds
        hosts = [threading.Thread(target=host, args=(device, name, until, counts)) for name in ROUNDS]
        for thread in hosts:
            thread.start()
        memory = []
        while any(thread.is_alive() for thread in hosts):
            memory.append(resident(daemon))
            time.sleep(0.5)
        fifth = max(1, len(memory) // 5)
        plateau, tail = (statistics.median(part) for part in (memory[fifth:2 * fifth], memory[-fifth:]))
        print(f"{seconds:.0f} s: " + ", ".join(f"{count} x {name}" for name, count in counts.items()))
        print(f"resident {plateau:.0f} kB at the plateau, {tail:.0f} kB in the tail; "
              f"threads and descriptors {at_rest} before, {settled(daemon)} after")
        assert not errors, errors
        assert tail <= plateau * 1.05, "memory grows"
        assert settled(daemon)[0] <= at_rest[0], "threads are left"
        assert settled(daemon)[1] <= at_rest[1] + 2, "descriptors are left"
        assert not list((device.root / "var/log/npu/profiling").iterdir()), "directories are left"
        assert end(daemon)[0] == 0


main()
