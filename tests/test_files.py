"""Pulling files: the real component, its commands and scripts, and the host tool."""
import contextlib
import json
import os
import pathlib
import resource
import shutil
import struct
import threading

import pytest

from device import Device, settled, threads_and_descriptors, wait_for
from wire import FRAMEWORK, Peer, hello

SLICE = 512000


@pytest.fixture(scope="module")
def served():
    limit = resource.getrlimit(resource.RLIMIT_NOFILE)
    with Device() as device:
        resource.setrlimit(resource.RLIMIT_NOFILE, (min(1024, limit[1]), limit[1]))
        program = device.daemon()
        resource.setrlimit(resource.RLIMIT_NOFILE, limit)
        wait_for(lambda: device.listens(0, FRAMEWORK), "file server")
        yield device, program, settled(program)


@pytest.fixture
def daemon(served):
    device, program, before = served
    for folder in ("sablebox_logs", "coredump"):
        shutil.rmtree(device.root / "var/log/npu" / folder)
        (device.root / "var/log/npu" / folder).mkdir()
    yield device
    assert program.poll() is None
    wait_for(lambda: threads_and_descriptors(program) == before, "return of threads, descriptors")


def put(device, path, content=b"x"):
    file = device.root / path
    file.parent.mkdir(parents=True, exist_ok=True)
    file.write_bytes(content)
    return file


def files(folder):
    return sorted(path.name for path in folder.iterdir() if path.is_file())


def open_files(program):
    """Names without their directories, which lie in the sandbox."""
    names = []
    for link in pathlib.Path(f"/proc/{program.pid}/fd").iterdir():
        with contextlib.suppress(FileNotFoundError):  # closed just now
            names.append(os.readlink(link).rsplit("/", 1)[-1])
    return names


def message(data=b"", kind=0, status=0):
    return struct.pack("<HBBHHIIIHH", 0xC396, 16, 0, 14, 0, len(data), len(data), 0, kind,
                       status) + data


def parse(data):
    magic, version, reserved, kind, device, total, length, offset, control, status = \
        struct.unpack_from("<HBBHHIIIHH", data)
    assert (magic, version, reserved, kind, device) == (0xC396, 16, 0, 14, 0)
    assert len(data) == 24 + length
    return total, offset, control, status, data[24:]


def exchange(device, name, greeting=hello(), acknowledge=message(kind=1, status=6)):
    """Everything that the device sends, as (status or 'control', total, offset, bytes)."""
    seen = []
    with Peer(device.hdc, service=FRAMEWORK, greeting=greeting) as peer:
        peer.message(message(name))
        while True:
            try:
                total, offset, control, status, data = parse(peer.receive())
            except EOFError:
                return seen
            seen.append(("control" if control else "data", status, total, offset, data))
            if not control and status == 0 and offset + len(data) == total:
                peer.message(acknowledge)


END = ("data", 6, 10, 0, b"game_over\0")


def test_bytes_of_the_exchange(daemon):
    assert exchange(daemon, b"bbox") == [END]
    put(daemon, "var/log/npu/sablebox_logs/empty", b"")
    put(daemon, "var/log/npu/sablebox_logs/d/x", b"deep")
    two = os.urandom(SLICE + 1)
    put(daemon, "var/log/npu/sablebox_logs/e", two)
    put(daemon, "var/log/npu/sablebox_logs/left.tmp")
    (daemon.root / "var/log/npu/sablebox_logs/link").symlink_to("e")
    expected = [("data", 6, 5, 0, b"/d/x\0"), ("data", 0, 4, 0, b"deep"),
                ("data", 6, 2, 0, b"e\0"), ("data", 0, SLICE + 1, 0, two[:SLICE]),
                ("data", 0, SLICE + 1, SLICE, two[SLICE:]),
                ("data", 6, 6, 0, b"empty\0"), ("data", 0, 0, 0, b""), END]
    assert exchange(daemon, b"bbox") == expected
    assert exchange(daemon, b"bbox\0ignored") == expected
    for other in (message(kind=1, status=11), message(b"data"), b"short"):
        assert exchange(daemon, b"bbox", acknowledge=other) == expected
    assert sorted(p.name for p in (daemon.root / "var/log/npu/sablebox_logs").iterdir()) == \
        ["d", "e", "empty", "left.tmp", "link"]


@pytest.mark.parametrize("run_env, answer", [
    (2, [("data", 10, 29, 0, b"MESSAGE_CONTAINER_NO_SUPPORT\0")]),
    (4, [("data", 10, 29, 0, b"MESSAGE_CONTAINER_NO_SUPPORT\0")]),
    (3, [END]),
])
def test_run_environment(daemon, run_env, answer):
    assert exchange(daemon, b"bbox", greeting=hello(run_env=run_env)) == answer


def test_bad_requests_are_closed(daemon):
    assert exchange(daemon, b"") == []
    assert exchange(daemon, b"nonsense") == []
    for data in (message(b"slog", kind=1), message(b"slog")[:-1], b"", b"x" * 23,
                 message()[:8] + struct.pack("<I", 0xFFFFFFFF) + message()[12:]):
        with Peer(daemon.hdc, service=FRAMEWORK) as peer:
            if data:
                peer.message(data)
                assert peer.closed(5)


def test_messages_are_prepared_aged_and_left_in_place(daemon):
    for name in ("messages", "messages.1", "messages.99", "messages.100", "messages.x",
                 "messages.tmp", "other", "messages.99999999999"):
        put(daemon, f"var/log/{name}", name.encode())
    seen = exchange(daemon, b"message")
    assert [m[4] for m in seen if m[1] == 6] == [b"messages\0", b"messages.1\0", b"messages.99\0",
                                                 b"game_over\0"]
    assert [m[4] for m in seen if m[1] == 0] == [b"messages", b"messages.1", b"messages.99"]
    assert (daemon.root / "var/log/messages").exists() and daemon.lock.exists()
    assert not list((daemon.root / "home/SableUser/ide_daemon").glob("messages*"))
    daemon.logged("sudo chown -RPf SableUser:SableUser /home/SableUser/ide_daemon/messages.1")


def test_module_files_are_made_by_scripts_and_taken(daemon):
    script = put(daemon, "var/dvpp_proc_collect.sh",
                 b"#!/bin/sh\nmkdir -p /home/SableUser/ide_daemon/module && "
                 b"echo made > /home/SableUser/ide_daemon/module/dvpp\n")
    script.chmod(0o755)
    for _ in range(2):
        assert [m[4] for m in exchange(daemon, b"module_info")] == [b"dvpp\0", b"made\n",
                                                                    b"game_over\0"]
        assert not (daemon.root / "home/SableUser/ide_daemon/module/dvpp").exists()
    # More than the daemon may have open: taken in turns, none of them lost.
    script.unlink()
    names = {f"f{number}".encode() for number in range(1050)}
    for name in names:
        put(daemon, f"home/SableUser/ide_daemon/module/{name.decode()}", name)
    assert {m[4] for m in exchange(daemon, b"module_info") if m[1] == 0} == names
    assert not list((daemon.root / "home/SableUser/ide_daemon/module").iterdir())


def test_driver_files_are_read_in_place_and_others_copied(daemon):
    """By a directory in which no file can be made: what has to be copied is left out."""
    for folder in ("sys/devices/virtual/devdrv_manager/sablecore_manager/node",
                   "var/log/npu/coredump"):
        put(daemon, f"{folder}/closed/queue", b"state\n")
        put(daemon, f"{folder}/secret", b"").chmod(0)
        (daemon.root / folder / "closed").chmod(0o555)
    assert exchange(daemon, b"event_sched") == [("data", 6, 14, 0, b"/closed/queue\0"),
                                                ("data", 0, 6, 0, b"state\n"), END]
    put(daemon, "var/log/npu/coredump/open", b"core")
    assert exchange(daemon, b"stackcore") == [("data", 6, 5, 0, b"open\0"),
                                              ("data", 0, 4, 0, b"core"), END]


@pytest.mark.parametrize("kind, folder", [(b"bbox", "var/log/npu/sablebox_logs"),
                                          (b"message", "var/log")])
def test_a_file_that_is_rewritten_meanwhile_arrives_as_it_was(served, daemon, kind, folder):
    for old in (daemon.root / "var/log").glob("messages*"):
        old.unlink()
    before = os.urandom(8 * SLICE)  # more than a session holds, so the rest is still to be read
    source = put(daemon, f"{folder}/messages", before)
    names = files(source.parent)
    with Peer(daemon.hdc, service=FRAMEWORK) as peer:
        peer.message(message(kind))
        assert parse(peer.receive())[4] == b"messages\0"
        source.write_bytes(b"y" * 9 * SLICE)
        assert files(source.parent) == names
        assert files(daemon.lock.parent) == [daemon.lock.name]
        # What was prepared is sent, and not copied again.
        assert ("messages (deleted)" in open_files(served[1])) == (kind == b"message")
        assert b"".join(parse(peer.receive())[4] for _ in range(8)) == before
        peer.message(message(kind=1, status=6))
        assert parse(peer.receive())[4] == b"game_over\0"


def test_a_short_copy_is_told(served, daemon, tmp_path):
    """A limit on the size of files in place of a full disk."""
    program = served[1]
    with open(put(daemon, "var/log/npu/coredump/long"), "wb") as file:
        file.truncate(64 << 20)
    put(daemon, "var/log/npu/coredump/small", b"core")
    limit = resource.prlimit(program.pid, resource.RLIMIT_FSIZE, (63 << 20, -1))
    seen = exchange(daemon, b"stackcore")
    result = daemon.orlactl("pull", "stackcore", "-o", tmp_path)
    resource.prlimit(program.pid, resource.RLIMIT_FSIZE, limit)
    assert seen == [("data", 6, 5, 0, b"long\0"), ("control", 4, 0, 0, b""),
                    ("data", 6, 6, 0, b"small\0"), ("data", 0, 4, 0, b"core"), END]
    assert result.returncode == 5 and "stackcore/long: " in result.stderr
    assert [p.name for p in (tmp_path / "stackcore").iterdir()] == ["small"]


def test_names_of_all_kinds_arrive_as_they_are(daemon, tmp_path):
    names = ["a b'c;touch x.log", "quote\"d", "line\nfeed", "$(id)", "-rf", "n" * 255, "*",
             "game_over", "d/e/f/deep", "..."]
    for name in names:
        put(daemon, f"var/log/npu/coredump/{name}", name.encode())
    result = daemon.orlactl("pull", "stackcore", "-o", tmp_path, "--json")
    assert result.returncode == 0, result.stderr
    pulled = {f["name"].lstrip("/").replace("//", "/")
              for f in json.loads(result.stdout)[0]["files"]}
    assert pulled == set(names)
    for name in names:
        assert (tmp_path / "stackcore" / name).read_bytes() == name.encode()
    assert not list((daemon.root / "home/SableUser").rglob("x.log"))
    assert len([p for p in tmp_path.rglob("*") if p.is_file()]) == len(names)


def ready(daemon):
    """How many files have been made ready to be sent."""
    return sum("preprocess message/event_sched file finished" in line for line in daemon.lines())


def test_the_walk_ends_with_its_session(daemon):
    put(daemon, "var/log/npu/sablebox_logs/0", os.urandom(3 * SLICE))
    for number in range(1, 300):
        put(daemon, f"var/log/npu/sablebox_logs/{number}")
    failed = "end of processing [TransferFile] component failed"
    for messages in range(4):
        before, ends = ready(daemon), sum(failed in line for line in daemon.lines())
        with Peer(daemon.hdc, service=FRAMEWORK) as peer:
            peer.message(message(b"bbox"))
            for _ in range(messages):
                peer.receive()
        daemon.logged(failed, ends + 1)
        assert ready(daemon) - before <= 2
    # Module files go all the same, those that were not copied yet included.
    for number in range(300):
        put(daemon, f"home/SableUser/ide_daemon/module/{number}", os.urandom(3000))
    before = ready(daemon)
    with Peer(daemon.hdc, service=FRAMEWORK) as peer:
        peer.message(message(b"module_info"))
        peer.receive()
    wait_for(lambda: not list((daemon.root / "home/SableUser/ide_daemon/module").iterdir()),
             "removal of the module files")
    assert ready(daemon) - before < 300


def test_nothing_is_left_by_a_daemon_that_is_killed():
    with Device() as device:
        program = device.daemon()
        wait_for(lambda: device.listens(0, FRAMEWORK), "file server")
        put(device, "var/log/npu/sablebox_logs/large", os.urandom(8 * SLICE))
        put(device, "var/log/messages", os.urandom(8 * SLICE))
        with Peer(device.hdc, service=FRAMEWORK) as bbox, \
                Peer(device.hdc, service=FRAMEWORK) as system:
            for peer, kind in ((bbox, b"bbox"), (system, b"message")):
                peer.message(message(kind))
                peer.receive()
            program.kill()
            program.wait()
        assert files(device.root / "var/log/npu/sablebox_logs") == ["large"]
        assert files(device.root / "var/log") == ["messages"]
        assert files(device.lock.parent) == [device.lock.name]


def test_a_script_holds_nobody_up(daemon):
    folder = daemon.root / "home/SableUser/ide_daemon/module"
    script = put(daemon, "var/dvpp_proc_collect.sh",
                 f"#!/bin/sh\necho made > {folder}/dvpp\n".replace(str(daemon.root), "").encode()
                 + b"until [ -e /tmp/go ]; do sleep 0.1; done\n")
    script.chmod(0o755)
    put(daemon, "var/log/messages", b"system log")
    seen = []
    folder.mkdir(exist_ok=True)
    thread = threading.Thread(target=lambda: seen.extend(exchange(daemon, b"module_info")))
    thread.start()
    try:
        wait_for(lambda: (folder / "dvpp").exists(), "script")
        assert exchange(daemon, b"message")[1:] == [("data", 0, 10, 0, b"system log"), END]
        assert exchange(daemon, b"bbox") == [END] and thread.is_alive()
    finally:
        put(daemon, "tmp/go")
        thread.join()
        script.unlink()
    assert [m[4] for m in seen] == [b"dvpp\0", b"made\n", b"game_over\0"]


def in_parallel(work, count):
    threads = [threading.Thread(target=work, args=(n,)) for n in range(count)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()


def test_twenty_pulls_at_once(daemon, tmp_path):
    content = os.urandom(2 * SLICE)
    put(daemon, "var/log/npu/sablebox_logs/large", content)
    put(daemon, "var/log/messages", b"system log")
    results = {}

    def pull(number):
        results[number] = daemon.orlactl("pull", "bbox", "message", "-o", tmp_path / str(number))

    in_parallel(pull, 20)
    for number, result in results.items():
        assert result.returncode == 0, result.stderr
        assert (tmp_path / str(number) / "bbox/large").read_bytes() == content
        assert (tmp_path / str(number) / "message/messages").read_bytes() == b"system log"
    assert len(results) == 20


def test_sessions_of_one_host_process_do_not_take_each_others_copies(daemon):
    contents = [os.urandom(8 * SLICE) for _ in range(3)]
    for number, content in enumerate(contents):
        put(daemon, f"var/log/npu/sablebox_logs/{number}", content)
    results = {}

    def pull(number):
        results[number] = exchange(daemon, b"bbox", greeting=hello(pid=77))

    in_parallel(pull, 4)
    for seen in results.values():
        assert seen[-1] == END
        assert b"".join(m[4] for m in seen if m[1] == 0) == b"".join(contents)
    assert len(results) == 4


def test_host_tool_tells_refusals_from_silence(daemon, tmp_path):
    assert daemon.orlactl("pull", "nonsense", "-o", tmp_path).returncode == 3
    daemon.environment["ORLA_HDC_RUN_ENV"] = "2"
    refused = daemon.orlactl("pull", "bbox", "-o", tmp_path)
    del daemon.environment["ORLA_HDC_RUN_ENV"]
    assert refused.returncode == 3 and "MESSAGE_CONTAINER_NO_SUPPORT" in refused.stderr
    assert daemon.orlactl("pull").returncode == 2
    assert not list(tmp_path.iterdir())
