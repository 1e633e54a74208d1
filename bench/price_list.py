#!/usr/bin/python3
"""What the whole daemon costs, seen from outside: processor time by the kernel's own accounting of
its threads, and resident memory, in a sandbox of its own. Prints one `figure` row each.

The limit of a sampling job is the time that plain reads of the kept files of as many processes take,
measured in this run by one thread; that of an idle daemon is nothing, shown as 0.
"""
import os
import pathlib
import re
import shutil
import subprocess
import sys
import time

sys.path.insert(0, str(pathlib.Path(__file__).parent.parent / "tests"))
from device import BIN, Device, resident, wait_for  # noqa: E402

SMOKE = "ORLA_BENCH_SMOKE" in os.environ
SECONDS = 1 if SMOKE else 10
PROCESSES = 100
FILES, FILE_SIZE = (5, 20000) if SMOKE else (2000, 20000)


def figure(what, unit, ours, limit, peer):
    ratio = f"{ours / limit:.2f}" if limit else "-"
    print(f"figure\t{what}\t{unit}\t{ours:.4g}\t{limit:.4g}\t{ratio}\t{peer}", flush=True)


def thread_seconds(pid):
    """Processor time of the threads that live, by the scheduler's own count."""
    total = 0
    for task in pathlib.Path(f"/proc/{pid}/task").iterdir():
        total += int((task / "schedstat").read_text().split()[0])
    return total / 1e9


def process_seconds(pid):
    """The same with the threads that have ended, in steps of the system's tick."""
    words = pathlib.Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()
    return (int(words[11]) + int(words[12])) / os.sysconf("SC_CLK_TCK")


def processes():
    return [name for name in os.listdir("/proc") if name.isdigit()]


def share(pid):
    """Percent of one processor."""
    before, start = thread_seconds(pid), time.monotonic()
    time.sleep(SECONDS)
    return (thread_seconds(pid) - before) / (time.monotonic() - start) * 100


def bare_share(interval):
    """The same of reads alone, for the present processes."""
    kept = []
    for pid in processes():
        for name in ("stat", "statm"):
            try:
                kept.append(os.open(f"/proc/{pid}/{name}", os.O_RDONLY))
            except OSError:
                pass  # it has gone
    def sample():
        for one in kept:
            try:
                os.pread(one, 4096, 0)
            except OSError:
                pass
    sample()
    times = []
    for _ in range(20):
        before = time.thread_time_ns()
        sample()
        times.append(time.thread_time_ns() - before)
        time.sleep(0.01)
    for one in kept:
        os.close(one)
    return sorted(times)[10] / 1e9 / (interval / 1000) * 100


def price_of_idle(daemon):
    figure("daemon, idle", "%", share(daemon.pid), 0, "nothing")
    figure("daemon, idle", "MB", resident(daemon) / 1000, 0, "nothing")


def price_of_sampling(device, daemon, interval):
    host = subprocess.Popen(
        [BIN / "orlactl", "profile", "--interval", str(interval), "-o", device.root / "profiles"],
        env=dict(device.environment, ORLA_HDC_DIR=str(device.hdc)), stdout=subprocess.DEVNULL,
        stderr=subprocess.DEVNULL)
    try:
        wait_for(lambda: any((device.root / "profiles").rglob("*CpuUsage.data*")), "first data")
        what = f"daemon, job of {interval} ms, {len(processes())} processes"
        figure(what, "%", share(daemon.pid), bare_share(interval), "reads of kept files, in Python")
        figure(what, "MB", resident(daemon) / 1000, 0, "nothing")
    finally:
        host.send_signal(2)
        host.wait(60)
    text = next((device.root / "profiles").rglob("SystemCpuUsage.data*")).read_bytes()
    times = [int(ns) / 1e6 for ns in re.findall(rb"^TimeStamp:(\d+)", text, re.M)]
    gaps = [later - former for former, later in zip(times, times[1:])]
    if interval == 100:
        figure("interval of samples, mean", "ms", sum(gaps) / len(gaps), interval, "as asked for")
        figure("interval of samples, longest", "ms", max(gaps), interval, "as asked for")
    shutil.rmtree(device.root / "profiles")


def price_of_a_pull(device, daemon):
    source = device.root / "var/log/npu/coredump"
    source.mkdir(parents=True, exist_ok=True)
    for number in range(FILES):
        (source / str(number)).write_bytes(bytes(FILE_SIZE))
    before, start = process_seconds(daemon.pid), time.monotonic()
    result = device.orlactl("pull", "stackcore", "-o", device.root / "pulled")
    took, busy = time.monotonic() - start, process_seconds(daemon.pid) - before
    assert result.returncode == 0, result.stderr
    copy = time.monotonic()
    target = device.root / "copied"
    target.mkdir()
    for number in range(FILES):
        (target / str(number)).write_bytes((source / str(number)).read_bytes())
    copy = time.monotonic() - copy
    what = f"pull of {FILES} files of {FILE_SIZE} B"
    figure(what, "ms each", took / FILES * 1e3, copy / FILES * 1e3, "read and write, in Python")
    figure(what + ", daemon", "ms each", busy / FILES * 1e3, 0, "nothing")
    figure(what + ", daemon", "MB", resident(daemon) / 1000, 0, "nothing")


def main():
    missing = max(0, PROCESSES - len(processes()) - 3)  # with sandbox, daemon and host
    sleepers = [subprocess.Popen(["sleep", "1000"]) for _ in range(missing)]
    try:
        with Device() as device:
            device.environment["ORLA_LOG_LEVEL"] = "warning"
            daemon = device.start(BIN / "orla")
            wait_for(device.listens, "listening daemon")
            wait_for(lambda: device.listens(service=12), "file service")
            price_of_idle(daemon)
            for interval in (1000, 100):
                price_of_sampling(device, daemon, interval)
            price_of_a_pull(device, daemon)
    finally:
        for sleeper in sleepers:
            sleeper.kill()
            sleeper.wait()


if __name__ == "__main__":
    main()
