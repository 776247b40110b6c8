"""Who may speak with whom under the bus's policy."""

import json
import subprocess
import sys
import xml.etree.ElementTree as ElementTree
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parent.parent
sys.path.insert(0, str(ROOT))

from lab import names, system_bus  # noqa: E402  The path to it is set just above.
from lab.system_bus import SystemBus  # noqa: E402

POLICY = ROOT / "packaging/org.quintara.ap.Pelmor.conf"


SERVICE, OBJECT = "org.quintara.ap.Pelmor", "/org/quintara/ap/Pelmor/Manager"
MANAGER = "org.quintara.ap.Pelmor.Manager"
BUS = "org.freedesktop.DBus"
LARDER, TLSDATE = "org.quintara.Larder", "org.torproject.tlsdate"
NEIGHBOURS = (LARDER, TLSDATE, "org.example.Other")
# Users of a device, by uid and primary group.
PELMOR, MEMBER, STRANGER, REAL_ROOT = (990, 990), (1001, 990), (1002, 1002), (0, 0)
PASSWD = """\
root:x:0:0::/:/bin/sh
pelmor:x:990:990::/:/bin/sh
member:x:1001:990::/:/bin/sh
stranger:x:1002:1002::/:/bin/sh
"""
MACHINE_ID = f"{'0123456789abcdef' * 2}\n"
GROUP = "root:x:0:\npelmor:x:990:\nstranger:x:1002:\n"

DENIED = f"{BUS}.Error.AccessDenied"


def bus_configuration(uid: int, served: tuple[str, ...]) -> str:
    """The distribution's own rules of the system bus, our policy, and, for the test alone, leave
    for the one user of this bus to be the services that are called."""
    rules = ElementTree.parse("/usr/share/dbus-1/system.conf").getroot().findall("policy")
    machine = "".join(ElementTree.tostring(rule, encoding="unicode") for rule in rules)
    leave = "".join(f'<allow own="{name}"/>' for name in served)
    return f"""<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <listen>unix:path=/run/dbus/system_bus_socket</listen>
  <auth>EXTERNAL</auth>
  {machine}
  <include>/etc/policy.conf</include>
  <policy user="{uid}">{leave}</policy>
</busconfig>"""


@pytest.fixture(params=sorted({system_bus.chosen(), *system_bus.installed()}))
def bus(request: pytest.FixtureRequest) -> SystemBus:
    """Each rule is tested on every bus that is installed, and on the chosen one in any case."""
    system_bus.check(request.param)
    return request.param


def sandbox(bus: SystemBus, files: Path, user: tuple[int, int]) -> list[str]:
    """The command line of a sandbox in which there is this user alone."""
    uid, gid = (str(number) for number in user)
    binds = [word for name in ("passwd", "group", "machine-id", "bus.conf")
             for word in ("--ro-bind", str(files / name), f"/etc/{name}")]
    modules = [word for name in ("lab", "tests/bus_policy_user.py")
               for word in ("--ro-bind", str(ROOT / name), f"{names.LAB_FOLDER}/{name}")]
    return ["bwrap", "--unshare-user", "--unshare-pid", "--unshare-net", "--uid", uid,
            "--gid", gid, "--die-with-parent", "--clearenv",
            "--setenv", system_bus.VARIABLE, bus, "--setenv", "PATH", "/usr/bin",
            "--ro-bind", "/usr", "/usr", "--symlink", "usr/bin", "/bin",
            "--symlink", "usr/lib", "/lib", "--symlink", "usr/lib64", "/lib64",
            "--proc", "/proc", "--dev", "/dev", "--tmpfs", "/run",
            "--ro-bind", str(POLICY), "/etc/policy.conf", *binds, *modules,
            "--chdir", names.LAB_FOLDER]


def outcomes(bus: SystemBus, files: Path, user: tuple[int, int], served: tuple[str, ...],
             messages: list[tuple[str, dict]]) -> list[str]:
    """What becomes of a user's messages, some of them to names that the user serves."""
    for name, content in (("passwd", PASSWD), ("group", GROUP), ("machine-id", MACHINE_ID),
                          ("bus.conf", bus_configuration(user[0], served))):
        (files / name).write_text(content)
    told = subprocess.run(
        [*sandbox(bus, files, user), "/usr/bin/python3", "-B", "-s", "-m",
         "tests.bus_policy_user", "/etc/bus.conf"],
        input=json.dumps({"served": served, "messages": messages}), capture_output=True,
        text=True, check=False, timeout=60)
    assert told.returncode == 0, told.stderr
    return told.stdout.splitlines()


def call(destination: str, path: str, interface: str, member: str, signature: str = "",
         *body: object) -> tuple[str, dict]:
    return "call", {"destination": destination, "path": path, "interface": interface,
                    "member": member, "signature": signature, "body": body}


METHODS = [call(SERVICE, OBJECT, MANAGER, method)
           for method in ("RecordMetric", "RecordOfflineData", "RecordStructuredData")]
LOOKING = [call(SERVICE, OBJECT, f"{BUS}.Introspectable", "Introspect"),
           call(SERVICE, OBJECT, f"{BUS}.Peer", "Ping")]
NOBODYS = [call(SERVICE, OBJECT, MANAGER, "Unheard"),
           call(SERVICE, OBJECT, "org.example.Unheard", "RecordMetric"),
           call(SERVICE, "/org/quintara/ap/Pelmor", f"{BUS}.ObjectManager", "GetManagedObjects"),
           call(SERVICE, OBJECT, f"{BUS}.Properties", "GetAll", "s", MANAGER)]


@pytest.mark.parametrize(("user", "may_report"), [
    pytest.param(REAL_ROOT, True, id="root"),
    pytest.param(MEMBER, True, id="a member of the group"),
    pytest.param(STRANGER, False, id="anyone else"),
])
def test_who_may_call_the_daemon(bus: SystemBus, tmp_path: Path, user: tuple[int, int],
                                 may_report: bool) -> None:
    found = outcomes(bus, tmp_path, user, (SERVICE,), METHODS + LOOKING + NOBODYS)
    reporting = ["ok" if may_report else DENIED] * len(METHODS)
    assert found == reporting + ["ok"] * len(LOOKING) + [DENIED] * len(NOBODYS)


@pytest.mark.parametrize(("user", "may_own"), [
    pytest.param(PELMOR, True, id="pelmor"),
    pytest.param(MEMBER, False, id="a member of the group"),
    pytest.param(STRANGER, False, id="anyone else"),
    pytest.param(REAL_ROOT, False, id="root"),
])
def test_only_the_daemons_user_owns_its_name(bus: SystemBus, tmp_path: Path,
                                             user: tuple[int, int], may_own: bool) -> None:
    request = call(BUS, "/org/freedesktop/DBus", BUS, "RequestName", "su", SERVICE, 0)
    assert outcomes(bus, tmp_path, user, (), [request]) == ["ok" if may_own else DENIED]


CALLS_OUT = [
    call(LARDER, "/org/quintara/Larder", f"{BUS}.ObjectManager", "GetManagedObjects"),
    call(LARDER, "/org/quintara/Larder", f"{BUS}.Properties", "Get"),
    call(LARDER, "/org/quintara/Larder", f"{LARDER}.Manager", "UpdateState"),
    call(LARDER, "/org/quintara/Larder", f"{LARDER}.Command", "Complete"),
    call(TLSDATE, "/org/torproject/tlsdate", TLSDATE, "LastSyncInfo"),
]
ELSEWHERE = call("org.example.Other", "/", "org.example.Other", "Anything")


def test_the_daemon_may_call_its_neighbours_and_nobody_else(
        bus: SystemBus, tmp_path: Path) -> None:
    found = outcomes(bus, tmp_path, PELMOR, NEIGHBOURS, [*CALLS_OUT, ELSEWHERE])
    assert found == ["ok"] * len(CALLS_OUT) + [DENIED]


def test_root_may_ask_the_neighbours_what_the_doctor_asks(
        bus: SystemBus, tmp_path: Path) -> None:
    asked = [CALLS_OUT[0],
             call(LARDER, "/org/quintara/Larder", f"{LARDER}.Manager", "CheckDeviceRegistered"),
             CALLS_OUT[-1]]
    found = outcomes(bus, tmp_path, REAL_ROOT, NEIGHBOURS, [*asked, *CALLS_OUT[1:-1], ELSEWHERE])
    assert found == ["ok"] * len(asked) + [DENIED] * len(CALLS_OUT[1:-1]) + [DENIED]


def test_the_policy_lets_nobody_else_call_the_neighbours(bus: SystemBus, tmp_path: Path) -> None:
    found = outcomes(bus, tmp_path, MEMBER, NEIGHBOURS, [*CALLS_OUT, ELSEWHERE])
    assert found == [DENIED] * (len(CALLS_OUT) + 1)
