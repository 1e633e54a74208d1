"""The host tool's pull against a device that lies, breaks off or falls silent."""
import contextlib
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
from wire import FRAMEWORK, frame, segment


def data(payload, status=0, total=None, offset=0):
    total = len(payload) if total is None else total
    return struct.pack("<HBBHHIIIHH", 0xC396, 16, 0, 14, 0, total, len(payload), offset, 0,
                       status) + payload


def name(text):
    return data(text + b"\0", status=6)


BROKE_OFF = struct.pack("<HBBHHIIIHH", 0xC396, 16, 0, 14, 0, 0, 0, 0, 1, 4)
END = name(b"game_over")
WHOLE = [name(b"good"), data(b"content")]


def pull(answers, *options, silent=False, keep=()):
    """The exit code, and for each file its problem, of a pull from a device that sends answers."""
    with tempfile.TemporaryDirectory(prefix="orla-", dir="/tmp") as folder, \
            socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as listener:
        listener.bind(f"{folder}/0.{FRAMEWORK}")
        listener.listen()

        def serve():
            peer, _ = listener.accept()
            with peer:
                peer.recv(4096)
                for answer in answers:
                    peer.sendall(frame(segment(answer)))
                if not silent:
                    peer.shutdown(socket.SHUT_WR)
                while peer.recv(4096):  # until the tool has gone, so that nothing is reset
                    pass

        device = threading.Thread(target=serve)
        device.start()
        result = subprocess.run([BIN / "orlactl", "pull", "slog", "--json", "-o", f"{folder}/out",
                                 *options], capture_output=True, text=True, timeout=60,
                                env=dict(os.environ, ORLA_HDC_DIR=folder), check=False)
        device.join()
        written = {os.path.relpath(os.path.join(where, file), folder)
                   for where, _, files in os.walk(folder) for file in files}
        written.discard(f"0.{FRAMEWORK}")
        files = {file["name"]: file["problem"] for file in json.loads(result.stdout)[0]["files"]}
        return result.returncode, files, written


GOOD_ONLY = {"out/slog/good"}


@pytest.mark.parametrize("foreign", [b"../up", b"/../../up", b"a/../../up", b"..", b"dir/", b"",
                                     b"d/" * 8 + b"deep"])
def test_names_that_would_leave_the_directory_are_refused(foreign):
    code, files, written = pull([name(foreign), data(b"evil"), *WHOLE, END])
    assert code == 5 and written == GOOD_ONLY
    assert files == {foreign.decode(): "the name would leave the directory", "good": ""}


@pytest.mark.parametrize("answers", [
    [name(b"bad"), data(b"ab", total=4), BROKE_OFF],
    [name(b"bad"), BROKE_OFF],
    [name(b"game_over"), BROKE_OFF],
    [name(b"bad"), data(b"ab", total=4)],
], ids=["in the middle", "at once", "named like the end", "without a word"])
def test_a_file_that_breaks_off_is_named(answers):
    code, files, written = pull([*answers, *WHOLE, END])
    bad = answers[0][24:-1].decode()
    assert code == 5 and written == GOOD_ONLY and files["good"] == "" and files[bad] != ""


@pytest.mark.parametrize("answers", [
    [data(b"nameless")],
    [name(b"bad"), data(b"ab", total=4, offset=1)],
    [name(b"bad"), data(b"ab", total=1)],
    [name(b"bad"), data(b"ab", total=4), data(b"cd", total=6, offset=2)],
    [name(b"bad"), data(b"ab", total=4), b"short"],
    [name(b"bad"), data(b"ab", total=4)[:-1]],
    [name(b"bad"), b"\0" + data(b"ab", total=4)[1:]],
    [name(b"bad"), *[data(b"", total=4)] * 1001],
    [],
], ids=["no name", "gap", "too much", "size changes", "no header", "slice cut", "no magic", "no content", "end is missing"])
def test_what_makes_no_sense_ends_the_pull(answers):
    code, files, written = pull([*WHOLE, *answers])
    assert code == 5 and written == GOOD_ONLY
    assert files.pop("good") == "" and all(files.values())
    assert list(files) == (["bad"] if len(answers) > 1 else [])


def test_what_would_take_without_end_is_refused():
    code, files, written = pull([*WHOLE, name(b"//good"), data(b"other"), name(b"x" * 4097)])
    assert code == 5 and written == GOOD_ONLY
    assert files == {"good": "", "//good": "an earlier file has this name"}


def test_silence_is_no_end():
    assert pull([*WHOLE, name(b"game_over")], "--timeout", "1", silent=True)[0] == 5
    assert pull([], "--timeout", "1", silent=True)[0] == 4


def holds_half_a_file(pid, folder):
    for number in os.listdir(f"/proc/{pid}/fd"):
        with contextlib.suppress(FileNotFoundError):  # closed just now
            link = pathlib.Path(f"/proc/{pid}/fd/{number}")
            if os.readlink(link).startswith(f"{folder}/#") and link.stat().st_size == 2:
                return True
    return False


def test_an_interrupted_pull_leaves_whole_files_only():
    with tempfile.TemporaryDirectory(prefix="orla-", dir="/tmp") as folder, \
            socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as listener:
        try:
            os.close(os.open(folder, os.O_WRONLY | os.O_TMPFILE))
        except OSError:
            pytest.skip("no file here can be without a name")
        listener.bind(f"{folder}/0.{FRAMEWORK}")
        listener.listen()
        with subprocess.Popen([BIN / "orlactl", "pull", "slog", "-o", f"{folder}/out",
                               "--timeout", "30"], env=dict(os.environ, ORLA_HDC_DIR=folder)) as tool:
            peer, _ = listener.accept()
            with peer:
                for answer in [*WHOLE, name(b"bad"), data(b"ab", total=4)]:
                    peer.sendall(frame(segment(answer)))
                wait_for(lambda: holds_half_a_file(tool.pid, f"{folder}/out/slog"), "half a file")
                tool.send_signal(signal.SIGINT)
                tool.wait(30)
        assert os.listdir(f"{folder}/out/slog") == ["good"]


def test_a_directory_that_cannot_be_made_is_a_usage_error():
    result = subprocess.run([BIN / "orlactl", "pull", "slog", "-o", "/proc/none"],
                            capture_output=True, text=True, timeout=60, check=False)
    assert result.returncode == 2 and "/proc/none: " in result.stderr
