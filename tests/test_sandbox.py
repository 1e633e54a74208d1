"""What orla-sandbox promises, as root and as an ordinary user: a device of one's own, exact
signals and exit codes, and nothing left behind."""
import json
import os
import pathlib
import pwd
import shutil
import signal
import subprocess
import tempfile
import time

import pytest

STANDINS = pathlib.Path(__file__).resolve().parent.parent / "platform" / "standins"
CALLERS = [pwd.getpwuid(os.getuid()).pw_name] + (["nobody"] if os.getuid() == 0 else [])
LANDS_OUTSIDE = [
    "/var/log/npu/slog/slogd/slogdlog",
    "/var/log/npu/conf/slog/slog.conf",
    "/var/log/npu/coredump/core",
    "/var/log/npu/sablebox_logs/bbox",
    "/var/log/npu/profiling/job",
    "/var/log/messages",
    "/var/driver/appmon.socket",
    "/home/SableUser/ide_daemon/.orlad.lock",
    "/home/SableUser/ide_daemon/module/info",
    "/usr/local/profiler/data",
    "/run/orla/hdc",
    "/tmp/file",
    "/sys/devices/virtual/devdrv_manager/sablecore_manager/node/event",
]


def wait_for(condition, what):
    deadline = time.monotonic() + 20
    while not condition():
        assert time.monotonic() < deadline, f"never happened: {what}"
        time.sleep(0.005)


class Caller:
    """A user of the machine who runs sandboxes. Not in pytest's own folders: an ordinary user
    cannot pass through those of root."""

    def __init__(self, name, folder):
        self.folder = folder
        self.script = folder / "standins" / "orla-sandbox"
        shutil.copytree(STANDINS, folder / "standins", ignore=shutil.ignore_patterns("*.cpp"))
        folder.chmod(0o777)
        other = name != pwd.getpwuid(os.getuid()).pw_name
        self.prefix = ["setpriv", f"--reuid={name}", "--regid=nogroup", "--clear-groups"] if other else []
        self.environment = {**os.environ, "TMPDIR": str(folder), "ORLA_HDC_DIR": "/nowhere"}

    def start(self, *arguments, **options):
        return subprocess.Popen([*self.prefix, str(self.script), *arguments], cwd=self.folder,
                                env=self.environment, text=True, stdout=subprocess.PIPE,
                                stderr=subprocess.PIPE, **options)

    def run(self, *arguments):
        process = self.start(*arguments, stdin=subprocess.DEVNULL)
        out, err = process.communicate(timeout=60)
        return subprocess.CompletedProcess(arguments, process.returncode, out, err)

    def roots(self):
        return list(self.folder.glob("orla-??????"))


@pytest.fixture(params=CALLERS)
def caller(request):
    with tempfile.TemporaryDirectory(prefix="sb-", dir="/tmp") as folder:
        caller = Caller(request.param, pathlib.Path(folder))
        yield caller
        folders = [*caller.roots(), caller.folder / "device"]
        wait_for(lambda: not any((f / ".sandbox").exists() for f in folders), "the keeper's end")


def test_is_a_device_in_one_folder(caller):
    script = "set -e\n" + "".join(f"echo seen >{path}\n" for path in LANDS_OUTSIDE) + """
        test "$(id -un):$(id -gn):$HOME" = SableUser:SableUser:/home/SableUser
        test "$(python3 -c 'import os, pwd; print(pwd.getpwuid(os.getuid()).pw_dir)')" = $HOME
        test "$(env -i PATH=/usr/bin:/usr/sbin:/var sudo -n -u root A=b sh -c 'echo $A')" = b
        touch $HOME/copy && sudo chown -RPf SableUser:SableUser $HOME/copy
        test -d /proc/1 && test "$(cat /proc/$$/comm)" = sh
        echo '{}' >/etc/prof.json && cat /etc/prof.json /etc/nsswitch.conf >/dev/null
        test -z "$XDG_RUNTIME_DIR$ORLA_HDC_DIR"
        cmp /var/sudo "$0"
    """
    root = caller.folder / "device"
    sudo = caller.folder / "standins" / "sudo"
    result = caller.run("--root", str(root), "--", "sh", "-c", script, str(sudo))
    assert (result.returncode, result.stdout) == (0, ""), result.stderr
    assert result.stderr == f"files of the daemon: {root}\n"
    assert [p for p in LANDS_OUTSIDE if (root / p[1:]).read_text() != "seen\n"] == []

    again = caller.run("--quiet", "--root", str(root), "cat", "/var/log/messages", "/tmp/file")
    assert (again.stdout, again.stderr) == ("seen\nseen\n", ""), "a kept folder is found again"


def test_touches_nothing_of_the_machine(caller):
    mine = caller.folder / "mine"
    mine.mkdir(mode=0o777)
    mine.chmod(0o777)
    script = """
        for path in /etc/passwd /etc/orla-was-here /var/lib/orla-was-here /home/orla-was-here \
                    /usr/bin/sudo /usr/bin/orla-was-here /usr/local/orla-was-here \
                    /opt/orla-was-here /proc/sys/kernel/core_pattern "$0/orla-was-here"; do
            echo x 2>/dev/null >>"$path" && echo "$path"
        done
        ls /home
    """
    before = {p: p.stat().st_mtime_ns for p in map(pathlib.Path, ("/etc", "/var/lib", "/home"))}
    seen = caller.run("--show", str(mine), "sh", "-c", script, str(mine)).stdout.splitlines()
    assert set(seen) == {"/etc/passwd", "/etc/orla-was-here", "/var/lib/orla-was-here",
                         "SableUser"}, "only the sandbox's own may be written"
    assert {p: p.stat().st_mtime_ns for p in before} == before
    assert "SableUser" not in pathlib.Path("/etc/passwd").read_text()

    assert caller.run("--bind", str(mine), "touch", str(mine / "wanted")).returncode == 0
    assert [p.name for p in mine.iterdir()] == ["wanted"]


@pytest.mark.parametrize("command, code, error", [
    (["sh", "-c", "exit 7"], 7, ""),
    (["/no/such/program"], 127, "/no/such/program"),
    (["--bind", "/no/such/path", "true"], 125, "no such path: /no/such/path"),
    (["--wrong", "true"], 125, "unknown option --wrong"),
    (["--root"], 125, "--root needs a path"),
    (["--join", "/tmp", "true"], 125, "no sandbox is running on /tmp"),
    ([], 125, "which command?"),
])
def test_exit_codes(caller, command, code, error):
    result = caller.run("--quiet", *command)
    assert result.returncode == code and error in result.stderr
    wait_for(lambda: not caller.roots(), "the folder's removal")


def test_says_what_is_missing(caller):
    # An ordinary user, in a world that has no user namespaces left to give.
    forbid = "echo 0 >/proc/sys/user/max_user_namespaces && exec setpriv " \
             "--bounding-set=-all --inh-caps=-all \"$0\" true"
    result = subprocess.run(
        [*caller.prefix, "unshare", "--user", "--map-root-user", "sh", "-c", forbid,
         str(caller.script)], cwd=caller.folder, env=caller.environment, capture_output=True,
        text=True)
    assert result.returncode == 125 and "max_user_namespaces" in result.stderr, result.stderr
    assert caller.roots() == []
    tools = caller.folder / "tools"
    tools.mkdir()
    for tool in ("bash", "readlink"):
        (tools / tool).symlink_to(shutil.which(tool))
    caller.environment["PATH"] = str(tools)
    result = subprocess.run(["/bin/bash", str(caller.script), "true"], env=caller.environment,
                            capture_output=True, text=True)
    assert result.returncode == 125 and "bwrap is missing; scripts/setup" in result.stderr


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
def test_signals_reach_the_command(caller, number):
    script = "import signal, sys\n" \
             "for n in (signal.SIGTERM, signal.SIGINT):\n" \
             "    signal.signal(n, lambda n, _: sys.exit(n))\n" \
             "print('up', flush=True)\n" \
             "signal.pause()"
    process = caller.start("--quiet", "--", "/usr/bin/python3", "-c", script)
    assert process.stdout.readline() == "up\n"
    process.send_signal(number)
    assert process.wait(20) == number


def processes_of(token):
    """Live processes of the machine with a token among their arguments."""
    found = []
    for path in pathlib.Path("/proc").glob("[0-9]*/cmdline"):
        try:
            if token.encode() in path.read_bytes().split(b"\0"):
                found.append(int(path.parent.name))
        except (FileNotFoundError, ProcessLookupError):
            pass
    return found


@pytest.mark.parametrize("killed", [False, True])
def test_nothing_outlives_the_command(caller, killed):
    token = f"orla-sandbox-test-{os.getpid()}-{time.monotonic_ns()}"
    script = """
        sh -c 'trap "" TERM INT HUP; while :; do sleep 0.1; done' "$0" &
        setsid sh -c 'while :; do sleep 0.1; done' "$0" </dev/null >/dev/null 2>&1 &
        mkdir -p /tmp/locked/in && chmod 0 /tmp/locked
        echo $$
        read line
    """
    process = caller.start("--quiet", "--", "sh", "-c", script, token, stdin=subprocess.PIPE)
    leader = int(process.stdout.readline())
    wait_for(lambda: len(processes_of(token)) == 3, "all are running")
    if killed:
        os.kill(leader, signal.SIGKILL)
    process.stdin.close()
    process.wait(20)
    wait_for(lambda: processes_of(token) == [], "the end of what was left running")
    wait_for(lambda: not caller.roots(), "the folder's removal")


def queue_script(key):
    return f"ipcmk -Q >/dev/null && ipcs -q | grep -c 0x && touch /tmp/{key}"


def test_join_shares_files_and_queues_and_others_share_nothing(caller):
    root = caller.folder / "device"
    first = caller.start("--root", str(root), "--", "sh", "-c",
                         queue_script("first") + " && read line", stdin=subprocess.PIPE)
    assert first.stdout.readline() == "1\n"
    wait_for((root / "tmp/first").exists, "the first command's file")

    joined = caller.run("--join", str(root), "--", "sh", "-c",
                        "id -un && pwd && ls /tmp && " + queue_script("joined"))
    assert joined.stdout.split() == ["SableUser", str(caller.folder), "first",
                                     caller.folder.name, "2"], joined.stderr
    assert caller.run("--quiet", "sh", "-c", queue_script("other")).stdout == "1\n"
    second = caller.run("--root", str(root), "true")
    assert second.returncode == 125 and f"--join {root}" in second.stderr

    first.communicate("go on\n", timeout=20)
    assert first.returncode == 0
    wait_for(lambda: not (root / ".sandbox").exists(), "the sandbox's end")
    assert caller.run("--join", str(root), "true").returncode == 125
    assert caller.run("--root", str(root), "ls", "/tmp/first").returncode == 0


def test_command_starts_like_a_bare_one(caller):
    """No descriptor, child or ignored signal of the sandbox's making is handed to the command."""
    script = """if 1:
        import json, os, signal
        print(json.dumps([
            sorted(map(int, os.listdir('/proc/self/fd')))[:-1],
            open(f'/proc/self/task/{os.getpid()}/children').read(),
            [n for n in (2, 3, 15) if signal.getsignal(n) == signal.SIG_IGN],
            os.getcwd(), open('/proc/self/status').read().split('CapEff:')[1].split()[0]]))"""
    result = caller.run("--quiet", "--", "/usr/bin/python3", "-c", script)
    assert json.loads(result.stdout) == [[0, 1, 2], "", [], str(caller.folder), "0" * 16]


def test_within_itself_and_on_a_terminal(caller):
    inner = caller.run("--quiet", "--", str(caller.script), "--quiet", "--", "id", "-un")
    assert inner.stdout == "SableUser\n", inner.stderr
    typed = subprocess.run(
        [*caller.prefix, "script", "-qec",
         f"{caller.script} --quiet -- sh -c 'test -t 0 && read x && echo got $x'", "/dev/null"],
        cwd=caller.folder, env=caller.environment, input="hello\n", capture_output=True,
        text=True, timeout=60)
    assert "got hello" in typed.stdout


@pytest.mark.skipif(os.getuid() != 0, reason="only root can let perf see the whole machine")
def test_perf_gives_root_one_capability_and_no_other():
    with tempfile.TemporaryDirectory(prefix="sb-", dir="/tmp") as folder:
        caller = Caller("root", pathlib.Path(folder))
        result = caller.run("--quiet", "--perf", "--", "sh", "-c",
                            "id -un; grep CapEff /proc/self/status; : >/tmp/f; chmod 0 /tmp/f;"
                            "cat /tmp/f || : >/usr/bin/orla-was-here || mount -o remount,rw /")
    if "CapEff" not in result.stdout:
        pytest.skip("not even root may make namespaces here: " + result.stderr)
    assert result.stdout.split() == ["SableUser", "CapEff:", "0000004000000000"]
    assert result.returncode != 0
