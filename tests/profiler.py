"""A host that profiles a device, step by step, and what its device gives back afterwards."""
import json
import struct
import threading

from device import threads_and_descriptors, wait_for
from wire import PACKAGE, Peer, fields, message, request

TWO = {"devices": [{"logical": 0, "physical": 0}, {"logical": 1, "physical": 1}]}
SAMPLING = json.dumps({"sys_profiling": "on", "pid_profiling": "on"})
LLC = json.dumps({"tracelet_llc_profiling": "on"})
HOST_NUMBER = 7  # of device 0, as its host counts
REFUSED_CONTAINER = request(5, b"MESSAGE_CONTAINER_NO_SUPPORT")


def reply(status=0, info=""):
    text = f'{{"dev_id":"-1","info":"{info}","status":{status}}}'
    return message("Response", {**({3: status} if status else {}), 4: text})


def context(job="j1", host_number=HOST_NUMBER):
    return {1: fields({2: json.dumps({"dev_id": str(host_number), "job_id": job})})}


def params(job="j1", config=SAMPLING):
    return json.dumps({"job_id": job, **json.loads(config)})


def work_dirs(device):
    return sorted(p.name for p in (device.root / "var/log/npu/profiling").iterdir())


class Host:
    """One job of one host, step by step; each step returns the device's reply."""

    def __init__(self, device, job="j1", number=0, mode="def_mode", reads=True):
        self.device, self.job, self.number, self.mode = device, job, number, mode
        self.host_number = HOST_NUMBER + number
        self.control = self.data = None
        self.reader = threading.Thread(target=self.read) if reads else None
        self.names, self.last = [], b""

    def handshake(self):
        self.control = Peer(self.device.hdc, device=self.number)
        self.control.message(message("CtrlChannelHandshake", {1: self.job, 2: self.host_number,
                                                              3: self.mode}))
        return self.control.receive()

    def data_handshake(self):
        self.data = Peer(self.device.hdc, device=self.number)
        self.data.message(message("DataChannelHandshake", {1: self.job, 3: self.mode}))
        answer = self.data.receive()
        if self.reader is not None:
            self.reader.start()
        return answer

    def read(self):
        """Takes what comes, as a host must, or the device waits for it at the stop."""
        try:
            while True:
                self.last = self.data.receive()
                size = struct.unpack_from(">I", self.last, 12)[0]
                self.names.append(self.last[16:16 + size - 1].decode().removeprefix(PACKAGE))
        except (EOFError, OSError):
            pass

    def ask(self, name, values=None):
        self.control.message(message(name, {**context(self.job, self.host_number), **(values or {})}))
        return self.control.receive()

    def job_start(self, config=SAMPLING):
        return self.ask("JobStartReq", {2: params(self.job, config)})

    def replay_start(self, values=None):
        return self.ask("ReplayStartReq", values)

    def replay_stop(self):
        return self.ask("ReplayStopReq")

    def job_stop(self):
        return self.ask("JobStopReq")

    STEPS = [handshake, data_handshake, job_start, replay_start]

    def start(self):
        # The host before may have gone only just now.
        wait_for(lambda: self.handshake() == reply(), "handshake")
        for step in self.STEPS[1:]:
            assert step(self) == reply(), step.__name__
        return self

    def first_chunk(self):
        wait_for(lambda: "FileChunkReq" in self.names, "chunk")

    def drain(self):
        """Names of all messages up to the end of the data session, and the last message."""
        self.reader.join(30)
        return self.names, self.last

    def close(self):
        for session in (self.control, self.data):
            if session is not None:
                session.shut()


def at_rest(device, before):
    def back():
        threads, descriptors = threads_and_descriptors(device.program)
        return threads <= before[0] and descriptors <= before[1] + 1 and not work_dirs(device)
    wait_for(back, f"threads, descriptors {before} and directories")
