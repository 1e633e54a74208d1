"""The Debian packages of this build, the unit in them, and what their scripts do to a machine."""
import os
import pathlib
import re
import shutil
import subprocess

import pytest

from device import BIN, SANDBOX

LIBRARIES = {"libc6", "libgcc-s1", "libprotobuf", "libstdc++6"}
DEPENDS = {
    "orla": LIBRARIES | {"passwd", "orla-platform"},
    "orlactl": LIBRARIES | {"orla-platform", "libfmt"},
    "orla-platform": LIBRARIES - {"libprotobuf"} | {"libfmt", "libspdlog"},
}
FILES = {
    "orla": {"usr/sbin/orla": "755", "usr/lib/systemd/system/orla.service": "644",
             "usr/share/man/man8/orla.8.gz": "644"},
    "orlactl": {"usr/bin/orlactl": "755", "usr/share/man/man1/orlactl.1.gz": "644",
                "usr/share/bash-completion/completions/orlactl": "644"},
    "orla-platform": {"usr/lib/*/orla/liborla_platform.so": "644"},
}
PROGRAMS = ["usr/sbin/orla", "usr/bin/orlactl", "usr/lib/*/orla/liborla_platform.so"]


def output(*command):
    return subprocess.run(command, check=True, text=True, stdout=subprocess.PIPE).stdout


@pytest.fixture(scope="module")
def packages(tmp_path_factory):
    """The packages by their names, debug packages too."""
    folder = tmp_path_factory.mktemp("packages")
    subprocess.run(["cpack", "-B", folder], cwd=BIN.parent, check=True, stdout=subprocess.DEVNULL)
    return {output("dpkg-deb", "-f", path, "Package").strip(): path
            for path in folder.iterdir() if path.suffix in (".deb", ".ddeb")}


@pytest.fixture(scope="module")
def unpacked(packages, tmp_path_factory):
    """A folder with the files of all packages, and the scripts of the daemon's in DEBIAN."""
    folder = tmp_path_factory.mktemp("unpacked")
    for path in packages.values():
        subprocess.run(["dpkg-deb", "-x", path, folder], check=True)
    subprocess.run(["dpkg-deb", "-e", packages["orla"], folder / "DEBIAN"], check=True)
    return folder


def only(folder, pattern):
    found = list(folder.glob(pattern))
    assert len(found) == 1, (pattern, found)
    return found[0]


def test_every_library_is_a_dependency(packages):
    for name, wanted in DEPENDS.items():
        depends = output("dpkg-deb", "-f", packages[name], "Depends").strip().split(", ")
        missing = [each for each in wanted if not any(d.startswith(each) for d in depends)]
        assert missing == [], f"{name}: {depends}"


def test_files_and_modes(packages, unpacked):
    for name, files in FILES.items():
        files = {**files, f"usr/share/doc/{name}/changelog.gz": "644"}
        wanted = {str(only(unpacked, pattern).relative_to(unpacked)): mode
                  for pattern, mode in files.items()}
        found = {}
        for line in output("dpkg-deb", "-c", packages[name]).splitlines():
            kind, owner, path = line[0], line.split()[1], line.split()[5]
            assert owner == "root/root", line
            if kind == "d":
                assert line.startswith("drwxr-xr-x"), line
            else:
                found[path.removeprefix("./")] = oct((unpacked / path).stat().st_mode)[-3:]
        assert found == wanted


def test_checksums_are_of_the_files(packages, unpacked):
    for path in packages.values():
        sums = subprocess.run(["md5sum", "--check", "--quiet"], cwd=unpacked, check=False, text=True,
                              input=output("dpkg-deb", "-I", path, "md5sums"), capture_output=True)
        assert sums.returncode == 0, sums.stderr


@pytest.mark.parametrize("pattern", PROGRAMS)
def test_programs_are_hardened_and_their_symbols_packed(unpacked, pattern):
    program = only(unpacked, pattern)
    elf = output("readelf", "-hldnW", "--dyn-syms", program)
    assert "DYN (" in elf and "GNU_RELRO" in elf and re.search(r"FLAGS_1.*\bNOW\b", elf)
    assert "__stack_chk_fail" in elf and re.search(r"\b__\w+_chk@", elf)
    assert pattern.endswith(".so") or re.search(r"FLAGS_1.*\bPIE\b", elf)
    assert str(BIN.parent.parent) not in elf, "a path of the building machine"
    build = re.search(r"Build ID: (..)(\w+)", elf)
    symbols = unpacked / f"usr/lib/debug/.build-id/{build[1]}/{build[2]}.debug"
    assert ".debug_line" in output("readelf", "-SW", symbols)
    assert ".debug_line" not in output("readelf", "-SW", program)


def test_systemd_takes_the_unit(unpacked, tmp_path):
    if shutil.which("systemd-analyze") is None:
        pytest.skip("systemd-analyze is missing")
    text = only(unpacked, "**/systemd/system/orla.service").read_text()
    unit = tmp_path / "orla.service"
    unit.write_text(text.replace("=/usr/sbin/orla\n", f"={unpacked}/usr/sbin/orla\n"))
    done = subprocess.run(["systemd-analyze", "verify", "--man=no", unit], check=False,
                          capture_output=True, text=True)
    assert (done.returncode, done.stderr) == (0, "")
    taken_over = re.findall(r"^(?:Logs|State|Cache|Configuration)Directory=.*", text, re.M)
    assert taken_over == [], "what lies below it would all be given to the account"


FAKES = {
    "getent": "exit $known", "useradd": "", "chown": "", "systemctl": "exit $fails",
    "deb-systemd-invoke": "exit $fails", "deb-systemd-helper": "exit $fails",
}
UP = "systemctl --system daemon-reload"
RESTART = [UP, "deb-systemd-invoke restart orla.service"]
UNMASK = ["deb-systemd-helper unmask orla.service",
          "deb-systemd-helper --quiet was-enabled orla.service"]
ENABLE = [*UNMASK, "deb-systemd-helper enable orla.service"]
UPDATE = [*UNMASK, "deb-systemd-helper update-state orla.service"]
KNOWN = ["getent passwd SableUser"]
FORGET = ["deb-systemd-helper purge orla.service", "deb-systemd-helper unmask orla.service"]


class Machine:
    """A sandbox in which commands that would change a machine only leave a line each."""

    def __init__(self, root, scripts):
        self.root, self.scripts = root, scripts
        for name, text in FAKES.items():
            path = root / "var" / name
            path.parent.mkdir(parents=True, exist_ok=True)
            words = '"$PWD $*"' if name == "chown" else '"$*"'
            path.write_text(f"#!/bin/sh\necho {name} {words} >>/tmp/calls\n{text}\n")
            path.chmod(0o755)

    def run(self, script, *arguments, before="", known=0, fails=0):
        """The calls that one of the scripts makes; it must succeed, and is silent on stdout."""
        calls = self.root / "tmp/calls"
        calls.unlink(missing_ok=True)
        done = subprocess.run(
            [SANDBOX, "--quiet", "--root", self.root, "--show", self.scripts, "--", "sh", "-c",
             before + '\nexec "$@"', "sh", self.scripts / script, *arguments], check=False,
            text=True, capture_output=True, env=dict(os.environ, known=str(known), fails=str(fails)))
        assert (done.returncode, done.stdout) == (0, ""), done.stderr
        return calls.read_text().splitlines() if calls.exists() else []


@pytest.fixture
def machine(unpacked, tmp_path):
    return Machine(tmp_path, unpacked / "DEBIAN")


LEVELS = ["home/SableUser/ide_daemon", "var/log/npu", "var/log/npu/slog", "var/log/npu/slog/slogd",
          "var/log/npu/conf", "var/log/npu/conf/slog", "var/log/npu/profiling"]


def test_each_missing_level_is_made_and_given_away(machine):
    calls = machine.run("postinst", "configure", "", known=2,
                        before="rm -r /home/SableUser/ide_daemon /var/log/npu")
    assert [call for call in calls if call.startswith("useradd ")] != []
    assert [call for call in calls if call.startswith("chown ")] == [
        f"chown /{level} SableUser:SableUser ." for level in LEVELS]
    assert {oct((machine.root / level).stat().st_mode)[-3:] for level in LEVELS} == {"750"}
    assert calls[-3:] == ENABLE


def test_what_is_there_stays_as_it_is_and_no_link_is_followed(machine):
    calls = machine.run("postinst", "configure", "0.1.0", before="""
        cd /var/log/npu && rm -r slog conf/slog profiling && chmod 0711 .
        mkdir /tmp/elsewhere && ln -s /tmp/elsewhere slog && ln -s /nowhere/at/all profiling""")
    assert [call for call in calls if call.startswith(("chown ", "useradd "))] == [
        "chown /var/log/npu/conf/slog SableUser:SableUser ."]
    assert list((machine.root / "tmp/elsewhere").iterdir()) == []
    assert oct((machine.root / "var/log/npu").stat().st_mode)[-3:] == "711"


@pytest.mark.parametrize("fails", [0, 1])
@pytest.mark.parametrize("command, calls", [
    ("postinst configure 0.1.0", [KNOWN, UNMASK, RESTART]),
    ("postinst abort-remove", [UNMASK, RESTART]),
    ("postinst abort-upgrade 0.2.0", [UNMASK, RESTART]),
    ("prerm remove", [["deb-systemd-invoke stop orla.service"]]),
    ("prerm upgrade 0.2.0", []),
    ("postrm remove", [[UP], ["deb-systemd-helper mask orla.service"]]),
    ("postrm purge", [FORGET]),
    ("postrm upgrade 0.2.0", []),
])
def test_no_trouble_with_systemd_stops_dpkg(machine, command, calls, fails):
    (machine.root / "run/systemd/system").mkdir(parents=True)
    wanted = sum((([UPDATE, ENABLE][fails == 0] if each == UNMASK else each) for each in calls), [])
    assert machine.run(*command.split(), fails=fails) == wanted


def test_a_purge_leaves_what_others_use(machine):
    machine.run("postrm", "purge", before="mkdir /var/log/npu/profiling/job; >/var/log/npu/slog/log")
    left = [level for level in LEVELS if (machine.root / level).exists()]
    assert left == [level for level in LEVELS if not level.endswith(("ide_daemon", "profiling"))]
    assert (machine.root / "var/log/npu/slog/log").exists()
