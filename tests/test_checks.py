"""The checks of scripts/ find what they are there to find, and nothing else."""
import pathlib
import subprocess

import pytest

TOP = pathlib.Path(__file__).resolve().parent.parent


def check(name, tree):
    result = subprocess.run([TOP / "scripts" / name, tree], capture_output=True, text=True)
    return result.returncode, result.stdout


def write(tree, files):
    for name, text in files.items():
        path = tree / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text)


BARE_TREE = {name: "" for name in (
    "platform/include/hdc_driver.h", "platform/emulation/control.h", "platform/posix/results.h",
    "src/hdc/hdc_api.h", "src/hdc/test_support.h", "src/proto/codec.h", "src/log/log_drv.h",
    "src/log/log_module_names.h", "src/server/velt_device.h", "src/profiling/config/utils.h",
    "src/profiling/config/platform.h", "src/profiling/datapath/uploader.h",
    "src/profiling/collect/prof_job.h", "src/profiling/control/receiver.h",
    "src/daemon/ide_daemon.h", "host/commands.h")}

ALLOWED = [
    ("src/hdc/hdc_api.cpp", "<hdc_driver.h>"),
    ("src/hdc/hdc_api.cpp", '"hdc/hdc_api.h"'),
    ("src/hdc/hdc_api_test.cpp", '"platform/emulation/control.h"'),
    ("src/hdc/test_support.h", '"emulation/control.h"'),
    ("src/log/log_drv.cpp", '"hdc/hdc_api.h"'),
    ("src/profiling/config/utils.cpp", '"hdc/hdc_api.h"'),
    ("src/profiling/config/platform.cpp", '"profiling/config/utils.h"'),
    ("src/profiling/collect/prof_job.cpp", '"proto/profiler.pb.h"'),
    ("src/daemon/ide_daemon.cpp", '"profiling/control/receiver.h"'),
    ("platform/emulation/driver.cpp", '"control.h"'),
    ("platform/standins/slogd.cpp", '"log/log_module_names.h"'),
    ("platform/include/other.h", "<sys/types.h>"),
    ("host/devices.cpp", '"host/commands.h"'),
    ("bench/log_bench.cpp", '"log/log_drv.h"'),
]

REFUSED = [
    ("src/hdc/hdc_api.h", '"log/log_drv.h"'),
    ("src/hdc/hdc_api.cpp", '"platform/emulation/control.h"'),
    ("src/hdc/hdc_api.cpp", '"hdc/test_support.h"'),
    ("src/hdc/hdc_api.cpp", '"hdc_api.h"'),
    ("src/log/log_drv.cpp", '"server/velt_device.h"'),
    ("src/profiling/config/utils.cpp", '"profiling/config/platform.h"'),
    ("src/profiling/config/platform.cpp", '"profiling/datapath/uploader.h"'),
    ("src/profiling/control/receiver.h", '  "daemon/ide_daemon.h"  // why not'),
    ("platform/emulation/driver.cpp", '"hdc/hdc_api.h"'),
    ("platform/standins/slogd.cpp", '"log/log_drv.h"'),
    ("platform/include/other.h", "<cstdint>"),
    ("platform/include/other.h", '"hdc/hdc_api.h"'),
    ("host/devices.cpp", '"log/log_drv.h"'),
    ("src/elsewhere/new.cpp", "<vector>"),
]


def test_allowed_includes_pass(tmp_path):
    write(tmp_path, BARE_TREE)
    for source, name in ALLOWED:
        path = tmp_path / source
        text = path.read_text() if path.exists() else ""
        write(tmp_path, {source: f"{text}#include {name}\n"})
    assert check("check-layers", tmp_path) == (0, "")


@pytest.mark.parametrize("source, name", REFUSED)
def test_refused_include_is_named(tmp_path, source, name):
    write(tmp_path, {**BARE_TREE, source: f"// Comment.\n#include {name}\n"})
    code, out = check("check-layers", tmp_path)
    line = 1 if "elsewhere" in source else 2
    assert code == 1 and out.startswith(f"{source}:{line}: ") and out.count("\n") == 1


def test_skipped_tests_are_counted_and_need_a_reason(tmp_path):
    log = tmp_path / "Testing/Temporary/LastTest.log"
    text = "a_test.cpp:9: Skipped\n{}\n\n[  SKIPPED ] A.B (0 ms)\n" \
           "SKIPPED [2] tests/test_b.py:23: systemd-analyze is missing\n1 passed, 2 skipped in 1 s\n"
    write(tmp_path, {log.relative_to(tmp_path): text.format("no such reason")})
    assert check("skipped", tmp_path) == (
        1, "skipped, 1: not expected: no such reason\n"
           "skipped, 2: not expected: systemd-analyze is missing\nskipped: 3, not expected: 3\n")
    log.write_text("[       OK ] A.B (0 ms)\n25 passed in 34.10s\n")
    assert check("skipped", tmp_path) == (0, "skipped: 0, not expected: 0\n")


def test_sizes_of_an_sdk(tmp_path):
    options = ["-I", tmp_path]
    for header in (TOP / "platform/include").iterdir():
        text = header.read_text().replace("opaque[32]", "opaque[40]").replace("DlogAttr", "LogAttr")
        (tmp_path / header.name).write_text(text)
        options += ["-include", header.name]
    done = subprocess.run([TOP / "scripts/check-sdk", *options], capture_output=True, text=True)
    assert (done.returncode, done.stdout) == (
        1, "app_monitor.h: appmon_client_t has 256 bytes, in the SDK 320\n"
           "device_log.h: DlogAttr has 64 bytes, in the SDK none\n")


@pytest.mark.parametrize("content, fault", [
    (b"see /wor" + b"k/main/x\n", "machine path: file.txt:1:"),
    (b"HOME=/home/some" + b"one/x\n", "machine path: file.txt:1:"),
    (b"one \ntwo\n", "blank at the end of a line: file.txt:1:"),
    (b"\tone\n", "tab: file.txt:1:"),
    (b"one", "no line feed at the end: file.txt"),
    (b"one\0two\n", "not a text: file.txt"),
    (b"/home/SableUser/x /net" + b"work/y ../wor" + b"k/z\n", None),
])
def test_texts(tmp_path, content, fault):
    (tmp_path / "file.txt").write_bytes(content)
    subprocess.run(["git", "init", "-q", tmp_path], check=True)
    subprocess.run(["git", "-C", tmp_path, "add", "."], check=True)
    code, out = check("check-text", tmp_path)
    assert (code, fault is None or out.startswith(fault)) == (0 if fault is None else 1, True), out
