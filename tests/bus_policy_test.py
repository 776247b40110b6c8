"""The messages that the bus policy allows."""

import json
import re
import subprocess
import xml.etree.ElementTree as ElementTree
from pathlib import Path

import pytest

from lab.common import names
from lab.common.tree import ROOT
from lab.device import system_bus
from lab.device.system_bus import SystemBus

POLICY = ROOT / "packaging/org.quintara.ap.Pelmor.conf"


SERVICE, OBJECT = "org.quintara.ap.Pelmor", "/org/quintara/ap/Pelmor/Manager"
MANAGER = "org.quintara.ap.Pelmor.Manager"
BUS = "org.freedesktop.DBus"
LARDER, TLSDATE = "org.quintara.Larder", "org.torproject.tlsdate"
NEIGHBOURS = (LARDER, TLSDATE, "org.example.Other")
# A service that lets everyone call it.
OPEN = "org.example.Open"
# More than the header of any message here.
HEAD_BYTES = 1024
# As a destination: the other connection, by its unique name.
RECEIVER = "receiver"
# The sender of a message, its kind, and its fields.
Sent = tuple[str, str, dict]
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


def bus_configuration(uid: int, owned: tuple[str, ...], limits: str = "") -> str:
    """The distribution's rules of the system bus, our policy, and, for the test only, a rule that
    lets the one user of this bus own the names of the services."""
    rules = ElementTree.parse("/usr/share/dbus-1/system.conf").getroot().findall("policy")
    machine = "".join(ElementTree.tostring(rule, encoding="unicode") for rule in rules)
    leave = "".join(f'<allow own="{name}"/>' for name in owned)
    return f"""<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <listen>unix:path=/run/dbus/system_bus_socket</listen>
  <auth>EXTERNAL</auth>
  {machine}
  <include>/etc/policy.conf</include>
  <policy context="default"><allow send_destination="{OPEN}"/></policy>
  <policy user="{uid}">{leave}</policy>
  {limits}
</busconfig>"""


@pytest.fixture(params=sorted({system_bus.chosen(), *system_bus.installed()}))
def bus(request: pytest.FixtureRequest) -> SystemBus:
    """Each rule is tested on every bus that is installed, and on the chosen one in any case."""
    system_bus.check(request.param)
    return request.param


def sandbox(bus: SystemBus, files: Path, user: tuple[int, int]) -> list[str]:
    """The command line of a sandbox with only this user."""
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


def outcomes(bus: SystemBus, files: Path, user: tuple[int, int], messages: list[Sent],
             served: tuple[str, ...] = (), callers: tuple[str, ...] = (),
             limits: str = "") -> list[str]:
    """The outcome of each message between two connections of a user: a service that owns the names
    `served`, and a caller that owns `callers`."""
    for name, content in (("passwd", PASSWD), ("group", GROUP), ("machine-id", MACHINE_ID),
                          ("bus.conf", bus_configuration(user[0], served + callers, limits))):
        (files / name).write_text(content)
    order = {"names": {"service": served, "caller": callers}, "messages": messages}
    result = subprocess.run(
        [*sandbox(bus, files, user), "/usr/bin/python3", "-B", "-s", "-m",
         "tests.bus_policy_user", "/etc/bus.conf"],
        input=json.dumps(order), capture_output=True, text=True, check=False, timeout=60)
    assert result.returncode == 0, result.stderr
    return result.stdout.splitlines()


def call(destination: str, path: str, interface: str, member: str, signature: str = "",
         *body: object) -> Sent:
    return "caller", "call", {"destination": destination, "path": path, "interface": interface,
                              "member": member, "signature": signature, "body": body}


def signal(sender: str, destination: str | None, interface: str = "org.example.X",
           member: str = "Happened") -> Sent:
    return sender, "signal", {"destination": destination, "path": "/", "interface": interface,
                              "member": member}


def forged_reply(destination: str) -> Sent:
    return "caller", "reply", {"destination": destination}


CALLS_OUT = [
    call(LARDER, "/org/quintara/Larder", f"{BUS}.ObjectManager", "GetManagedObjects"),
    call(LARDER, "/org/quintara/Larder", f"{BUS}.Properties", "Get"),
    *(call(LARDER, "/org/quintara/Larder", f"{LARDER}.Manager", method)
      for method in ("CheckDeviceRegistered", "UpdateState")),
    *(call(LARDER, "/org/quintara/Larder", f"{LARDER}.Command", method)
      for method in ("SetProgress", "Complete", "Abort")),
    call(TLSDATE, "/org/torproject/tlsdate", TLSDATE, "LastSyncInfo"),
]
# Methods of the neighbours that the daemon never calls.
NOT_CALLED = [
    *(call(LARDER, "/org/quintara/Larder", f"{LARDER}.Manager", method) for method in
      ("RegisterDevice", "UpdateDeviceInfo", "UpdateServiceConfig", "GetState", "AddCommand",
       "TestMethod")),
    *(call(LARDER, "/org/quintara/Larder", f"{LARDER}.Command", method)
      for method in ("SetError", "Cancel")),
    *(call(LARDER, "/org/quintara/Larder", f"{BUS}.Properties", method)
      for method in ("Set", "GetAll")),
    call(LARDER, "/org/quintara/Larder", f"{BUS}.ObjectManager", "Other"),
    call(TLSDATE, "/org/torproject/tlsdate", TLSDATE, "Other"),
]
SIGNALS = {
    LARDER: [(f"{BUS}.ObjectManager", "InterfacesAdded"),
             (f"{BUS}.ObjectManager", "InterfacesRemoved"),
             (f"{BUS}.Properties", "PropertiesChanged")],
    # The daemon needs no signal of tlsdate.
    TLSDATE: [],
}
ELSEWHERE = call("org.example.Other", "/", "org.example.Other", "Anything")
METHODS = [call(SERVICE, OBJECT, MANAGER, method)
           for method in ("RecordMetric", "RecordOfflineData", "RecordStructuredData")]
INTROSPECT = call(SERVICE, OBJECT, f"{BUS}.Introspectable", "Introspect")
LIST_OBJECTS = call(SERVICE, "/org/quintara/ap/Pelmor", f"{BUS}.ObjectManager",
                    "GetManagedObjects")
NOBODYS = [call(SERVICE, OBJECT, MANAGER, "Unheard"),
           call(SERVICE, OBJECT, "org.example.Unheard", "RecordMetric"),
           call(SERVICE, OBJECT, f"{BUS}.Peer", "Ping"),
           call(SERVICE, OBJECT, f"{BUS}.Properties", "GetAll", "s", MANAGER)]


@pytest.mark.parametrize(("user", "allowed"), [
    pytest.param(REAL_ROOT, [*METHODS, INTROSPECT, LIST_OBJECTS], id="root"),
    pytest.param(MEMBER, [*METHODS, INTROSPECT], id="a member of the group"),
    pytest.param(STRANGER, [], id="anyone else"),
])
def test_who_may_call_the_daemon(bus: SystemBus, tmp_path: Path, user: tuple[int, int],
                                 allowed: list[Sent]) -> None:
    calls = [*METHODS, INTROSPECT, LIST_OBJECTS, *NOBODYS]
    found = outcomes(bus, tmp_path, user, calls, served=(SERVICE,))
    assert found == ["ok" if call in allowed else DENIED for call in calls]


@pytest.mark.parametrize("user", [
    pytest.param(REAL_ROOT, id="root"), pytest.param(MEMBER, id="a member of the group"),
    pytest.param(STRANGER, id="anyone else"), pytest.param(PELMOR, id="pelmor")])
def test_the_service_receives_only_calls(bus: SystemBus, tmp_path: Path,
                                         user: tuple[int, int]) -> None:
    sent = [signal("caller", SERVICE), signal("caller", RECEIVER), forged_reply(SERVICE)]
    # The neighbours may not send any of these either.
    found = outcomes(bus, tmp_path, user, sent, served=(SERVICE,), callers=NEIGHBOURS)
    assert found == ["lost"] * len(sent)


@pytest.mark.parametrize("owned", [(), (SERVICE,)], ids=["without a name", "with its name"])
def test_the_daemon_receives_the_signals_that_it_needs(
        bus: SystemBus, tmp_path: Path, owned: tuple[str, ...]) -> None:
    replied = outcomes(bus, tmp_path, PELMOR, CALLS_OUT, served=NEIGHBOURS, callers=owned)
    assert replied == ["ok"] * len(CALLS_OUT)
    for neighbour, signals in SIGNALS.items():
        sent = [signal("service", None, *each) for each in signals]
        assert outcomes(bus, tmp_path, PELMOR, sent, served=(neighbour,),
                        callers=owned) == ["arrived"] * len(sent), neighbour


@pytest.mark.parametrize("neighbour", SIGNALS)
def test_the_daemon_receives_no_other_signals_of_its_neighbours(
        bus: SystemBus, tmp_path: Path, neighbour: str) -> None:
    others = [("org.example.X", "Happened"), (neighbour, "Happened"), (TLSDATE, "TimeUpdated"),
              *(each for signals in SIGNALS.values() for each in signals
                if each not in SIGNALS[neighbour])]
    sent = [signal("service", to, *each) for each in others for to in (None, RECEIVER)]
    assert outcomes(bus, tmp_path, PELMOR, sent, served=(neighbour,)) == ["lost"] * len(sent)


@pytest.mark.parametrize("owned", [(), (SERVICE,)], ids=["without a name", "with its name"])
def test_the_daemon_receives_no_signals_of_others(bus: SystemBus, tmp_path: Path,
                                                  owned: tuple[str, ...]) -> None:
    sent = [signal("service", None), signal("service", RECEIVER)]
    assert outcomes(bus, tmp_path, PELMOR, sent, served=("org.example.Other",),
                    callers=owned) == ["lost"] * len(sent)


@pytest.mark.parametrize("owned", [(), (SERVICE,)], ids=["without a name", "with its name"])
def test_the_daemon_receives_changes_of_owners(bus: SystemBus, tmp_path: Path,
                                               owned: tuple[str, ...]) -> None:
    assert outcomes(bus, tmp_path, PELMOR, [("service", "release", {"name": LARDER})],
                    served=(LARDER,), callers=owned) == ["arrived"]


@pytest.mark.parametrize(("user", "may_own"), [
    pytest.param(PELMOR, True, id="pelmor"),
    pytest.param(MEMBER, False, id="a member of the group"),
    pytest.param(STRANGER, False, id="anyone else"),
    pytest.param(REAL_ROOT, False, id="root"),
])
def test_only_the_daemons_user_owns_its_name(bus: SystemBus, tmp_path: Path,
                                             user: tuple[int, int], may_own: bool) -> None:
    request = call(BUS, "/org/freedesktop/DBus", BUS, "RequestName", "su", SERVICE, 0)
    assert outcomes(bus, tmp_path, user, [request]) == ["ok" if may_own else DENIED]


def test_the_daemon_may_make_only_the_calls_that_it_needs(bus: SystemBus, tmp_path: Path) -> None:
    denied = [*NOT_CALLED, ELSEWHERE]
    found = outcomes(bus, tmp_path, PELMOR, [*CALLS_OUT, *denied], served=NEIGHBOURS)
    assert found == ["ok"] * len(CALLS_OUT) + [DENIED] * len(denied)


@pytest.mark.parametrize(("user", "outcome"), [
    pytest.param(PELMOR, DENIED, id="pelmor"), pytest.param(STRANGER, "ok", id="anyone else")])
def test_the_daemon_may_not_call_services_that_are_open_to_everyone(
        bus: SystemBus, tmp_path: Path, user: tuple[int, int], outcome: str) -> None:
    found = outcomes(bus, tmp_path, user, [call(OPEN, "/", OPEN, "Anything")], served=(OPEN,))
    assert found == [outcome]


def test_the_daemon_may_call_only_the_methods_of_the_bus_that_it_needs(
        bus: SystemBus, tmp_path: Path) -> None:
    match = "type='signal',interface='org.example.X'"
    asked = [call(BUS, "/org/freedesktop/DBus", BUS, *method) for method in (
        ("RequestName", "su", SERVICE, 0), ("GetNameOwner", "s", SERVICE), ("AddMatch", "s", match),
        ("RemoveMatch", "s", match), ("ReleaseName", "s", SERVICE))]
    denied = [call(BUS, "/org/freedesktop/DBus", BUS, "ListNames")]
    found = outcomes(bus, tmp_path, PELMOR, [*asked, *denied])
    assert found == ["ok"] * len(asked) + [DENIED] * len(denied)


def test_root_may_make_the_calls_of_the_doctor(bus: SystemBus, tmp_path: Path) -> None:
    asked = [call for call in CALLS_OUT if call[2]["member"] in (
        "GetManagedObjects", "CheckDeviceRegistered", "LastSyncInfo")]
    assert len(asked) == 3
    denied = [*(call for call in CALLS_OUT if call not in asked), ELSEWHERE]
    found = outcomes(bus, tmp_path, REAL_ROOT, [*asked, *denied], served=NEIGHBOURS)
    assert found == ["ok"] * len(asked) + [DENIED] * len(denied)


def test_the_policy_lets_no_other_user_call_the_neighbours(bus: SystemBus, tmp_path: Path) -> None:
    found = outcomes(bus, tmp_path, MEMBER, [*CALLS_OUT, ELSEWHERE], served=NEIGHBOURS)
    assert found == [DENIED] * (len(CALLS_OUT) + 1)


def test_the_documented_limit_bounds_a_record_on_dbus_daemon(bus: SystemBus,
                                                             tmp_path: Path) -> None:
    document = (ROOT / "docs/operations.md").read_text()
    [limit] = re.findall(r'^ *(<limit name="max_message_size">(\d+)</limit>)$', document,
                         re.MULTILINE)
    element, size = limit[0], int(limit[1])
    records = [call(SERVICE, OBJECT, MANAGER, "RecordMetric", "s", "t" * length)
               for length in (size - HEAD_BYTES, size)]
    beyond = "disconnected" if bus is SystemBus.DBUS_DAEMON else "ok"
    assert outcomes(bus, tmp_path, MEMBER, records, served=(SERVICE,),
                    limits=element) == ["ok", beyond]
