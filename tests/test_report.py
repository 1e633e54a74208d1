"""The host tool's report on directories as they come from a device, a crash or an attacker."""
import json
import os
import subprocess

import pytest

from device import BIN, Device, wait_for
from profiler import TWO

CPU = "cpu  {0} 0 {0} {0} 0 0 0 0 0 0\ncpu0 0 0 0 {0} 0 0 0 0\ncpu5 {0} 0 {0} {0} 0 0 0 0 0 0\n"


def record(index, data):
    return f"TimeStamp:{(index + 1) * 200_000_000}\nIndex:{index}\nDataLen:{len(data)}\n{data}\n"


@pytest.fixture(name="folder")
def fixture_folder(tmp_path):
    (tmp_path / "data").mkdir()
    (tmp_path / "data/SystemCpuUsage.data").write_text(
        "".join(record(i, CPU.format(i * 10)) for i in range(10)))
    (tmp_path / "data/ai_ctrl_cpu.data").write_text("r11 <5>\nr8 <7>\n")
    (tmp_path / "manifest.json").write_text(json.dumps(
        {"device": 3, "asked": {"parameters": {"cpu_sampling_interval": 200}}}))
    return tmp_path


def report(folder, *options):
    result = subprocess.run([BIN / "orlactl", "report", folder, *options], capture_output=True,
                            text=True, timeout=60, check=False)
    return result.returncode, result.stdout, result.stderr


def test_a_report_says_the_same_everywhere(folder):
    code, text, _ = report(folder)
    assert code == 0 and "user 33.3 %" in text and "data/ai_ctrl_cpu.data: 15 B, 2 lines" in text
    summary = json.loads(report(folder, "--json")[1])[0]
    assert summary["cpu_percent"]["user"] == 33.33 and summary["seconds"] == 1.8
    sampling = summary["sampling"][0]
    assert (sampling["asked_ms"], sampling["mean_ms"], sampling["gaps"]) == (200, 200, 0)
    page = (folder / "report.html").read_text()
    assert "Dygraph" in page and "r11 \\u003c5>" in page
    assert "<link" not in page and "<script src" not in page
    assert "cpu5 66.7 % (peak 66.7 %), cpu0 0.0 %" in text
    assert summary["cores"][1] == {"number": 5, "busy_percent": 66.67, "busy_peak_percent": 66.67}
    events = json.loads((folder / "trace.json").read_text())["traceEvents"]
    counters = {event["name"]: event["args"] for event in events if event["ph"] == "C"}
    assert "CPU %" in counters and counters["single processors %"] == {"cpu0": 0, "cpu5": 66.67}


def test_damage_costs_its_records_only(folder):
    file = folder / "data/SystemCpuUsage.data"
    file.write_bytes(file.read_bytes()[:-7])
    (folder / "manifest.json").write_text("{")
    (folder / "data/7-CpuUsage.data").write_bytes(os.urandom(4096))
    os.mkfifo(folder / "data/8-CpuUsage.data")
    (folder / "data/9-CpuUsage.data").symlink_to("/etc/passwd")
    code, text, _ = report(folder, "--json")
    summary = json.loads(text)[0]
    found = {each["source"]: each for each in summary["sampling"]}
    assert code == 0 and summary["problems"]
    assert (found["cpu"]["samples"], found["cpu"]["damaged"]) == (9, 1)
    assert found["process_cpu"]["files"] == 1 and found["process_cpu"]["samples"] == 0


def test_a_link_at_its_own_files_is_not_followed(folder):
    victim = folder / "victim"
    victim.write_text("mine")
    (folder / "report.html").symlink_to(victim)
    assert report(folder)[0] == 0
    assert victim.read_text() == "mine" and not (folder / "report.html").is_symlink()


def test_a_bad_directory_costs_itself(folder, tmp_path_factory):
    empty = tmp_path_factory.mktemp("empty")
    for bad, words in ((empty, "no profile"), (empty / "none", "no such directory")):
        code, text, error = report(bad, folder, "--json")
        assert code == 2 and words in error
        assert [each["directory"] for each in json.loads(text)] == [str(folder)]


def test_a_failed_profile_is_told_everywhere_and_needs_no_place(folder):
    (folder / "manifest.json").write_text(json.dumps(
        {"device": 3, "job": "j1", "began": "2026-01-02T03:04:05Z", "state": "failed", "code": 5,
         "reason": "the end\u001b did not come", "silent": ["pids"], "files": [
             {"name": "data/x", "problem": "No space", "dropped": 7}, {"name": 5, "dropped": "x"}]}))
    code, text, error = report(folder, "-o", "/proc/none")
    assert code == 2 and "/proc/none" in error and not (folder / "report.html").exists()
    for words in ("Device 3, job j1, began 2026-01-02T03:04:05Z", "failed (5): the end? did not come",
                  "data/x: 7 chunks were not stored: No space"):
        assert words in text
    summary = json.loads(report(folder, "--json", "--no-files")[1])[0]
    assert (summary["state"], summary["dropped_chunks"], summary["device"]) == ("failed", 7, 3)
    other = folder / "other"
    assert report(f"{folder}/", "-o", other)[0] == 0
    assert sorted(path.name for path in (other / folder.name).iterdir()) == ["report.html", "trace.json"]
    assert "7 chunks were not stored" in (other / folder.name / "report.html").read_text()


@pytest.mark.parametrize("asked", ["[1]", "[" * 200_000 + "]" * 200_000], ids=["list", "deep"])
def test_a_strange_manifest_costs_what_it_says_only(folder, asked):
    (folder / "manifest.json").write_text('{"asked":' + asked + "}")
    assert report(folder)[0] == 0


def test_devices_of_one_card_share_a_job_and_its_report_is_of_the_machine():
    with Device(TWO) as device:
        device.daemon()
        wait_for(lambda: device.listens(1), "second device")
        done = device.orlactl("profile", "-d", "0-1", "--duration", "1", "--json", "-o",
                              device.root / "out")
        first, second = json.loads(done.stdout)
        assert done.returncode == 0, done.stderr
        assert first["state"] == "done" and first["ended_by"] == "duration"
        assert second["served_by"] == 0 and second["directory"] == ""
        assert os.listdir(device.root / "out") == [os.path.basename(first["directory"])]
        summary = json.loads(report(first["directory"], "--json")[1])[0]
        assert summary["processors"] == len(summary["cores"]) == os.cpu_count()
        assert summary["page_size"] == os.sysconf("SC_PAGE_SIZE") and summary["page_size_known"]
        assert sum(summary["cpu_percent"].values()) == pytest.approx(100, abs=0.1)
        assert 0.5 < summary["seconds"] < 5 and summary["memory"]["used_peak"] > 0
        own = [each for each in summary["largest"] + summary["busiest"] if each["resident_peak"]]
        assert own and all(each["name"] and each["threads"] for each in own)
        assert all(each["samples"] and not each["damaged"] for each in summary["sampling"])
        # What somebody else holds is still refused.
        holder = device.root / "held"
        with subprocess.Popen([BIN / "orlactl", "profile", "-d", "1", "-o", holder],
                              env=dict(device.environment, ORLA_HDC_DIR=str(device.hdc),
                                       ORLA_LOG_FILE="/dev/null"),
                              stdout=subprocess.DEVNULL) as stranger:
            wait_for(lambda: list(holder.glob("*/data/Memory.data")), "a stranger's samples")
            refused = device.orlactl("profile", "-d", "0", "--duration", "1")
            stranger.terminate()
        assert refused.returncode == 3 and "held by a job" in refused.stderr
