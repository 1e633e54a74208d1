"""All services at once, with hosts that are killed at any moment and a driver that fails now and
then and takes its liberties: what a host was told is true, and the daemon gives everything back.
ORLA_CHAOS_SECONDS says for how long, ORLA_CHAOS_SEED repeats what chance has chosen, and
ORLA_CHAOS_LIBERTIES, a JSON object, chooses liberties in its place."""
import collections
import datetime
import itertools
import json
import os
import pathlib
import random
import re
import socket
import struct
import subprocess
import tempfile
import threading
import time
import traceback

from device import (BIN, SANITIZED, Device, end, resident, settled, threads_and_descriptors,
                    wait_for)
from profiler import LLC as LLC_JOB, Host, context, reply
from wire import FRAMEWORK, REQUESTS, Peer, frame, hello, message, request, segment

SECONDS = float(os.environ.get("ORLA_CHAOS_SECONDS", 60))
SEED = int(os.environ.get("ORLA_CHAOS_SEED", random.SystemRandom().randrange(2**32)))
PATIENCE = 120  # with a host that nobody kills
ANSWER = "5"  # seconds: a fault may cost a host the answer to a request
LLC = 8  # the channel of the cache, with room for more than any job makes
# What a driver may do. drop_at_stop belongs to the channels.
LIBERTIES = {
    "accept_may_block": [False, True], "idle_poll": [None, 0, -4], "close_waits": [False, True],
    "socket_buffer": [None, 4608], "destroy_busy": [False, True], "drop_at_stop": [False, True],
    "receive": ["plain", "unaligned", "several", "empty"],
}
# How many calls fail or come late in a minute, out of about so many, and how. A channel whose stop
# fails would run for ever, so stops are only late.
FAULTS = {
    "halHdcSend": (8, 4000, {"result": 25}), "halHdcRecv": (8, 4000, {"result": 25}),
    "drvHdcSessionAccept": (4, 800, {"result": 9}), "drvHdcAllocMsg": (4, 4000, {"result": 6}),
    "halHdcGetSessionAttr": (4, 1500, {"result": 9}), "drvHdcSessionClose": (4, 1000, {}),
    "prof_drv_get_channels": (3, 80, {"result": -1}), "prof_drv_start": (3, 40, {"result": -1}),
    "prof_stop": (3, 40, {}), "prof_channel_read": (4, 1000, {"result": -1}),
    "prof_channel_poll": (2, 500, {"result": -1}),
}
POOL = 40 * 1024  # KiB: free message buffers that the daemon may still be filling up
LEVELS = ["debug", "warning", "error", "none"]
MODULES = ["SYSTEM", "CORE", "DRIVER", "RUNTIME", "FIRMWARE", "BOOT", "KERNEL", "MEMORY", "CACHE",
           "POWER", "CLOCK", "THERMAL", "SENSOR", "PCIE", "DMA", "NETWORK", "LINK", "STORAGE",
           "FILE", "UPGRADE", "SECURITY", "AUTH", "CRYPTO", "LICENSE"]
FOLDERS = {"slog": "var/log/npu/slog", "bbox": "var/log/npu/sablebox_logs",
           "stackcore": "var/log/npu/coredump"}
MODES = ["def_mode", "system-wide"]
STALLED = 2  # the device of the hosts that don't read
CACHE = ["--llc-events", "read,write", "--set", "sys_profiling=off", "--set", "pid_profiling=off"]
# What each of the four hosts profiles: mostly what no other one holds meanwhile.
JOBS = [[[], ["--cpu"], ["--mem", "--pids"]], [CACHE], [CACHE],
        [CACHE, ["--mem"], ["--cpu-events", "0x11"], ["--cpu", "--llc-events", "read"]]]

# Why a host fails that was not killed.
REASONS = re.compile("|".join((
    "an earlier job of this mode may still run", "every source is off, or held by a job",
    "start job failed", "no daemon listens",  # for a second, when it could not accept
    "the device accepted the job, but nothing came from",
    "the device (closed|ended) the (data )?session", "the device went away", "no (end of the )?answer", "an empty answer",
    r"\+\+OK\+\+|\[event\] on",  # the end of this answer did not come
    "could not be sent", "did not read within", "the end of the data did not come", "Stop profiling failed",
    "the device (fell silent|broke off|went on to the next file)", "slices that do not fit",
    "the session ended before the last file", "content without a name",
    "what is no (data|message)", "is no answer", "answered what nobody had asked",
    "message (to|from) slogd failed", "unknown error, please check log file")))
# What the daemon calls an error when a host is gone, what it asks for is taken, a fault fires, or
# no application monitor runs.
ERRORS = re.compile("|".join((
    "Hdc Send, error", "Hdc Recv", "hdc write failed", "Failed to upload data",
    "uploader gives up, messages lost", "ends without all of its data", "FinishCollection failed",
    "Push data failed", "Upload Data Failed", "Upload data failed", "bytes lost:",
    "Upload (cpu|llc) data failed", "slices of the recording", "Destroy Error : 23",
    "Ide Hdc Read Request failed", "reveice request failed", "get pid failed",
    "send (message|file path|end msg|empty file|respone) failed",
    "Send file name or file content failed", "read or send file failed", "hand shake failed",
    r"end of processing \[TransferFile\] component failed", "Process Event Process Failed",
    r"call \w+ process func failed", "Invalid request or no hdc process func register",
    "Last profiling job", "Another handshake", "Can't find jobId", "doing ResetTask",
    "CollectionJobRegisterAndRun failed", "Hdc Session Accept Error", "[Aa]lloc [Mm]sg",
    "[Gg]et [Ss]ession", "vfid by session failed", "Get run env failed",
    "IdeGetDevIdBySession failed", "create HDC transport failed",
    "prof_channel_(read|poll)", "read device", "CollectStart", "server destroy error : 23, times 1$",
    "DrvGetChannels", "Function ret check failed", "DrvStop", "DrvPeripheralStart",
    "[Pp]oll channel", "app mon client init failed")))


def choose_liberties(chance):
    chosen = {name: chance.choice(values) for name, values in LIBERTIES.items()}
    if "ORLA_CHAOS_LIBERTIES" in os.environ:
        chosen = json.loads(os.environ["ORLA_CHAOS_LIBERTIES"])
    print(f"ORLA_CHAOS_LIBERTIES='{json.dumps(chosen)}'")
    return {name: value for name, value in chosen.items() if value is not None}


def make_scenario(liberties, rates=(1 << 20, 1 << 20)):
    """Devices, by the bytes per second of their channels, without faults."""
    liberties = dict(liberties)
    channel = {"id": LLC, "name": "LLC", "buffer": 1 << 27,
               "drop_at_stop": liberties.pop("drop_at_stop", False)}
    return {"devices": [{"logical": n, "physical": n, "channels": [{**channel, "rate": rate}]}
                        for n, rate in enumerate(rates)],
            "liberties": liberties}


def make_faults(chance):
    for call, (count, calls, kind) in FAULTS.items():
        for _ in range(max(1, round(count * SECONDS / 60))):
            yield {"call": call, "after": chance.randrange(max(1, int(calls * SECONDS / 60))),
                   "delay_ms": chance.randrange(300), **kind}


class LogTail(threading.Thread):
    """The lines of the device log that matter, past its renaming."""

    MATTERS = re.compile("ERROR|fault: |prof_stop: |AddUploader|Del id |register collction job")

    def __init__(self, path):
        super().__init__()
        self.path, self.over, self.lines = path, threading.Event(), []
        self.start()

    def run(self):
        while not self.over.is_set():
            with self.path.open(errors="replace") as file:
                rest = ""
                while self.is_at(file):
                    rest = self.take(rest + file.read())
                    if self.over.wait(0.05):
                        break
                self.take(rest + file.read())

    def take(self, text):
        """Returns what comes after the last whole line: a line may be read while it is written."""
        *lines, rest = text.split("\n")
        self.lines += filter(self.MATTERS.search, lines)
        return rest

    def is_at(self, file):
        return self.path.exists() and os.path.samestat(self.path.stat(), os.fstat(file.fileno()))

    def matches(self, pattern):
        return [match for match in map(re.compile(pattern).search, self.lines) if match]

    def found(self, pattern):
        return {match[1] for match in self.matches(pattern)}

    def waiting(self):
        """The data sessions whose jobs have not ended."""
        return self.found("id: (.*) Entering AddUploader") - self.found("Del id (.*) uploader")

    def lossy_faults(self):
        """When a message or a read failed that the device does not repeat."""
        return [datetime.datetime.fromisoformat(when) for when in self.found(
            "(.{26}) DEBUG.* fault: (?:halHdcSend|drvHdcAllocMsg|prof_channel_read), .*result")]


class Hosts:
    """What hosts do at the same time, and what they were told."""

    def __init__(self, device, chance, scenario):
        self.device, self.until, self.errors = device, 0, []
        self.counts = collections.Counter()
        self.levels = {}  # acknowledged, by module
        self.streams = []  # (device, start, records) of channels, from jobs that lack nothing
        self.answers = []  # seconds that the log level took
        self.gaps = []  # (from, to, what) of work that ended well, but not with all of its data
        path = device.root / "hosts.json"  # without the faults
        path.write_text(json.dumps(scenario))
        self.environment = dict(os.environ, ORLA_HDC_DIR=str(device.hdc), ORLA_LOG_FILE="/dev/null",
                                ORLA_SCENARIO=str(path))
        self.files = {(kind, f"d{size % 2}/file{size}"): chance.randbytes(size)
                      for kind in FOLDERS for size in (0, 1, 512000, 1300000)}
        for (kind, name), content in self.files.items():
            path = device.root / FOLDERS[kind] / name
            path.parent.mkdir(exist_ok=True)
            path.write_bytes(content)

    def tool(self, chance, *arguments, kill=0.2, within=1.0):
        """Exit code and standard output; no code when the tool was killed."""
        killed = chance.random() < kill
        with subprocess.Popen([BIN / "orlactl", *map(str, arguments)], env=self.environment,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True) as tool:
            try:
                out, said = tool.communicate(timeout=chance.uniform(0, within) if killed
                                             else PATIENCE)
            except subprocess.TimeoutExpired:
                tool.kill()
                tool.communicate()
                assert killed, f"{arguments} does not end"
                self.counts[f"{arguments[0]} killed"] += 1
                return None, ""
        if tool.returncode != 0:
            assert tool.returncode in (3, 4, 5) and REASONS.search(said + out), (
                f"{arguments}: {tool.returncode}, {said}{out}")
        self.counts[f"{arguments[0]} {tool.returncode}"] += 1
        return tool.returncode, out

    def log(self, chance, modules):
        modules = itertools.cycle(modules)
        module = next(modules)
        while time.monotonic() < self.until:
            level = chance.choice(LEVELS)
            if self.tool(chance, "log", "set", module, level, "--device", chance.randrange(2),
                         kill=0.05, within=0.1) == (0, "++OK++\n"):
                self.levels[module] = level
            else:  # it may still reach the log daemon, behind the next
                self.levels.pop(module, None)
                module = next(modules)
            self.reads_back(chance, module, 0.05)

    def reads_back(self, chance, module, kill=0):
        began = time.monotonic()
        code, out = self.tool(chance, "log", "get", module, kill=kill, within=0.1)
        expected = f"[{module}] {self.levels.get(module, '')}"
        assert code != 0 or out.count(expected) == 2, f"{out}, not {expected}"
        if code == 0:
            self.answers.append(time.monotonic() - began)
        return code == 0

    def pull(self, chance, _):
        while time.monotonic() < self.until:
            kinds = chance.sample(sorted(FOLDERS), chance.randrange(1, 4))
            began = datetime.datetime.now()
            with tempfile.TemporaryDirectory() as output:
                code, _ = self.tool(chance, "pull", *kinds, "--device", chance.randrange(2), "-o",
                                    output, "--timeout", ANSWER)
                for (kind, name), content in self.files.items() if code == 0 else ():
                    path = pathlib.Path(output, kind, name)
                    if kind in kinds and not path.exists():
                        self.gaps.append((began, datetime.datetime.now(), f"{kind}/{name}"))
                    elif kind in kinds:
                        assert path.read_bytes() == content, f"{kind}/{name}"

    def profile(self, chance, number, duration=3.0, kill=0.35):
        """One job. Returns whether it ended well."""
        began = datetime.datetime.now()
        with tempfile.TemporaryDirectory() as output:
            code, out = self.tool(
                chance, "profile", *chance.choice(JOBS[number]), "--device", number % 2, "--json",
                "-o", output, "--timeout", ANSWER, "--mode", MODES[number // 2],
                "--duration", chance.uniform(0.3, duration), kill=kill, within=duration)
            if code == 0:
                problem, streams = self.check(pathlib.Path(json.loads(out)[0]["directory"]))
                ended = datetime.datetime.now()
                self.gaps += [(began, ended, problem)] if problem else []
                self.streams += [(began, ended, each) for each in streams]
        return code == 0

    def profiles(self, chance, number):
        while time.monotonic() < self.until:
            self.profile(chance, number)

    def check(self, folder):
        """What is missing in a job's data, if anything, and the counts of its channels."""
        manifest = json.loads((folder / "manifest.json").read_text())
        assert manifest["stopped"] and manifest["finish_came"] and not manifest["silent"]
        problem, streams = None, []
        for file in manifest["files"]:
            path = folder / file["name"]
            assert path.stat().st_size == file["bytes"] and not file["dropped"]
            if path.name == "llc.data":
                checked = subprocess.run([BIN / "orlactl", "check", "--json", path], text=True,
                                         stdout=subprocess.PIPE, check=False, timeout=PATIENCE)
                found = json.loads(checked.stdout)[0]
                if found["clean"]:
                    streams += found["streams"]
                else:
                    problem = str(found)
            elif path.name in ("SystemCpuUsage.data", "Memory.data"):
                indexes = [int(i) for i in re.findall(rb"^Index:(\d+)$", path.read_bytes(), re.M)]
                if indexes != list(range(file["samples"])):
                    problem = f"{path.name}: {indexes}"
        return problem, streams

    def rude(self, chance, _):
        """Says something or a part of it, waits for some of what comes, and is gone."""
        pull = struct.pack("<HBBHHIIIHH", 0xC396, 16, 0, 14, 0, 4, 4, 0, 0, 0) + b"bbox"
        while time.monotonic() < self.until:
            job = f"rude{self.counts['rude']}"
            service, said = chance.choice([
                (FRAMEWORK, pull),
                (REQUESTS, request(4, b"get CORE")), (REQUESTS, request(16, b"x")),
                (REQUESTS, message("CtrlChannelHandshake", {1: job, 2: 1, 3: MODES[1]})),
                (REQUESTS, message("JobStartReq", {2: "{}"}))])
            stream = hello() + frame(segment(said))
            try:
                with Peer(self.device.hdc, chance.randrange(2), service, greeting=b"") as peer:
                    peer.socket.settimeout(0.2)
                    peer.raw(stream[:chance.choice([len(stream), chance.randrange(len(stream))])])
                    for _ in range(chance.randrange(3)):
                        peer.receive()
            except (OSError, EOFError):
                pass  # it does not listen for a moment, has had enough, or says no more
            self.counts["rude"] += 1

    def stalls(self, chance, _):
        """Starts a job, reads none of its data, and goes on in one of many ways, or not at all."""
        while time.monotonic() < self.until:
            self.counts["stalled"] += 1
            host = Host(self.device, f"stalled{self.counts['stalled']}", STALLED,
                        chance.choice(MODES), reads=False)
            try:
                # The last job of the mode may still be ending.
                wait_for(lambda one=host: one.handshake() == reply() or time.monotonic() > self.until,
                         "handshake", PATIENCE)
                steps = (host.data_handshake, lambda: host.job_start(LLC_JOB),
                         lambda: host.replay_start({8: "read"}))
                if all(step() == reply() for step in steps):
                    self.stall(chance, host)
            except (OSError, EOFError):
                pass  # a fault, or an end that the other one's job has had
            host.close()

    def stall(self, chance, host):
        host.data.socket.settimeout(PATIENCE / 10)  # nothing comes of a channel that did not start
        host.data.socket.recv(1, socket.MSG_PEEK)
        way = chance.randrange(4)
        if way == 0:
            host.control.shut()
        elif way == 1:
            host.data_handshake()
        elif way == 2:
            host.control.message(message("JobStopReq", context(host.job, host.host_number)))
        wait_for(lambda over=time.monotonic() + chance.choice([1, 2, 40]): time.monotonic() > min(
            over, self.until), "the end of the stall", PATIENCE)

    def run(self, chance, seconds):
        self.until = time.monotonic() + seconds
        half = len(MODULES) // 2
        parts = [(self.log, MODULES[:half]), (self.log, MODULES[half:]), (self.pull, None),
                 (self.pull, None), (self.rude, None), *((self.profiles, n) for n in range(4)),
                 (self.stalls, None)]
        threads = [threading.Thread(target=self.guarded, args=(
            work, random.Random(chance.random()), on)) for work, on in parts]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        assert not self.errors, "\n".join(self.errors)

    def guarded(self, work, *arguments):
        try:
            work(*arguments)
        except Exception:  # pylint: disable=broad-except
            self.until = 0
            self.errors.append(traceback.format_exc())


def tree(device):
    return {str(path.relative_to(device.root)) for top in ("var", "home")
            for path in (device.root / top).rglob("*") if "slogd" not in path.parts}


def await_rest(device, daemon, before, places, tail):
    """A data session whose job never ran stays, with its thread: nothing else may."""
    def left():
        waiting = tail.waiting()
        ran = waiting & tail.found("Start to register collction job:(.*)")
        more = [now - then - len(waiting)
                for now, then in zip(threads_and_descriptors(daemon), before)]
        return more * any(more) + sorted(ran | (tree(device) ^ places))

    try:
        wait_for(lambda: not left(), "rest")
    except AssertionError as late:
        task = pathlib.Path(f"/proc/{daemon.pid}/task")
        names = sorted(path.read_text() for path in task.glob("*/comm"))
        raise AssertionError(f"left of {before}: {left()}, threads {names}") from late


def check_the_log(hosts, tail, dropping):
    faults = tail.lossy_faults()
    to_come = {(int(each[1]), int(each[2])): int(each[4]) if dropping else int(each[3]) - int(each[5])
               for each in tail.matches("prof_stop: device (.*), channel .*: start (.*), produced "
                                        "(.*), delivered (.*), lost (.*)")}
    short = [(began, ended, each) for began, ended, each in hosts.streams
             if each["records"] != to_come[each["device"], each["start"]]]
    for began, ended, missing in hosts.gaps + short:
        assert any(began <= when <= ended for when in faults), missing
    assert hosts.streams and len(hosts.gaps + short) <= len(faults)
    unexpected = [line for line in tail.lines if " ERROR " in line and not ERRORS.search(line)]
    assert not unexpected, "\n".join(unexpected)


def test_chaos():
    print(f"ORLA_CHAOS_SEED={SEED}")  # pytest shows it when the test fails
    chance = random.Random(SEED)
    liberties = choose_liberties(chance)
    scenario = make_scenario(liberties)  # what the host tool knows of
    whole = make_scenario(liberties, (1 << 20, 1 << 20, 1 << 25))  # and the device of the stalled
    with Device({**whole, "faults": list(make_faults(chance))}) as device:
        daemon = device.daemon()
        wait_for(lambda: all(device.listens(n, s) for n in range(3)
                             for s in (REQUESTS, FRAMEWORK)), "all services")
        device.start(BIN / "orla-slogd", join=True)
        hosts, tail = Hosts(device, chance, scenario), LogTail(device.log)
        try:
            wait_for(lambda: hosts.reads_back(chance, "CORE"), "log service")
            for number in range(4):  # the daemon keeps the last session of each device and mode
                wait_for(lambda: hosts.profile(chance, number, 0.5, kill=0), "job")
            before = [number - len(tail.waiting()) for number in settled(daemon)]
            places, memory = tree(device), []
            for _ in range(2):
                hosts.run(chance, SECONDS / 2)
                await_rest(device, daemon, before, places, tail)
                memory.append(resident(daemon))
            print(hosts.counts, memory)
            print(f"worst answer to a good host: {max(hosts.answers):.3f} s")
            for module in hosts.levels:
                wait_for(lambda: hosts.reads_back(chance, module), "answer to a get")
            assert end(daemon)[0] == 0
        finally:
            tail.over.set()
            tail.join()
        check_the_log(hosts, tail, liberties.get("drop_at_stop", False))
        assert SANITIZED or memory[1] < memory[0] + POOL, f"memory grows: {memory}"
