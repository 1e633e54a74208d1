"""A device to test against: a sandbox with the daemon, and what is seen of it from outside."""
import json
import os
import pathlib
import re
import shutil
import signal
import subprocess
import tempfile
import time

BIN = pathlib.Path(os.environ["ORLA_BIN"])
SANDBOX = os.environ["ORLA_SANDBOX"]
# A sanitizer keeps what was freed, to see it used: resident memory says nothing there.
SANITIZED = bool(os.environ.get("ORLA_SANITIZE"))


def wait_for(condition, what, seconds=30):
    """The first true answer of `condition`; an assertion when none comes in time."""
    deadline = time.monotonic() + seconds
    while True:
        answer = condition()
        if answer:
            return answer
        assert time.monotonic() < deadline, f"no {what} within {seconds} s"
        time.sleep(0.01)


class Device:
    """One sandbox folder. Programs are started in it one after another or side by side."""

    def __init__(self, scenario=None):
        # Socket paths are short, so the folder lies directly below the system's.
        self.root = pathlib.Path(tempfile.mkdtemp(prefix="orla-", dir="/tmp"))
        self.hdc = self.root / "run/orla/hdc"
        self.lock = self.root / "home/SableUser/ide_daemon/.orlad.lock"
        self.log = self.root / "tmp/device.log"
        self.environment = dict(os.environ, ORLA_LOG_LEVEL="debug", ORLA_LOG_FILE="/tmp/device.log")
        if liberties := os.environ.get("ORLA_LIBERTIES"):  # what the driver may do, in any test
            scenario = {"liberties": json.loads(liberties), **(scenario or {})}
        if scenario is not None:
            path = self.root / "scenario.json"
            path.write_text(json.dumps(scenario))
            self.environment["ORLA_SCENARIO"] = str(path)
        self.programs = []

    def start(self, *command, join=False, **options):
        where = ["--join", str(self.root)] if join else ["--root", str(self.root), "--quiet"]
        program = subprocess.Popen([SANDBOX, *where, "--", *map(str, command)], text=True,
                                   env=self.environment, stdout=subprocess.PIPE,
                                   stderr=subprocess.STDOUT, **options)
        program.device = self
        self.programs.append(program)
        return program

    def daemon(self, join=False):
        """The daemon, started once more and listening on its request service."""
        words = "phyDevId:0 create HDC server successfully"
        before = sum(words in line for line in self.lines())
        program = self.start(BIN / "orla", join=join)
        wait_for(lambda: program.poll() is not None
                 or sum(words in line for line in self.lines()) > before, "listening daemon")
        assert program.poll() is None, program.stdout.read()
        return program

    def listens(self, device=0, service=4):
        return (self.hdc / f"{device}.{service}").exists()

    def orlactl(self, *arguments):
        """A host tool outside the sandbox, which shares nothing with it but the sockets."""
        return subprocess.run([BIN / "orlactl", *map(str, arguments)], text=True, timeout=60,
                              env=dict(self.environment, ORLA_HDC_DIR=str(self.hdc),
                                       ORLA_LOG_FILE=str(self.root / "tmp/host.log")),
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, check=False)

    def lines(self):
        return self.log.read_text().splitlines() if self.log.exists() else []

    def logged(self, words, count=1):
        return wait_for(lambda: sum(words in line for line in self.lines()) >= count,
                        f"log line '{words}'")

    def check_left(self):
        """Nothing of the driver's is left at a daemon's end, but for what a thread waits in."""
        told = [line for line in self.lines() if "no server is left; " in line]
        if told:
            left = re.findall(r"([a-z ]+) (\d+) and \d+ in a call", told[-1].split(";")[1])
            assert len(left) == 4 and all(idle == "0" for _, idle in left), told[-1]

    def close(self):
        for program in self.programs:
            if program.poll() is None:
                program.kill()
            program.wait()
            program.stdout.close()
        # What the keeper of the sandbox still holds goes within a moment.
        wait_for(lambda: not (self.root / ".sandbox").exists(), "end of the sandbox")
        shutil.rmtree(self.root)

    def __enter__(self):
        return self

    def __exit__(self, *unused):
        self.close()


def threads_and_descriptors(program):
    """How many of both the process has: what every session must give back."""
    status = pathlib.Path(f"/proc/{program.pid}")
    return len(list((status / "task").iterdir())), len(list((status / "fd").iterdir()))


def resident(program):
    """Kilobytes of memory."""
    for line in pathlib.Path(f"/proc/{program.pid}/status").read_text().splitlines():
        if line.startswith("VmRSS:"):
            return int(line.split()[1])
    raise AssertionError("no resident size")


def settled(program):
    """The same, once a start or a burst of sessions has come to rest."""
    seen = []

    def resting():
        seen.append(threads_and_descriptors(program))
        return len(seen) >= 50 and len(set(seen[-50:])) == 1

    wait_for(resting, "rest of threads and descriptors")
    return seen[-1]


def end(program, number=signal.SIGTERM, seconds=10):
    """Sends a signal; the exit code, and how long the end took."""
    started = time.monotonic()
    program.send_signal(number)
    code = program.wait(seconds)
    took = time.monotonic() - started
    if code == 0:
        program.device.check_left()
    return code, took
