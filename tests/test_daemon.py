"""The life of the daemon and its request loop, seen from outside."""
import os
import random
import select
import signal
import struct
import time

import pytest

from device import BIN, Device, end, settled, threads_and_descriptors, wait_for
from wire import FRAMEWORK, MAX_SEGMENT, REQUESTS, Peer, frame, hello, request, segment


@pytest.fixture(scope="module")
def served():
    """A running daemon, which every test must leave as it found it."""
    with Device() as device:
        program = device.daemon()
        wait_for(lambda: device.listens(0, FRAMEWORK), "file server")
        yield device, program, settled(program)


@pytest.fixture
def daemon(served):
    device, program, before = served
    yield device
    assert program.poll() is None
    wait_for(lambda: threads_and_descriptors(program) == before, "return of threads, descriptors")


def is_served(device, number=0):
    """A request that names no component reaches the end of the loop: closed, and logged."""
    words = "req->type: 16, Invalid request or no hdc process func register"
    before = sum(words in line for line in device.lines())
    with Peer(device.hdc, number) as peer:
        peer.message(request(16, b"x"))
        assert peer.closed(5)
    device.logged(words, before + 1)
    return True


def test_standard_output_is_read_while_the_daemon_runs():
    with Device() as device:
        config = device.root / "var/log/npu/conf/slog/slog.conf"
        config.parent.mkdir(parents=True)
        config.write_text("logAgentFileDir=/proc/nowhere\n")
        program = device.daemon()
        assert select.select([program.stdout], [], [], 10)[0], "nothing is said"
        assert "[WARNING]" in program.stdout.readline()
        assert program.poll() is None


def test_a_device_goes_and_comes():
    flaps = {"up_ms": 1500, "down_ms": 300, "count": 3}
    with Device({"devices": [{"logical": 0}, {"logical": 1, "flaps": flaps}]}) as device:
        program = device.daemon()
        services = (REQUESTS, FRAMEWORK)
        for there in (True, False, True):
            wait_for(lambda: all(device.listens(1, each) == there for each in services),
                     f"device that is {'there' if there else 'gone'}")
        assert is_served(device) and is_served(device, 1)
        assert end(program)[0] == 0


def test_only_one_instance_and_stop_in_order():
    with Device() as device:
        first = device.daemon()
        assert device.lock.stat().st_mode & 0o777 == 0o600
        for _ in range(2):  # a loser must leave the lock file in place for the next one
            other = device.start(BIN / "orla", join=True)
            assert other.wait(10) == 255
            assert "orla is exist, don't start again" in other.stdout.read()
            assert device.lock.exists()
        code, seconds = end(first)
        assert code == 0 and seconds < 2
        assert not device.lock.exists() and not device.listens()
        order = ["Daemon Init done", "Hdc Create HdcServer Exit", "Components Destroy success.",
                 "SACleanup success.", "orla start up exit"]
        found = [next(i for i, line in enumerate(device.lines()) if words in line)
                 for words in order]
        assert found == sorted(found)


def test_starts_again_after_a_kill():
    with Device() as device:
        code, _ = end(device.daemon(), signal.SIGKILL)
        assert code == -signal.SIGKILL and device.lock.exists() and device.listens()
        wait_for(lambda: not (device.root / ".sandbox").exists(), "end of the sandbox")
        again = device.daemon()
        assert is_served(device)
        assert end(again, signal.SIGINT)[0] == 0


def test_stop_while_no_device_is_there():
    with Device(scenario={"devices": []}) as device:
        program = device.start(BIN / "orla")
        device.logged("Device Counts: 0")
        code, seconds = end(program)
        assert code == 0 and seconds < 2


def test_stop_while_the_driver_does_not_answer(tmp_path):
    broken = tmp_path / "broken.json"
    broken.write_text("{")
    with Device() as device:
        device.environment["ORLA_SCENARIO"] = str(broken)
        program = device.start(BIN / "orla")
        device.logged("Get physical device number failed")
        assert end(program)[0] == 0


def test_stop_while_an_accept_is_blocked():
    with Device(scenario={"liberties": {"accept_may_block": True}}) as device:
        program = device.daemon()
        wait_for(lambda: device.listens(0, FRAMEWORK), "file service")
        with Peer(device.hdc, service=FRAMEWORK, greeting=b""):
            device.logged("sock connect EpollWait")
            code, seconds = end(program)
        assert code == 0 and seconds < 5


MALFORMED = {
    "empty value": request(16, b""),
    "len one too small": request(4, b"abc", stated=2),
    "len one too large": request(4, b"abc", stated=4),
    "len that wraps": request(4, b"abc", stated=0xFFFFFFFF),
    "no handler for 15": request(15, b"abc"),
    "unknown type": request(99, b"abc"),
    **{f"only {n} bytes": request(4, b"")[:n] for n in range(1, 12)},
}


@pytest.mark.parametrize("message", MALFORMED.values(), ids=MALFORMED.keys())
def test_malformed_request_closes_the_session(daemon, message):
    with Peer(daemon.hdc) as peer:
        peer.message(message)
        assert peer.closed(5)
    assert is_served(daemon)


BROKEN_FRAMES = {
    "segment of another type": frame(segment(b"abc", kind=175)),
    "segment that states more than it has": frame(segment(b"abc", stated=16)),
    "segment shorter than its header": frame(b"\0" * 8),
    "empty message": frame(segment(b"")),
    "frame of length 0": struct.pack("<I", 0),
    "frame above the maximum": struct.pack("<I", MAX_SEGMENT + 1),
    "frame of 4 GiB": struct.pack("<I", 0xFFFFFFFF),
}


@pytest.mark.parametrize("data", BROKEN_FRAMES.values(), ids=BROKEN_FRAMES.keys())
def test_broken_segment_closes_the_session(daemon, data):
    with Peer(daemon.hdc) as peer:
        peer.raw(data)
        assert peer.closed(5)
    assert is_served(daemon)


def test_message_of_many_segments_is_joined(daemon):
    for length in (1, 100, 5000):
        with Peer(daemon.hdc) as peer:
            peer.message(request(16, os.urandom(length)), limit=7)
            assert peer.closed(5)
        daemon.logged(f"received default request, type 16, req->dev_id=0, phyDevId=0.")
    assert is_served(daemon)


def test_peer_killed_at_any_byte(daemon):
    stream = hello() + frame(segment(request(4, b"abc")[:7], last=0)) + frame(
        segment(request(4, b"abc")[7:]))
    for cut in range(len(stream)):
        Peer(daemon.hdc, greeting=stream[:cut]).close()
    assert is_served(daemon)


def test_garbage_of_all_kinds(daemon):
    dice = random.Random(20261122)
    for _ in range(200):
        with Peer(daemon.hdc, greeting=dice.choice([hello(), hello(magic=b"XHDC"),
                                                    hello(version=2), b""])) as peer:
            try:
                peer.raw(dice.randbytes(dice.randrange(1, 2000)))
            except OSError:
                pass  # refused before all was written
    assert is_served(daemon)


def test_silent_clients_delay_nobody(daemon):
    silent = [Peer(daemon.hdc, greeting=b"") for _ in range(100)]
    silent += [Peer(daemon.hdc, greeting=hello()[:n % 24]) for n in range(100)]
    started = time.monotonic()
    assert is_served(daemon)
    assert time.monotonic() - started < 5
    for peer in silent:
        peer.close()


def test_silent_session_is_closed_after_ten_seconds(daemon):
    started = time.monotonic()
    with Peer(daemon.hdc) as idle, Peer(daemon.hdc) as dripping:
        dripping.raw(frame(segment(b"head", last=0)))
        assert idle.closed(20)
        assert time.monotonic() - started > 9
        assert dripping.closed(20)
    assert time.monotonic() - started < 20
    daemon.logged("no received request in 142 times")


def test_host_tool_lists_devices(daemon):
    result = daemon.orlactl("devices", "--json")
    assert result.returncode == 0, result.stderr
    assert '"requests": true' in result.stdout
    assert daemon.orlactl("devices", "--no-such-option").returncode == 2
    with Device() as nobody:
        assert nobody.orlactl("devices").returncode == 4
