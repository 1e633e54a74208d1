"""What a stranger sends costs what it is worth: memory, time, and nothing that others need."""
import pathlib
import struct

import pytest

from device import SANITIZED, Device
from wire import PACKAGE, Peer, fields, message, request

MIB = 1024  # in KiB, as the system counts a process's memory


@pytest.fixture(scope="module")
def device():
    with Device() as made:
        made.program = made.daemon()
        yield made


class Peak:
    """How far the daemon's resident memory rises, in KiB."""

    def __init__(self, program):
        self.folder = pathlib.Path(f"/proc/{program.pid}")
        (self.folder / "clear_refs").write_text("5")  # the peak starts from what there is now
        self.before = self.value()

    def value(self):
        lines = (self.folder / "status").read_text().splitlines()
        return next(int(line.split()[1]) for line in lines if line.startswith("VmHWM:"))

    def stays_below(self, limit):
        return SANITIZED or self.value() - self.before < limit


def test_a_first_request_is_refused_when_it_passes_its_limit(device):
    peak = Peak(device.program)
    with Peer(device.hdc) as peer:
        with pytest.raises(OSError):
            peer.message(request(16, bytes(300_000_000)))
    assert peak.stays_below(8 * MIB)
    with Peer(device.hdc) as peer:
        peer.message(request(16, bytes(3 << 20)))
        assert peer.closed()
    device.logged("req->type: 16, Invalid request")


def test_commands_cost_their_bytes(device):
    """Types that nobody acts on, and JSON that takes a reader's time, each of some MB."""
    wide = '{"x":[' + ",".join(["{}"] * 700_000) + "]}"
    context = '{"dev_id":"0","job_id":"j1"}'
    kind = (PACKAGE + "InfoMain").encode() + b"\0"
    unwanted = struct.pack(">I", len(kind)) + kind + b"\x5a\0" * 12_000_000
    with Peer(device.hdc) as control:
        control.message(message("CtrlChannelHandshake", {1: "j1", 2: 0, 3: "def_mode"}))
        assert b"status" in control.receive()
        peak = Peak(device.program)
        control.message(request(5, unwanted))
        control.message(message("JobStopReq", {1: fields({2: "x" * (4 << 20)})}))
        control.message(message("JobStopReq", {1: fields({2: wide})}))
        control.message(message("JobStartReq", {1: fields({2: context}), 2: wide}))
        assert b'"status":1' in control.receive()  # the last, and the only one to be answered
        assert peak.stays_below(100 * MIB)
