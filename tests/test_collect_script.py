"""The device's collection script, and a job that works through it from the host tool down."""
import os
import re
import signal
import subprocess
import time

import pytest

from device import BIN, SANDBOX, Device, end, wait_for

RECORD = "sudo /var/prof_collect.sh --record /tmp/data/cpu.data.0 50 '{r11,r8}'"
STAT = "sudo /var/prof_collect.sh --stat /tmp/data/llc.data.0 read,write 50"
KILL = "sudo /var/prof_collect.sh --kill"


def perf_is_allowed():
    """Whether the sandbox may watch the whole machine with perf."""
    probe = [SANDBOX, "--quiet", "--perf", "--", "perf", "stat", "-a", "-e", "cpu-clock", "true"]
    return subprocess.run(probe, check=False, capture_output=True).returncode == 0


PERF = pytest.param(["--perf"], id="perf", marks=pytest.mark.skipif(
    not perf_is_allowed(), reason="perf may not watch this machine"))
SYNTHETIC = pytest.param([], id="synthetic", marks=pytest.mark.skipif(
    os.path.exists("/proc/sys/kernel/perf_event_paranoid")
    and int(open("/proc/sys/kernel/perf_event_paranoid").read()) < 1,
    reason="anybody may use perf here"))


def shell(options, script):
    """The standard output of a script in a sandbox whose folder /tmp/data is new."""
    done = subprocess.run([SANDBOX, "--quiet", *options, "--", "sh", "-c",
                           "mkdir -p /tmp/data; cd /tmp/data\n" + script],
                          text=True, check=False, capture_output=True, timeout=120)
    assert done.returncode == 0, done.stderr
    return done.stdout


def recordings(device):
    """The command lines of what records in a device's sandbox."""
    found = []
    for name in os.listdir("/proc"):
        try:
            with open(f"/proc/{name}/cmdline", encoding="utf-8", errors="replace") as file:
                line = file.read()
            inside = os.path.samefile(f"/proc/{name}/root/var", device.root / "var")
        except OSError:
            continue
        if inside and ("prof_collect.sh" in line or line.startswith("perf\0")):
            found.append(line)
    return found


@pytest.mark.parametrize("options", [SYNTHETIC, PERF])
def test_slices_and_counts_come_until_the_kill(options):
    out = shell(options, f"""
        {RECORD} >perf.log 2>&1 & {STAT} >stat.log 2>&1 &
        until [ "$(ls cpu.data.0.* 2>/dev/null | wc -l)" -ge 2 ] && [ -s llc.data.0 ]
        do sleep 0.05; done
        {KILL} && wait
        ls; echo ---; cat perf.log stat.log; echo ---; cat llc.data.0
        for file in cpu.data.0.*; do echo ---; sudo /var/prof_collect.sh --script "$file"; done""")
    names, said, counts, *slices = out.split("---\n")
    slice_names = [name for name in names.split() if name.startswith("cpu.data.0.")]
    assert len(slice_names) == len(slices) >= 2 and "cpu.data.0" not in names.split()
    assert all(re.fullmatch(r"cpu\.data\.0\.[^.]+", name) for name in slice_names)
    if not options:
        assert "synthetic slices" in said and "synthetic counts" in said
        assert counts.startswith("# synthetic") and " read\n" in counts and " write\n" in counts
        numbers = [int(number) for text in slices
                   for number in re.findall(r" synthetic (\d+) r(?:11|8)$", text, re.M)]
        assert numbers == list(range(1, 2 * len(slices) + 1))
        assert all(text.startswith("# synthetic") for text in slices)
        return
    assert "cpu-clock" in counts or "LLC-loads" in counts
    times = [float(each) for text in slices for each in re.findall(r" (\d+\.\d{9}):", text)]
    now = time.clock_gettime(time.CLOCK_MONOTONIC_RAW)
    assert times and now - 60 < min(times) and max(times) < now, "not the clock of the samples"


@pytest.mark.parametrize("options", [SYNTHETIC, PERF])
def test_the_kill_ends_also_what_has_only_just_begun(options):
    out = shell(options, f"""
        for mode in record stat; do for pause in 0 0 0 0.002 0.005 0.01 0.02 0.05 0.1; do
            case $mode in
                record) {RECORD} >/dev/null 2>&1 & ;;
                stat) {STAT} >/dev/null 2>&1 & ;;
            esac
            sleep $pause
            {KILL} || echo failed
            kill -0 $! 2>/dev/null && grep -v '^State:.Z' /proc/$!/status | grep '^State'
            wait
        done; done
        {KILL} && echo done""")
    assert out == "done\n"


def test_the_kill_leaves_other_sandboxes_alone():
    with Device() as device:
        device.start("sh", "-c", f"mkdir -p /tmp/data; exec {STAT}")
        file = device.root / "tmp/data/llc.data.0"
        wait_for(lambda: file.exists() and file.stat().st_size, "counts")
        shell([], KILL)
        size = file.stat().st_size
        wait_for(lambda: file.stat().st_size > size, "more counts after a stranger's kill")


@pytest.mark.parametrize("ending", ["stop", "host killed", "daemon terminated"])
def test_a_job_brings_slices_in_order_and_leaves_no_child(ending):
    info = [{"module": 0, "info": 1, "value": 0}]  # a chip whose driver counts no cache
    with Device({"devices": [{"logical": 0, "info": info}]}) as device:
        daemon = device.daemon()
        out = device.root / "out"
        tool = subprocess.Popen(
            [BIN / "orlactl", "profile", "--cpu-events", "0x11:u,0x8", "--llc-events", "read,write",
             "-o", out], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
            env=dict(os.environ, ORLA_HDC_DIR=str(device.hdc), ORLA_LOG_FILE="/dev/null"))
        try:
            device.logged("PerfExtraTask data size")
            assert len(recordings(device)) >= 2
            if ending == "stop":
                tool.send_signal(signal.SIGINT)
                tool.wait(60)
                texts = {path.name: path.read_text() for path in out.rglob("data/*llc.data")}
                texts.update({path.name: path.read_text() for path in out.rglob("data/ai_*")})
                assert texts["llc.data"]
                numbers = [int(number) for number
                           in re.findall(r" synthetic (\d+) r", texts["ai_ctrl_cpu.data"])]
                assert numbers == list(range(1, len(numbers) + 1))
            elif ending == "host killed":
                tool.kill()
            else:
                assert end(daemon, seconds=30)[0] == 0
            wait_for(lambda: not recordings(device), "end of all children")
            work = device.root / "var/log/npu/profiling"
            wait_for(lambda: not list(work.iterdir()), "removal of the work directories")
        finally:
            tool.kill()
            tool.wait()


def test_an_event_that_could_add_an_argument_is_refused_at_the_start():
    with Device() as device:
        device.daemon()
        for option, event in (("--cpu-events", "0x11 --kill"), ("--llc-events", "read write")):
            tool = device.orlactl("profile", option, event, "-o", device.root / "out")
            assert tool.returncode == 3 and "event is not valid" in tool.stderr
