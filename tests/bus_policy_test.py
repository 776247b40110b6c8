"""Who may speak with whom under the bus's policy."""

import subprocess
import xml.etree.ElementTree as ElementTree
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parent.parent
POLICY = ROOT / "packaging/org.quintara.ap.Pelmor.conf"


SERVICE, OBJECT = "org.quintara.ap.Pelmor", "/org/quintara/ap/Pelmor/Manager"
MANAGER = "org.quintara.ap.Pelmor.Manager"
BUS = "org.freedesktop.DBus"
NEIGHBOURS = ("org.quintara.Larder", "org.torproject.tlsdate", "org.example.Other")
# Users of a device, by uid and primary group.
PELMOR, MEMBER, STRANGER, REAL_ROOT = (990, 990), (1001, 990), (1002, 1002), (0, 0)
PASSWD = """\
root:x:0:0::/:/bin/sh
pelmor:x:990:990::/:/bin/sh
member:x:1001:990::/:/bin/sh
stranger:x:1002:1002::/:/bin/sh
"""
GROUP = "root:x:0:\npelmor:x:990:\nstranger:x:1002:\n"

# Calls, one a line of standard input, from one process; what became of each, one a line of output.
# With a name that is to be taken, it is the answerer too.
CALLER = """
import asyncio, sys
from dbus_next import Message, MessageType
from dbus_next.aio import MessageBus

async def main():
    served = await MessageBus(bus_address=sys.argv[1]).connect()
    served.add_message_handler(lambda message: Message.new_method_return(message)
                               if message.message_type is MessageType.METHOD_CALL else None)
    for name in sys.argv[2:]:
        await served.request_name(name)
    caller = await MessageBus(bus_address=sys.argv[1]).connect()
    for line in sys.stdin:
        destination, path, interface, member, signature, *body = line.rstrip("\\n").split("|")
        body = [int(word) if word.isdigit() else word for word in body]
        reply = await caller.call(Message(destination=destination, path=path, interface=interface,
                                          member=member, signature=signature, body=body))
        print(reply.error_name or "ok", flush=True)

asyncio.run(main())
"""
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
  <listen>unix:path=/run/bus</listen>
  <auth>EXTERNAL</auth>
  {machine}
  <include>/etc/policy.conf</include>
  <policy user="{uid}">{leave}</policy>
</busconfig>"""


def outcomes(tmp_path: Path, user: tuple[int, int], served: tuple[str, ...],
             calls: list[tuple[str, ...]]) -> list[str]:
    """What becomes of a user's calls on a real bus, in a sandbox where there is but this user."""
    uid, gid = user
    for name, content in (("passwd", PASSWD), ("group", GROUP), ("caller.py", CALLER),
                          ("bus.conf", bus_configuration(uid, served))):
        (tmp_path / name).write_text(content)
    binds = [word for name in ("passwd", "group", "caller.py", "bus.conf")
             for word in ("--ro-bind", str(tmp_path / name), f"/etc/{name}")]
    script = ('mkfifo /run/ready; dbus-daemon --config-file=/etc/bus.conf --nofork --nopidfile '
              '--print-address=3 3>/run/ready & '
              'read -r address </run/ready; '
              'exec /usr/bin/python3 -B -s /etc/caller.py "$address" "$@"')
    told = subprocess.run(
        ["bwrap", "--unshare-user", "--unshare-pid", "--unshare-net", "--uid", str(uid),
         "--gid", str(gid), "--die-with-parent", "--clearenv", "--ro-bind", "/usr", "/usr",
         "--symlink", "usr/bin", "/bin", "--symlink", "usr/lib", "/lib",
         "--symlink", "usr/lib64", "/lib64", "--proc", "/proc", "--dev", "/dev",
         "--tmpfs", "/run", "--ro-bind", str(POLICY), "/etc/policy.conf", *binds,
         "/bin/sh", "-c", script, "sh", *served],
        input="".join("|".join(call) + "\n" for call in calls), capture_output=True, text=True,
        check=False, timeout=60)
    assert told.returncode == 0, told.stderr
    return told.stdout.splitlines()


METHODS = [(SERVICE, OBJECT, MANAGER, method, "")
           for method in ("RecordMetric", "RecordOfflineData", "RecordStructuredData")]
LOOKING = [(SERVICE, OBJECT, f"{BUS}.Introspectable", "Introspect", ""),
           (SERVICE, OBJECT, f"{BUS}.Peer", "Ping", "")]
NOBODYS = [(SERVICE, OBJECT, MANAGER, "Unheard", ""),
           (SERVICE, OBJECT, "org.example.Unheard", "RecordMetric", ""),
           (SERVICE, "/org/quintara/ap/Pelmor", f"{BUS}.ObjectManager", "GetManagedObjects", ""),
           (SERVICE, OBJECT, f"{BUS}.Properties", "GetAll", "s", MANAGER)]


@pytest.mark.parametrize(("user", "may_report"), [
    pytest.param(REAL_ROOT, True, id="root"),
    pytest.param(MEMBER, True, id="a member of the group"),
    pytest.param(STRANGER, False, id="anyone else"),
])
def test_who_may_call_the_daemon(tmp_path: Path, user: tuple[int, int], may_report: bool) -> None:
    found = outcomes(tmp_path, user, (SERVICE,), METHODS + LOOKING + NOBODYS)
    reporting = ["ok" if may_report else DENIED] * len(METHODS)
    assert found == reporting + ["ok"] * len(LOOKING) + [DENIED] * len(NOBODYS)


@pytest.mark.parametrize(("user", "may_own"), [
    pytest.param(PELMOR, True, id="pelmor"),
    pytest.param(MEMBER, False, id="a member of the group"),
    pytest.param(STRANGER, False, id="anyone else"),
    pytest.param(REAL_ROOT, False, id="root"),
])
def test_only_the_daemons_user_owns_its_name(tmp_path: Path, user: tuple[int, int],
                                             may_own: bool) -> None:
    request = (BUS, "/org/freedesktop/DBus", BUS, "RequestName", "su", SERVICE, "0")
    assert outcomes(tmp_path, user, (), [request]) == ["ok" if may_own else DENIED]


CALLS_OUT = [
    ("org.quintara.Larder", "/org/quintara/Larder", f"{BUS}.ObjectManager", "GetManagedObjects",
     ""),
    ("org.quintara.Larder", "/org/quintara/Larder", f"{BUS}.Properties", "Get", ""),
    ("org.quintara.Larder", "/org/quintara/Larder", "org.quintara.Larder.Manager", "UpdateState",
     ""),
    ("org.quintara.Larder", "/org/quintara/Larder", "org.quintara.Larder.Command", "Complete", ""),
    ("org.torproject.tlsdate", "/org/torproject/tlsdate", "org.torproject.tlsdate", "LastSyncInfo",
     ""),
]
ELSEWHERE = ("org.example.Other", "/", "org.example.Other", "Anything", "")


def test_the_daemon_may_call_its_neighbours_and_nobody_else(tmp_path: Path) -> None:
    found = outcomes(tmp_path, PELMOR, NEIGHBOURS, [*CALLS_OUT, ELSEWHERE])
    assert found == ["ok"] * len(CALLS_OUT) + [DENIED]


def test_root_may_ask_the_neighbours_what_the_doctor_asks(tmp_path: Path) -> None:
    asked = [CALLS_OUT[0],
             ("org.quintara.Larder", "/org/quintara/Larder", "org.quintara.Larder.Manager",
              "CheckDeviceRegistered", ""), CALLS_OUT[-1]]
    found = outcomes(tmp_path, REAL_ROOT, NEIGHBOURS, [*asked, *CALLS_OUT[1:-1], ELSEWHERE])
    assert found == ["ok"] * len(asked) + [DENIED] * len(CALLS_OUT[1:-1]) + [DENIED]


def test_the_policy_lets_nobody_else_call_the_neighbours(tmp_path: Path) -> None:
    found = outcomes(tmp_path, MEMBER, NEIGHBOURS, [*CALLS_OUT, ELSEWHERE])
    assert found == [DENIED] * (len(CALLS_OUT) + 1)
