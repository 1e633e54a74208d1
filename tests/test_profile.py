"""The host tool's profile against a device that refuses, lies, falls silent or vanishes."""
import json
import os
import pathlib
import signal
import socket
import struct
import subprocess
import tempfile
import threading

import pytest

from device import BIN, wait_for
from wire import PACKAGE, REQUESTS, Peer, fields, message, request

def reply(status=0, text='{"dev_id":"-1","info":"","status":0}'):
    return message("Response", {3: status, 4: text})


def refusal(info):
    return reply(1, json.dumps({"dev_id": "-1", "info": info, "status": 1}))


def chunk(name, data, size=None, offset=-1):
    return message("FileChunkReq", {2: name, 3: offset, 4: data,
                                    5: len(data) if size is None else size, 12: 3})


FINISH = message("DataChannelFinish", {})
OK = reply()
CPU = chunk("data/SystemCpuUsage.data", b"TimeStamp:1\nIndex:0\nDataLen:3\ncpu\n")
DATA = [CPU, chunk("data/Memory.data", b"TimeStamp:1\nIndex:0\nDataLen:0\n\n"),
        chunk("data/7-Memory.data", b"x" * 700_000)]
STEPS = ["CtrlChannelHandshake", "DataChannelHandshake", "JobStartReq", "ReplayStartReq",
         "ReplayStopReq", "JobStopReq"]
VANISH, SILENT = object(), object()


class Accepted(Peer):
    """A connection that came in, with the same operations as one that went out."""

    def __init__(self, connection):  # pylint: disable=super-init-not-called
        self.socket = connection
        self.socket.settimeout(30)
        self._exactly(24)


class PretendDevice:
    """Plays the device's part; `answers` replaces what it does at a step."""

    def __init__(self, folder, answers, data):
        self.answers, self.data, self.seen = answers, data, {}
        self.running = threading.Event()
        self.sessions = {}
        self.listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.listener.bind(f"{folder}/0.{REQUESTS}")
        self.listener.listen()
        self.listener.settimeout(30)
        self.thread = threading.Thread(target=self.serve)
        self.thread.start()

    def serve(self):
        try:
            for step in STEPS:
                if not self.play(step):
                    break
            self.sessions[STEPS[0]].closed(30)  # until the tool has gone
        except (EOFError, OSError):
            pass
        for session in self.sessions.values():
            session.close()
        self.listener.close()

    def play(self, step):
        if "Handshake" in step:
            self.sessions[step] = Accepted(self.listener.accept()[0])
        session = self.sessions[step if "Handshake" in step else STEPS[0]]
        got = session.receive()
        size = struct.unpack_from(">I", got, 12)[0]
        assert got[16:16 + size - 1].decode() == PACKAGE + step
        self.seen[step] = got[16 + size:]
        answer = self.answers.get(step, OK)
        if answer is VANISH:
            for each in self.sessions.values():
                each.close()
            return False
        if answer is SILENT:
            return False
        if step == "JobStopReq":
            self.sessions[STEPS[1]].message(FINISH)
            self.sessions[STEPS[1]].close()
        session.message(answer)
        if step == "ReplayStartReq" and answer == OK:
            for each in self.data:
                self.sessions[STEPS[1]].message(each)
            self.running.set()
        return answer == OK


def profile(*options, answers=(), data=(*DATA,), during=None, terminal=None):
    """The exit code, the manifest that is printed, what was written, and the device."""
    with tempfile.TemporaryDirectory(prefix="orla-", dir="/tmp") as folder:
        device = PretendDevice(folder, dict(answers), data)
        out = pathlib.Path(folder, "out")
        tool = subprocess.Popen([BIN / "orlactl", "profile", "--device", "0", "-o", out,
                                 *([] if terminal else ["--json"]),
                                 *([] if during else ["--duration", "0.1"]), *options],
                                stdout=subprocess.PIPE, text=True,
                                stderr=terminal or subprocess.DEVNULL,
                                env=dict(os.environ, ORLA_HDC_DIR=folder))
        try:
            if during:
                during(device, tool)
            text = tool.communicate(timeout=60)[0]
        finally:
            tool.kill()
            device.thread.join()
        written = {str(path.relative_to(out)).partition("/")[2]: path.read_bytes()
                   for path in out.rglob("*") if path.is_file()} if out.exists() else {}
        outside = {path.name for path in pathlib.Path(folder).iterdir()} - {"out", "0.4"}
        assert not outside
        printed = json.loads(written["manifest.json"]) if terminal else json.loads(text)[0]
        return tool.returncode, printed, written, device


def test_a_job_leaves_what_came_and_the_manifest():
    code, printed, written, device = profile("--set", "aicore_sampling_interval=7",
                                             "--set", 'app="5"', "--cpu-events", "0x11,0x8")
    assert code == 5 and printed["silent"] == ["cpu-events"]
    assert printed["finish_came"] and printed["stopped"] and not printed["interrupted"]
    assert written["data/7-Memory.data"] == b"x" * 700_000
    stored = json.loads(written.pop("manifest.json"))
    assert {**stored, "directory": printed["directory"]} == printed
    assert {each["name"]: (each["bytes"], each["chunks"], each["samples"], each["problem"])
            for each in printed["files"]} == {
        "data/SystemCpuUsage.data": (34, 1, 1, ""), "data/Memory.data": (31, 1, 1, ""),
        "data/7-Memory.data": (700_000, 1, 0, "")}
    sent = device.seen["JobStartReq"]
    parameters = json.loads(sent[sent.index(b'{"', sent.index(b"}")):])
    assert parameters["job_id"] == printed["job"] and printed["job"].encode() in \
        device.seen["DataChannelHandshake"]
    assert parameters["aicore_sampling_interval"] == 7 and parameters["app"] == "5"
    assert parameters["sys_profiling"] == parameters["pid_profiling"] == "on"
    assert device.seen["ReplayStartReq"].endswith(fields({3: "0x11"}) + fields({3: "0x8"}))


@pytest.mark.parametrize("step, answer, words", [
    (STEPS[0], refusal(""), "an earlier job"), (STEPS[0], refusal("no\x1b[2Jway"), "no\x1b[2Jway"),
    (STEPS[0], request(5, b"MESSAGE_CONTAINER_NO_SUPPORT"), "containers"),
    (STEPS[1], refusal(""), "mode"), (STEPS[2], refusal("Create task failed."), "Create task"),
    (STEPS[2], reply(1, "no json"), "no json"),
    (STEPS[3], refusal("start failed"), "start failed (every source"),
])
def test_a_refusal_is_told_in_the_devices_words(step, answer, words):
    code, printed, written, _ = profile(answers={step: answer})
    assert code == 3 and words in printed["reason"] and "refused" in printed["reason"]
    assert printed["directory"] == "" and not written


@pytest.mark.parametrize("step", STEPS)
@pytest.mark.parametrize("fault", [VANISH, SILENT, b"short", CPU, request(5, b"\0\0\0\1x")],
                         ids=["vanishes", "silent", "short", "chunk", "no message"])
def test_every_step_survives_a_device_that_does_not_answer(step, fault):
    code, printed, written, _ = profile("--timeout", "1", answers={step: fault})
    begun = step in ("ReplayStopReq", "JobStopReq")
    assert code == (5 if begun else 4) and printed["reason"]
    assert not printed["stopped"] and printed["finish_came"] == (
        step == "JobStopReq" and fault not in (VANISH, SILENT))
    assert (written.get("data/7-Memory.data") == b"x" * 700_000) == begun


@pytest.mark.parametrize("bad, problem", [
    (chunk("../up", b"evil"), "leave"), (chunk("data/../../up", b"evil"), "leave"),
    (chunk("/data/x", b"evil"), "leave"), (chunk("manifest.json", b"evil"), "leave"),
    (chunk("data/Memory.data/x", b"evil"), "Not a directory"), (chunk("data/", b"evil"), "leave"),
    (chunk("data/x", b"evil", size=5), "says"), (chunk("data/x", b"evil", offset=1), "offset"),
    (chunk("data/" + "x" * 300, b"evil"), "too long"),
    (chunk("data/" + "d/" * 7 + "deep", b"evil"), "leave"), (chunk("data/" + "x" * 4096, b""), "too long"), (FINISH[:-1], "no data"),
])
def test_a_bad_chunk_costs_itself_only(bad, problem):
    code, printed, written, _ = profile(data=[CPU, DATA[1], bad, chunk("data/7-Memory.data", b"x")])
    assert code == 5 and problem in printed["reason"]
    written.pop("manifest.json")
    assert set(written) == {"data/SystemCpuUsage.data", "data/Memory.data", "data/7-Memory.data"}


def test_an_early_end_of_the_data_ends_the_job():
    code, printed, written, device = profile(data=[CPU, FINISH],
                                             during=lambda device, _: device.running.wait(30))
    assert code == 5 and "before" in printed["reason"] and "JobStopReq" in device.seen
    assert "data/SystemCpuUsage.data" in written


def test_sources_that_stay_silent_are_named():
    code, printed, written, _ = profile("--cpu", "--pids", data=[CPU])
    assert code == 5 and printed["silent"] == ["pids"] and "pids" in printed["reason"]
    assert "manifest.json" in written
    assert profile("--cpu", data=[CPU])[0] == 0


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
def test_one_signal_ends_the_job_in_order(number):
    def interrupt(device, tool):
        assert device.running.wait(30)
        tool.send_signal(number)

    code, printed, _, device = profile(during=interrupt)
    assert code == 0 and printed["interrupted"] and printed["finish_came"]
    assert list(device.seen) == STEPS


def test_a_terminal_that_goes_ends_the_job_in_order():
    ours, tools = os.openpty()

    def hang_up(device, tool):
        os.close(tools)
        assert device.running.wait(30)
        os.close(ours)
        tool.send_signal(signal.SIGHUP)

    code, manifest, _, _ = profile(during=hang_up, terminal=tools)
    assert code == 0 and manifest["interrupted"] and manifest["finish_came"]


@pytest.mark.parametrize("data", [DATA, []], ids=["data", "no data"])
@pytest.mark.parametrize("step", ["ReplayStopReq", "JobStopReq"])
def test_a_second_signal_breaks_off_and_keeps_the_data(step, data):
    def interrupt(device, tool):
        assert device.running.wait(30)
        tool.send_signal(signal.SIGINT)
        wait_for(lambda: step in device.seen, "request to stop")
        tool.send_signal(signal.SIGINT)

    code, printed, written, _ = profile("--timeout", "3600", answers={step: SILENT}, data=data,
                                        during=interrupt)
    assert (code, printed["reason"], printed["ended_by"]) == (5, "broken off", "broken_off")
    assert not printed["stopped"] and ("data/7-Memory.data" in written) == bool(data)


@pytest.mark.parametrize("options", [
    ["--set", "novalue"], ["--set", "=1"], ["--set", "a b=1"], ["--set", "job_id=x"],
    ["--set", "sys_profilng=on"],
    ["--set", "llc_interval=99999999999"], ["--params", "/nonexistent"], ["--params", "/dev/null"],
    ["--mode", "other"], ["--interval", "0"], ["-o", "/proc/nowhere"], ["--duration", "nan"],
])
def test_usage_errors_reach_no_device(options):
    tool = subprocess.run([BIN / "orlactl", "profile", *options], capture_output=True, timeout=60,
                          env=dict(os.environ, ORLA_HDC_DIR="/nonexistent"), check=False)
    assert tool.returncode == 2 and tool.stderr
