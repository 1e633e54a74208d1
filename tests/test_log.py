"""Log levels: host tool or raw host, daemon, SysV queue, log daemon and back."""
import json
import threading

import pytest

from device import BIN, Device, wait_for
from wire import Peer, hello, request

END = b"###[HDC_MSG]hdc_end_msg_used_by_framework###"
GONE = b"send message to slogd failed, maybe slogd has been stoped"
SILENT = b"receive message from slogd failed, maybe slogd has been stoped"


@pytest.fixture(scope="module")
def device():
    with Device() as made:
        made.daemon()
        yield made


class LogDaemon:
    """A log daemon beside the daemon, for as long as a test needs it."""

    def __init__(self, device, *switches):
        self.program = device.start(BIN / "orla-slogd", *switches, join=True)
        wait_for(lambda: "serving" in self.program.stdout.readline(), "log daemon")

    def __enter__(self):
        return self

    def __exit__(self, *unused):
        self.program.terminate()
        self.program.wait(10)


def ask(device, value, greeting=hello()):
    """Every message up to the end of the session."""
    seen = []
    with Peer(device.hdc, greeting=greeting) as peer:
        peer.message(request(4, value))
        while True:
            try:
                seen.append(peer.receive())
            except EOFError:
                return seen


def test_answers_and_refusals(device):
    with LogDaemon(device):
        assert ask(device, b"set CORE debug") == [b"++OK++", END]
        query, end = ask(device, b"get CORE")
        assert b"debug" in query and b"[event]" in query and end == END
        assert ask(device, b"nonsense")[0] not in (b"++OK++", query)
        assert ask(device, b"") == [b"level infomtion is illegal", END]
        assert ask(device, b"x" * 1024) == [b"level infomtion is illegal", END]
        assert ask(device, b"x" * 1023)[1:] == [END]
        assert ask(device, b"get", hello(run_env=4)) == [b"not support in virtual env."]
        assert ask(device, b"get", hello(vf_id=1)) == [
            b"multiple hosts use one device, prohibit operating log level"]


def test_without_a_log_daemon(device):
    assert ask(device, b"get") == [GONE, END]


def test_a_late_answer_is_nobody_elses(device):
    with LogDaemon(device, "--delay-ms", "1200"):
        # The second host asks while the first one's answer is still on its way.
        assert ask(device, b"set CORE error") == [SILENT, END]
        assert ask(device, b"get CORE") == [SILENT, END]
    with LogDaemon(device):
        assert ask(device, b"set CORE info") == [b"++OK++", END]


def test_eight_hosts_get_their_own_answers(device):
    answers = {}

    def host(number):
        name = f"module{number}"
        answers[number] = ask(device, f"get {name}".encode())

    with LogDaemon(device):
        threads = [threading.Thread(target=host, args=(n,)) for n in range(8)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
    for number, (text, end) in answers.items():
        assert f"module{number}".encode() in text and end == END


def test_host_tool(device):
    with LogDaemon(device):
        assert device.orlactl("log", "set", "CORE", "error").stdout == "++OK++\n"
        answer = json.loads(device.orlactl("--json", "log", "get", "CORE").stdout)
        assert answer[0]["device"] == 0 and "error" in answer[0]["text"]
        refused = device.orlactl("log", "\x1b[31mnonsense")
        assert refused.returncode == 3 and refused.stdout == "" and "?[31m" in refused.stderr
    assert device.orlactl("log", "get").returncode == 3
    with Device() as nobody:
        assert nobody.orlactl("log", "get").returncode == 4
