"""A host profiles a device: the conversation with the real daemon, byte for byte, and its end in
every place where a host may go, stop reading or say something else."""
import json
import random
import signal
import time

import pytest

from device import SANITIZED, Device, end, resident, settled, wait_for
from profiler import LLC, REFUSED_CONTAINER, TWO, Host, at_rest, context, params, reply, work_dirs
from wire import Peer, frame, hello, message, request, segment

@pytest.fixture(scope="module")
def device():
    with Device(TWO) as made:
        made.program = made.daemon()
        wait_for(lambda: made.listens(1), "second device")
        yield made


def test_conversation(device):
    before = settled(device.program)
    host = Host(device).start()
    assert work_dirs(device) == ["0", "j1"]
    host.first_chunk()
    assert host.replay_stop() == reply()
    assert host.replay_start() == reply(), "once more in the same job"
    assert host.replay_stop() == reply()
    assert host.job_stop() == reply()
    names, last = host.drain()
    assert names[-1] == "DataChannelFinish" and set(names[:-1]) == {"FileChunkReq"}
    assert b'"dev_id":"7"' in last and b'"job_id":"j1"' in last
    host.close()
    at_rest(device, before)


def test_refusals(device):
    before = settled(device.program)
    first = [
        (request(5, b"nonsense"), reply(1, "Failed to decode message")),
        (request(5, bytes(0x300000)), reply(1, "Failed to decode message")),
        (message("JobStopReq", {}), reply(1, "unknown message")),
        (message("CtrlChannelHandshake", {1: "j", 2: 64}), reply(1)),
        (message("DataChannelHandshake", {1: "a_b"}), reply(1)),
        (message("DataChannelHandshake", {1: "j" * 513}), reply(1)),
        (message("DataChannelHandshake", {1: "j", 3: "sample-based"}), reply(1)),
    ]
    for sent, expected in first:
        with Peer(device.hdc) as peer:
            peer.message(sent)
            assert peer.receive() == expected
            assert peer.closed()
    with Peer(device.hdc) as peer:  # longer than a first request may be
        peer.message(request(5, bytes(0x300001)))
        assert peer.closed()
    with Peer(device.hdc, greeting=hello(vf_id=1)) as peer:
        peer.message(request(5, b"nonsense"))
        assert peer.receive() == REFUSED_CONTAINER

    host = Host(device)
    assert host.handshake() == reply()
    assert host.ask("JobStartReq", {2: "{"}) == reply(1, "invalid sample configuration")
    assert host.job_start() == reply(1, "Create task failed."), "its key stays taken"
    assert host.job_stop() == reply(1, "Profiling is not started on device")
    assert host.ask("JobStartReq", {2: json.dumps({"job_id": "../x"})}) == reply(
        1, "Failed to create tmp root result directory.")
    assert host.job_stop() == reply(1, "Profiling is not started on device")
    assert host.job_start() == reply()
    assert host.replay_start({3: "cycles"}) == reply(1, "[CollectStart] pmu event is not valid.")
    assert host.job_stop() == reply(1, "Profiling is not started on device")
    assert host.job_start() == reply()
    assert host.replay_start() == reply(1, "start failed"), "no data session, so no job runs"
    assert host.job_stop() == reply(1, "Profiling is not started on device")
    assert host.job_start() == reply()
    host.control.message(nine_events())
    assert host.control.receive() == reply(1, "[Start] pmu event size is not valid!")
    assert host.job_stop() == reply(1, "Profiling is not started on device")
    silent = [message("ReplayStopReq", context("other")), message("ReplayStopReq", {}),
              message("JobStartReq", {**context(host_number=64), 2: params()}),
              message("JobStartReq", {**context("a_b"), 2: params("a_b")}),
              message("FileAck", {}), request(5, b""), request(5, b"x", stated=9)]
    for packet in silent:
        host.control.message(packet)
    assert host.job_start() == reply(), "the next that is answered"
    other = Host(device, "j2")
    assert other.handshake() == reply(1), "one job for a device and mode"
    assert other.control.closed()
    third = Host(device, "j3", mode="system-wide")
    assert third.handshake() == reply()
    assert host.job_stop() == reply()
    for one in (host, other, third):
        one.close()
    at_rest(device, before)


def nine_events():
    """A ReplayStartReq with one control CPU event more than there may be."""
    return request(5, message("ReplayStartReq", context())[12:] + b"\x1a\x030x1" * 9)


@pytest.mark.parametrize("steps", range(1, len(Host.STEPS) + 1))
@pytest.mark.parametrize("half", [b"", frame(segment(message("JobStopReq", context())))[:-7],
                                  frame(segment(b"begun", last=0))], ids=["", "cut", "first"])
def test_host_vanishes(device, steps, half):
    before = settled(device.program)
    host = Host(device)
    for step in Host.STEPS[:steps]:
        assert step(host) == reply()
    host.control.raw(half)
    host.close()
    if steps == 2:  # nothing tells the device that this data session will never have a job
        again = Host(device)
        assert wait_for(lambda: again.handshake() == reply(), "handshake")
        assert again.job_start() == reply() and again.job_stop() == reply()
        again.close()
    at_rest(device, before)
    run_a_job(device)
    at_rest(device, before)


def test_made_up_modes_do_not_use_the_daemon_up(device):
    _, before = settled(device.program)
    for number in range(600):
        host = Host(device, job=f"j{number}", mode=f"m{number}")
        assert host.handshake() == reply()
        host.control.close()
    assert settled(device.program)[1] < before + 300


@pytest.mark.skipif(SANITIZED, reason="sanitizers keep what is freed")
def test_long_names_do_not_use_the_memory_up(device):
    before = resident(device.program)

    def handshake(host):
        wait_for(lambda: host.handshake() == reply(), "handshake")
        host.control.close()

    def is_given_back():
        handshake(Host(device))
        return resident(device.program) < before + 30_000  # kilobytes

    for number in range(20):  # 100 MB of names
        handshake(Host(device, job=f"j{number}" * 500_000, mode=f"m{number}" * 200_000))
    wait_for(is_given_back, "memory of the names")


def run_a_job(device):
    host = Host(device).start()
    assert host.job_stop() == reply()
    host.close()


def test_data_sessions_without_a_job_end_with_the_next(device):
    before = settled(device.program)
    kept = []
    for i in range(20):
        host = Host(device, f"w{i}", mode="system-wide" if i % 2 else "")
        assert host.data_handshake() == reply()
        if i % 4:
            host.close()
        else:
            kept.append(host)
            host.data.raw(frame(segment(b"x" * 99)) + frame(segment(b"x"))[:5])  # for nobody
    run_a_job(device)
    at_rest(device, [number + len(kept) for number in before])
    assert all(host.reader.is_alive() for host in kept)
    for host in kept:
        host.close()
    run_a_job(device)
    at_rest(device, before)


def test_samplers_exist_once(device):
    before = settled(device.program)
    first, second = Host(device, "a", 0).start(), Host(device, "b", 1)
    for step in Host.STEPS[:3]:
        assert step(second) == reply()
    assert second.replay_start() == reply(1, "start failed")
    assert second.job_stop() == reply(1, "Profiling is not started on device")
    assert first.job_stop() == reply() and first.drain()[0][-1] == "DataChannelFinish"
    assert second.drain()[0] == ["DataChannelFinish"], "what the refused start has ended"
    second.close()
    second = Host(device, "b", 1).start()
    assert second.job_stop() == reply()
    first.close()
    second.close()
    at_rest(device, before)


def test_jobs_overlap_on_two_devices(device):
    before = settled(device.program)
    hosts = [Host(device, "a", 0), Host(device, "b", 1)]
    for host in hosts:
        assert [host.handshake(), host.data_handshake(), host.job_start(LLC)] == [reply()] * 3
        assert host.job_start(LLC) == reply(1, "Create task failed."), "whatever the device"
        assert host.replay_start({8: "read"}) == reply()
    assert work_dirs(device) == ["0", "1", "a", "b"]
    for host in hosts:
        assert host.job_stop() == reply()
        names, last = host.drain()
        assert set(names[:-1]) == {"FileChunkReq"} and names[-1] == "DataChannelFinish"
        assert f'"dev_id":"{host.host_number}"'.encode() in last
        host.close()
    at_rest(device, before)


def test_jobs_leave_nothing(device):
    for i in range(60):
        if i == 10:  # every pool has filled
            before, memory = settled(device.program), resident(device.program)
        host = Host(device, f"n{i}").start()
        assert host.job_stop() == reply() and host.drain()[0][-1] == "DataChannelFinish"
        host.close()
    at_rest(device, before)
    if not SANITIZED:
        assert resident(device.program) <= memory * 1.1


def test_stop_of_the_daemon_ends_jobs_with_their_data():
    with Device() as device:
        daemon = device.daemon()
        host = Host(device).start()
        waiting = [Host(device, job, mode=mode) for job, mode in (
            ("a", ""), ("b", "def_mode"), ("c" * 512, "system-wide"))]
        assert [one.data_handshake() for one in waiting] == [reply()] * 3
        host.first_chunk()
        daemon.send_signal(signal.SIGTERM)
        names, _ = host.drain()
        assert names[-1] == "DataChannelFinish" and "FileChunkReq" in names
        assert daemon.wait(10) == 0
        assert not work_dirs(device)
        assert [one.drain()[0] for one in waiting] == [[]] * 3, "no job has used their sessions"
        host.close()


def test_any_conversation_leaves_a_daemon_that_serves(device):
    chance = random.Random(7)
    packets = [message(name, {**context(), 2: params()}) for name in (
        "JobStartReq", "JobStopReq", "ReplayStartReq", "ReplayStopReq", "FileAck")]
    packets += [message("CtrlChannelHandshake", {1: "j1"}), message("DataChannelHandshake", {1: "j1"}),
                request(5, b""), request(4, b"get"), request(5, bytes(100)), b"", bytes(11)]
    for _ in range(300):
        with Peer(device.hdc) as peer:
            if chance.random() < 0.8:
                peer.message(packets[5 + chance.randrange(2)])
            try:
                for _ in range(chance.randrange(6)):
                    packet = bytearray(chance.choice(packets))
                    for _ in range(chance.randrange(3) if packet else 0):
                        packet[chance.randrange(len(packet))] ^= 1 << chance.randrange(8)
                    peer.message(bytes(packet), limit=chance.choice([7, 524276]))
            except OSError:
                pass  # it has had enough
    settled(device.program)  # a late handshake for the same job would take the place of the next
    again = Host(device).start()
    assert again.job_stop() == reply() and again.drain()[0][-1] == "DataChannelFinish"
    again.close()
    wait_for(lambda: not work_dirs(device), "end of the directories")
    assert device.program.poll() is None
