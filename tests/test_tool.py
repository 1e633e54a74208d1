"""The host tool's command line and its standard streams. No daemon is there."""
import json
import os
import subprocess

import pytest

from device import BIN


@pytest.mark.parametrize("line, code, words", [
    ("bogus", 2, "bogus: no such command"),
    ("-d 0 bogus", 2, "bogus: no such command"),
    ("log -d 0 get", 4, "no daemon listens"),
    ("log -d 0 -d 99 get", 2, "no such device: 99"), ("log -d 0,7-9 get", 2, "no such device: 7"),
    ("log -d 3-1 get", 2, "neither an id"), ("log -d 1- get", 2, "neither an id"),
    ("--version >/dev/full", 2, "could be written"),
    ("--version >&-", 2, "could be written"),
    ("log -d 99 get 2>/dev/full", 2, ""),
    ("log -d 99 get 2>&-", 2, ""),
])
def test_what_goes_wrong_is_told(line, code, words):
    tool = subprocess.run(["sh", "-c", f"exec {BIN}/orlactl {line}"], capture_output=True,
                          text=True, timeout=60, check=False,
                          env=dict(os.environ, ORLA_HDC_DIR="/nonexistent"))
    assert (tool.returncode, tool.stdout) == (code, "") and words in tool.stderr


def test_check_tells_of_every_file(tmp_path):
    (tmp_path / "damaged").write_bytes(bytes(100))  # three records and a bit
    (tmp_path / "empty").write_bytes(b"")
    tool = subprocess.run([BIN / "orlactl", "check", "--json", "damaged", "missing", ".", "empty"],
                          cwd=tmp_path, capture_output=True, text=True, timeout=60, check=False)
    told = [(one["file"], one["clean"], one["damaged"]) for one in json.loads(tool.stdout)]
    assert tool.returncode == 2 and told == [("damaged", False, 4), ("empty", False, 0)]
    assert [line.split(": ")[1:] for line in tool.stderr.splitlines()] == [
        ["missing", "No such file or directory"], [".", "Is a directory"]]
