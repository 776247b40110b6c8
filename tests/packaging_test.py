"""The packaging of the daemon: its unit, its sandbox, its user and its folders."""

import base64
import os
import re
import shutil
import subprocess
from dataclasses import dataclass
from pathlib import Path

import pytest

from lab.common import names
from lab.common.tree import ROOT
from lab.device.device import Device

PACKAGING = ROOT / "packaging"
UNIT = PACKAGING / "ap-pelmor.service"
PROFILE = PACKAGING / "apparmor/usr.sbin.ap-pelmor"
DAEMON = ROOT / "build/release/ap/pelmor/ap-pelmor"

MOST_EXPOSED = 1.5
SECONDS = {"": 1, "s": 1, "min": 60}


def run(*command: str | Path, **environment: str) -> subprocess.CompletedProcess[str]:
    return subprocess.run(command, env={**os.environ, **environment}, capture_output=True,
                          text=True, check=False, timeout=60)


def unit_value(key: str) -> str:
    values = re.findall(rf"^{key}=(.*)$", UNIT.read_text(), re.MULTILINE)
    assert len(values) == 1, key
    return values[0]


def seconds(key: str) -> int:
    match = re.fullmatch(r"(\d+)(s|min|)", unit_value(key))
    assert match, key
    return int(match[1]) * SECONDS[match[2]]


# The unit.


# systemd-analyze writes below /run, which not every user and container may.
OWN_RUN = ("bwrap", "--dev-bind", "/", "/", "--tmpfs", "/run")


def test_the_lab_starts_the_daemon_in_the_environment_of_its_unit() -> None:
    name, _, value = unit_value("Environment").partition("=")
    assert {name: value} == names.DAEMON_ENVIRONMENT


def test_systemd_reports_no_problem_of_the_unit(tmp_path: Path) -> None:
    unit = tmp_path / UNIT.name
    # The program without an installation.
    unit.write_text(UNIT.read_text().replace("/usr/sbin/ap-pelmor", str(DAEMON)))
    verified = run(*OWN_RUN, "systemd-analyze", "verify", "--man=no", "--recursive-errors=yes",
                   unit)
    said = [line for line in (verified.stdout + verified.stderr).splitlines() if unit.name in line]
    assert verified.returncode == 0 and said == [], verified.stdout + verified.stderr


def test_the_exposure_level_of_the_unit_is_low() -> None:
    result = run(*OWN_RUN, "systemd-analyze", "security", "--offline=true", "--no-pager",
                 UNIT).stdout
    overall = re.search(r"Overall exposure level for ap-pelmor\.service: ([\d.]+)", result)
    assert overall and float(overall[1]) <= MOST_EXPOSED, result


def test_the_watchdog_outlasts_the_longest_iteration_of_the_event_loop() -> None:
    # Three calls of 25 s, after three quarters of the period.
    assert seconds("WatchdogSec") / 4 > 3 * 25
    # Such an iteration, and two calls of 25 s until a new token is saved.
    assert seconds("TimeoutStopSec") > 3 * 25 + 2 * 25


def test_restarts_do_not_refresh_the_token_more_often() -> None:
    source = (ROOT / "ap/common/oauth2_manager.cc").read_text()
    [interval] = re.findall(r"kRefreshInterval = base::TimeDelta::FromSeconds\((\d+)\);", source)
    assert seconds("RestartSec") >= int(interval)


def test_the_largest_refresh_token_fits_into_a_file() -> None:
    # A token is part of a response, of which 1 MiB is kept.
    limit = re.fullmatch(r"(\d+)M", unit_value("LimitFSIZE"))
    assert limit and int(limit[1]) > 1


def test_the_unit_always_restarts_the_daemon_and_drops_standard_error() -> None:
    assert unit_value("Type") == "notify"
    assert unit_value("Restart") == "always"
    assert seconds("StartLimitIntervalSec") == 0
    assert unit_value("StandardError") == "null"


# The services for runit.


def test_runit_starts_the_daemon_in_the_environment_and_with_the_limits_of_its_unit() -> None:
    script = (PACKAGING / "runit/run").read_text()
    assert unit_value("Environment") in script
    assert unit_value("LimitFSIZE") == "2M"
    assert f" -c {unit_value('LimitCORE')} -f {2 * 1024 * 1024} " in script
    assert f"umask {unit_value('UMask')[1:]}\n" in script


@pytest.mark.parametrize("code, signal, delay", [
    ("0", "0", []), ("-1", "15", []),
    ("69", "0", ["30"]), ("-1", "6", ["30"]), ("-1", "9", ["30"]), ("15", "0", ["30"])])
def test_runit_waits_after_a_fault_as_long_as_systemd(
        tmp_path: Path, code: str, signal: str, delay: list[str]) -> None:
    waits = tmp_path / "sleep"
    waits.write_text('#!/bin/sh\necho "$@"\n')
    waits.chmod(0o755)
    ended = run(PACKAGING / "runit/finish", code, signal, PATH=f"{tmp_path}:/usr/bin:/bin")
    assert (ended.returncode, ended.stdout.split()) == (0, delay)
    assert not delay or int(delay[0]) == seconds("RestartSec")


# The user and the folders.


@dataclass(frozen=True)
class Entry:
    kind: str
    mode: str
    owner: str


ENTRIES = {
    "etc/ap/pelmor.conf": Entry("regular file", "400", "pelmor:root"),
    "run/ap": Entry("directory", "755", "root:root"),
    "run/ap/pelmor": Entry("directory", "700", "pelmor:pelmor"),
    "tmp/ap": Entry("symbolic link", "777", "root:root"),
    "var/lib/ap": Entry("directory", "755", "root:root"),
    "var/lib/ap/pelmor": Entry("directory", "700", "pelmor:pelmor"),
    "var/lib/ap/pelmor.override": Entry("regular file", "400", "pelmor:root"),
}

# In one fakeroot, which allows any user to change owners: the steps of a boot, and their results.
BOOT = """
set -e
systemd-sysusers --root="$1"
systemd-tmpfiles --root="$1" --boot --remove --create ap-pelmor.conf
cd "$1"
shift
for path; do stat --format="%n|%F|%a|%u:%g" "$path"; done
"""


def image(root: Path) -> Path:
    """A file system with what the package installs."""
    for source, target in (
        (PACKAGING / "ap-pelmor.sysusers.conf", "usr/lib/sysusers.d/ap-pelmor.conf"),
        (PACKAGING / "ap-pelmor.tmpfiles.conf", "usr/lib/tmpfiles.d/ap-pelmor.conf"),
        (PACKAGING / "pelmor.conf", "etc/ap/pelmor.conf"),
    ):
        (root / target).parent.mkdir(parents=True)
        shutil.copy(source, root / target)
    (root / "tmp").mkdir()
    (root / "tmp").chmod(0o1777)
    (root / "var/lib/ap").mkdir(parents=True)
    (root / "var/lib/ap/pelmor.override").write_text("PELMOR_CLIENT_SECRET=secret-1\n")
    return root


def ids(root: Path, file: str) -> dict[str, str]:
    lines = (root / "etc" / file).read_text().splitlines()
    return {line.split(":")[2]: line.split(":")[0] for line in lines}


def booted(root: Path) -> dict[str, Entry]:
    result = run("fakeroot", "sh", "-c", BOOT, "boot", root, *ENTRIES)
    assert result.returncode == 0, result.stderr
    users, groups = ids(root, "passwd"), ids(root, "group")
    found = {}
    for line in result.stdout.splitlines():
        name, kind, mode, owner = line.split("|")
        user, group = owner.split(":")
        found[name] = Entry(kind.replace("regular empty file", "regular file"), mode,
                            f"{users.get(user, 'root')}:{groups.get(group, 'root')}")
    return found


def test_the_boot_makes_the_user_and_the_folders(tmp_path: Path) -> None:
    root = image(tmp_path)
    assert booted(root) == ENTRIES
    account = next(line for line in (root / "etc/passwd").read_text().splitlines()
                   if line.startswith("pelmor:"))
    assert account.endswith(":/nonexistent:/usr/sbin/nologin")
    assert 0 < int(account.split(":")[2]) < 1000


@pytest.mark.parametrize("trap", ["a link", "a folder", "a file"])
def test_a_file_with_the_links_name_in_tmp_is_kept(tmp_path: Path, trap: str) -> None:
    root = image(tmp_path / "root")
    victim = tmp_path / "victim"
    victim.mkdir()
    kept = victim / "uploader.start_time"
    place = root / "tmp/ap"
    if trap == "a link":
        place.symlink_to(victim)
    elif trap == "a file":
        kept = place
    else:
        place.mkdir()
        kept = place / "data"
    kept.write_text("keep")
    found = booted(root)
    assert found.pop("tmp/ap").kind == {"a link": "symbolic link", "a folder": "directory",
                                        "a file": "regular file"}[trap]
    assert found == {name: entry for name, entry in ENTRIES.items() if name != "tmp/ap"}
    assert kept.read_text() == "keep"
    assert trap != "a link" or os.readlink(place) == str(victim)
    assert list((root / "run/ap/pelmor").iterdir()) == []


def test_a_shared_folder_that_exists_keeps_its_mode(tmp_path: Path) -> None:
    root = image(tmp_path)
    (root / "var/lib/ap").chmod(0o711)
    assert booted(root) == {**ENTRIES, "var/lib/ap": Entry("directory", "711", "root:root")}


def test_the_start_time_survives_an_upgrade(tmp_path: Path) -> None:
    root = image(tmp_path)
    booted(root)
    kept = root / "run/ap/pelmor/uploader.start_time"
    kept.write_text("1700000000000000")
    # As the package's scripts do on a running system.
    again = run("fakeroot", "systemd-tmpfiles", f"--root={root}", "--create", "--remove",
                "ap-pelmor.conf")
    assert again.returncode == 0, again.stderr
    assert kept.read_text() == "1700000000000000"


def test_the_default_configuration_has_every_key_and_no_secret() -> None:
    lines = [line for line in (PACKAGING / "pelmor.conf").read_text().splitlines()
             if line and not line.startswith("#")]
    assert dict(line.split("=", 1) for line in lines) == {
        "PELMOR_CLIENT_ID": "replace-with-client-id",
        "PELMOR_CLIENT_SECRET": "replace-with-client-secret",
        "PELMOR_SCOPE": "",
        "PELMOR_URL": "https://monitoring.quintara.example/v1/devices",
        "PELMOR_UPLOAD_INTERVAL_IN_SECONDS": "600",
    }


# The packages.


def test_the_package_has_the_version_of_the_project() -> None:
    project = re.search(r"^project\(ap-pelmor VERSION ([\d.]+)",
                        (ROOT / "CMakeLists.txt").read_text(), re.MULTILINE)
    package = re.match(r"ap-pelmor \(([^)]+)\)", (PACKAGING / "debian/changelog").read_text())
    assert project and package and package[1] == project[1]


def test_an_unsupported_architecture_is_an_error() -> None:
    refused = run(PACKAGING / "build", "mips")
    assert refused.returncode == 1
    assert "package: no architecture 'mips'; there are amd64 and armhf" in refused.stderr


# The AppArmor profile.


@pytest.mark.parametrize("addition, code", [("", 0), ("profile no-end {", 1)])
def test_the_apparmor_profile_is_valid(tmp_path: Path, addition: str, code: int) -> None:
    profile = tmp_path / PROFILE.name
    profile.write_text(PROFILE.read_text() + addition)
    parsed = run("apparmor_parser", "--skip-kernel-load", "--skip-cache", profile)
    assert parsed.returncode == code, parsed.stderr


def test_the_apparmor_profile_names_the_files_of_the_daemon() -> None:
    permissions = dict(re.findall(r"^  (?:owner )?(/\S+) (\w+,)$", PROFILE.read_text(),
                                  re.MULTILINE))
    assert permissions["/usr/sbin/ap-pelmor"] == "mr,"
    assert not [path for path, allowed in permissions.items() if "x" in allowed]
    for path in (names.CONFIGURATION, names.OVERRIDE, names.RELEASE):
        assert permissions[path] == "r,"
    assert permissions[f"{names.REFRESH_TOKEN}{{,.new}}"] == "rw,"
    assert permissions[names.START_TIME.replace("/tmp/", "/{run,tmp}/") + "{,.new}"] == "rw,"


# The daemon in its sandbox.

# Starts the daemon like systemd, with only the unit's system calls and address families.
CONFINED = """\
#!/usr/bin/python3 -s
import base64, os, seccomp, socket, sys
confined = seccomp.SyscallFilter(seccomp.ERRNO(1))
for name in {calls!r}:
    try:
        confined.add_rule(seccomp.ALLOW, name)
    except RuntimeError:
        pass  # Not on this machine's kernel.
for family in {families!r}:
    confined.add_rule(seccomp.ALLOW, "socket",
                      seccomp.Arg(0, seccomp.EQ, getattr(socket, family)))
with open("/run/ap-pelmor", "wb") as program:
    program.write(base64.b64decode({program!r}))
os.chmod("/run/ap-pelmor", 0o755)
confined.load()
os.execv("/run/ap-pelmor", ["/run/ap-pelmor"])
"""


# Prints the arguments that are unknown to libseccomp.
RESOLVE = """\
import seccomp, sys
machine = getattr(seccomp.Arch, sys.argv[1])
print([name for name in sys.argv[2:] if seccomp.resolve_syscall(machine, name) < 0])
"""


def calls_of(group: str) -> set[str]:
    result = run("systemd-analyze", "syscall-filter", group)
    assert result.returncode == 0, result.stderr
    words = [line.strip() for line in result.stdout.splitlines()[1:] if line.startswith("    ")]
    names = {word for word in words if word and not word.startswith(("#", "@"))}
    return names.union(*(calls_of(word) for word in words if word.startswith("@")))


def filter_words() -> list[tuple[bool, str]]:
    """The words of the unit's filter in order, each with whether it is denied."""
    lines = re.findall(r"^SystemCallFilter=(~?)(.*)$", UNIT.read_text(), re.MULTILINE)
    # The first line makes this a list of allowed calls.
    assert lines and not lines[0][0]
    return [(bool(denied), word) for denied, words in lines for word in words.split()]


def calls_of_word(word: str) -> set[str]:
    return calls_of(word) if word.startswith("@") else {word}


def allowed_calls() -> set[str]:
    allowed: set[str] = set()
    for denied, word in filter_words():
        allowed = allowed - calls_of_word(word) if denied else allowed | calls_of_word(word)
    return allowed


# Calls that an intruder would use.
DENIED = {"mount", "fchownat", "setuid", "ptrace", "bpf", "io_uring_setup", "io_setup", "keyctl",
          "listen", "accept", "accept4", "memfd_create", "execveat", "shmget", "msgget", "semget",
          "mq_open", "process_vm_readv", "process_vm_writev"}


def test_the_unit_allows_no_system_call_that_the_daemon_does_not_need() -> None:
    allowed = allowed_calls()
    assert {"openat", "socket", "connect", "pipe2"} <= allowed
    assert not allowed & DENIED


@pytest.mark.parametrize("architecture", ["x86_64", "aarch64", "arm"])
def test_denied_system_calls_exist_on_every_architecture(architecture: str) -> None:
    # systemd ignores a name that the machine does not know.
    resolved = run("/usr/bin/python3", "-c", RESOLVE, architecture.upper(), *sorted(
        {word for denied, word in filter_words() if denied and word[0] != "@"} | DENIED))
    assert resolved.returncode == 0 and resolved.stdout == "[]\n", resolved


def test_the_daemon_can_upload_with_only_the_system_calls_of_the_unit(tmp_path: Path) -> None:
    confined = tmp_path / "ap-pelmor"
    confined.write_text(CONFINED.format(
        calls=sorted(allowed_calls() - {"socket"}),
        families=unit_value("RestrictAddressFamilies").split(),
        program=base64.b64encode(DAEMON.read_bytes()).decode()))
    confined.chmod(0o755)
    with Device(confined) as device:
        device.start_daemon()
        device.larder.add_credentials_command()
        device.wait_for_file(names.REFRESH_TOKEN)
        assert device.stop_daemon() == 0
        device.start_daemon()
        device.wait_for_access_token()
        device.record_metric("ap/clients", {"band": "5g"}, 12)
        assert device.cloud.wait_for_request("metrics").json["metricPoints"]
        status = device.run("sh", "-c", "cat /proc/$(pidof ap-pelmor)/status").output
        assert re.search(r"^Seccomp:\s+2$", status, re.MULTILINE), status
