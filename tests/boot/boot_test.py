"""One device from its first boot to its shutdown: each test continues where the previous one
ended."""

import json
import os
import re
import stat
from typing import Any

import pytest

from lab.common import names
from lab.device import api
from lab.device.status import parse
from tests.boot import readme
from tests.boot.booted_device import RUN_FOLDER, START_TIME, UNIT, BootedDevice
from tests.boot.reports import (TOKEN, assert_owns_its_name, assert_uploads, points, provision,
                                record, upload, uploaded)

INTROSPECT = ("busctl", "introspect", names.DAEMON_SERVICE, names.DAEMON_PATH)
# The bus limits messages to 32 MiB, with their headers.
LARGEST_BODY = 32 * 1024 * 1024 - 1024
SMALL_BODY = 64
FLOOD_DEADLINE = 120.0
# The daemon itself needs 15 MiB; a message of the flood has 32.
MOST_MEMORY = 24 * 1024 * 1024
# Handling 30,000 messages would take several times as much.
MOST_PROCESSOR_SECONDS = 0.1

# Results of earlier tests that later tests use.
past: dict[str, Any] = {}


def connections(device: BootedDevice, process: int) -> list[str]:
    """The unique names of a process on the bus."""
    listed = device.run("busctl", "list", "--unique", "--no-legend").output.splitlines()
    return [name for name, owner, *_ in map(str.split, listed) if owner == str(process)]


def peak_memory(device: BootedDevice, process: int) -> int:
    status = device.file(f"/proc/{process}/status").read_text()
    return int(re.search(r"^VmHWM:\s+(\d+) kB$", status, re.MULTILINE)[1]) * 1024


def processor_seconds(device: BootedDevice, process: int) -> float:
    # The program's name, in parentheses, is the second field.
    fields = device.file(f"/proc/{process}/stat").read_text().rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def test_the_unit_starts_the_daemon_and_waits_until_it_is_ready(device: BootedDevice) -> None:
    assert device.run("systemctl", "is-active", UNIT).output == "active\n"
    assert device.run("systemctl", "is-enabled", UNIT).output == "enabled\n"
    assert device.unit("Type") == "notify"
    assert device.unit("NRestarts") == "0"
    assert_owns_its_name(device)


def test_the_bus_is_the_one_that_was_chosen(device: BootedDevice) -> None:
    bus = device.run("systemctl", "show", "--value", "--property=MainPID", "dbus.service")
    program = device.file(f"/proc/{bus.output.strip()}/comm").read_text()
    # The kernel keeps 15 characters of a program's name.
    assert program == f"{device.bus.program[:15]}\n"


def test_the_daemon_runs_as_its_own_user_without_rights(device: BootedDevice) -> None:
    status = dict(line.split(":\t", 1) for line in
                  device.file(f"/proc/{device.daemon()}/status").read_text().splitlines()
                  if ":\t" in line)
    user = device.run("id", "--user", "pelmor").output.strip()
    assert user != "0"
    assert status["Uid"].split() == [user] * 4
    assert status["CapEff"] == status["CapBnd"] == "0" * 16
    assert status["NoNewPrivs"] == "1"
    assert status["Seccomp"] == "2"


def test_the_daemon_can_write_to_its_two_folders_only(device: BootedDevice) -> None:
    folders = device.view("pelmor")
    # The first two are the same folder.
    assert sorted(folder for folder, writable in folders.items() if writable) == [
        RUN_FOLDER, names.RUN_FOLDER, names.STATE_FOLDER]


def test_the_daemon_sees_its_own_folder_in_tmp_and_no_other(device: BootedDevice) -> None:
    assert sorted(folder for folder in device.view("pelmor") if folder.startswith("/tmp")) == [
        "/tmp", "/tmp/ap", names.RUN_FOLDER]
    # Outside of the sandbox, the same path leads to it.
    assert device.run("readlink", "--canonicalize", names.RUN_FOLDER).output == f"{RUN_FOLDER}\n"


def test_only_the_daemon_can_read_secrets_and_state(device: BootedDevice) -> None:
    for path, expected in ((names.CONFIGURATION, "400 pelmor:root"),
                           (names.OVERRIDE, "400 pelmor:root"),
                           (names.STATE_FOLDER, "700 pelmor:pelmor"),
                           (RUN_FOLDER, "700 pelmor:pelmor")):
        assert device.run("stat", "--format=%a %U:%G", path).output.strip() == expected, path


def test_a_cloud_command_provisions_the_daemon(device: BootedDevice) -> None:
    assert not device.file(names.REFRESH_TOKEN).exists()
    provision(device)
    assert ("code", "code-1") in device.cloud.wait_for_request("exchange").form
    token = device.file(names.REFRESH_TOKEN)
    device.wait_until(token.exists, "the refresh token's file")
    assert token.read_text() == "refresh-1"
    assert stat.S_IMODE(token.stat().st_mode) == 0o600


def test_a_member_of_the_group_reports_to_the_cloud(device: BootedDevice) -> None:
    assert not device.file(START_TIME).exists()
    body = upload(device, "ap/first")
    assert points(body) == ["ap/first"]
    past["start"] = device.file(START_TIME).read_text()


def test_every_user_can_read_the_status_from_systemd(device: BootedDevice) -> None:
    device.wait_until(lambda: " accepted=1 " in device.unit("StatusText"), "the point's end")
    status = parse(device.unit("StatusText"))
    assert status["points"]["recorded"] == 1
    assert status["gates"] == dict.fromkeys(
        ("refresh_token", "access_token", "network_time", "registered"), True)
    result = device.run("pelmorctl", "status", "--json", user="stranger")
    assert result.code == 0 and json.loads(result.output)["points"] == status["points"], result


def test_every_check_of_the_doctor_passes(device: BootedDevice) -> None:
    before = device.event_log.last()
    result = device.run("pelmorctl", "doctor")
    assert result.code == 0, result
    # The daemon is idle now, so these are the doctor's requests.
    past["probes"] = device.cloud.requests(after=before)


def test_the_commands_of_the_readme_work_on_a_device(device: BootedDevice) -> None:
    start = device.event_log.last()
    # The first block installed the packages.
    for commands in readme.shell_blocks("On a device")[1:]:
        device.shell(commands)
    # One command is the doctor, whose requests have no body.
    past["probes"] += [request for request in device.cloud.requests(after=start)
                       if not request.body]
    device.wait_for_log(device.daemon(), TOKEN)
    before = device.event_log.last()
    device.shell(readme.shell_blocks("Report to it")[0], user="reporter")
    device.wait_until(lambda: uploaded(device, "ap/radio/utilization", before) == 2, "two points")


def test_the_bus_rejects_calls_of_other_users(device: BootedDevice) -> None:
    refused = record(device, "ap/refused", "d", "0.5", user="stranger")
    assert refused.code == 1
    assert refused.errors.startswith("Call failed: "), refused
    assert device.run(*INTROSPECT, user="stranger").code == 1
    assert_uploads(device, "ap/second")


@pytest.mark.parametrize(("interface", "member", "arguments"), [
    (names.LARDER_MANAGER, "AddCommand", ("s", "{}")),
    (names.LARDER_MANAGER, "RegisterDevice", ("s", "ticket")),
    ("org.freedesktop.DBus.Properties", "Set", ("ssv", names.LARDER_MANAGER, "Name", "s", "mine")),
])
def test_the_daemons_user_may_not_call_what_the_daemon_does_not(
        device: BootedDevice, interface: str, member: str, arguments: tuple[str, ...]) -> None:
    larder = ("busctl", "call", names.LARDER_SERVICE, names.LARDER_MANAGER_PATH)
    before = device.event_log.last()
    allowed = device.run(*larder, names.LARDER_MANAGER, "CheckDeviceRegistered", user="pelmor")
    assert allowed.code == 0, allowed
    refused = device.run(*larder, interface, member, *arguments, user="pelmor")
    assert refused.code == 1 and "Access denied" in refused.errors, refused
    assert not device.larder.calls(member, after=before)


def test_the_daemons_user_cannot_call_the_service_manager(device: BootedDevice) -> None:
    # A service manager starts programs outside of the sandbox, and answers every user.
    manager = "org.freedesktop.systemd1"
    ask = ("busctl", "call", manager, "/org/freedesktop/systemd1", f"{manager}.Manager",
           "GetDefaultTarget")
    assert device.run(*ask, user="stranger").code == 0
    refused = device.run(*ask, user="pelmor")
    assert (refused.code, "Access denied" in refused.errors) == (1, True), refused
    # Without a home folder the user cannot leave a unit for a user's service manager.
    assert device.run("getent", "passwd", "pelmor").output.split(":")[5] == "/nonexistent"


def test_root_sees_the_interface_and_the_objects(device: BootedDevice) -> None:
    assert "RecordMetric" in device.run(*INTROSPECT).output
    objects = device.run("busctl", "call", names.DAEMON_SERVICE, "/org/quintara/ap/Pelmor",
                         "org.freedesktop.DBus.ObjectManager", "GetManagedObjects")
    assert names.DAEMON_PATH in objects.output, objects


@pytest.mark.parametrize(("kind", "size", "count"), [
    ("signal", LARGEST_BODY, 3), ("ping", LARGEST_BODY, 3),
    ("signal", SMALL_BODY, 5_000), ("ping", SMALL_BODY, 5_000)])
def test_no_user_can_flood_the_daemon(device: BootedDevice, kind: str, size: int,
                                      count: int) -> None:
    process, restarts = device.daemon(), device.unit("NRestarts")
    # The kernel resets the peak.
    device.file(f"/proc/{process}/clear_refs").write_text("5")
    before = processor_seconds(device, process)
    flood = device.run("env", "PYTHONPATH=/opt/lab", "python3", "-B", "-s", "-m", "inside.flood",
                       kind, str(size), str(count), names.DAEMON_SERVICE,
                       *connections(device, process), user="stranger", deadline=FLOOD_DEADLINE)
    assert flood.code == 0, flood
    assert int(flood.output) >= count
    # No message was delivered to the daemon.
    assert peak_memory(device, process) < MOST_MEMORY
    assert processor_seconds(device, process) - before < MOST_PROCESSOR_SECONDS
    assert (device.daemon(), device.unit("NRestarts")) == (process, restarts)
    assert_uploads(device, "ap/flooded")


def test_a_killed_daemon_restarts_with_its_token_and_start_time(device: BootedDevice) -> None:
    old = device.daemon()
    before = device.event_log.last()
    device.run("systemctl", "kill", "--signal=KILL", UNIT)
    device.wait_for_restart(old)
    assert device.unit("NRestarts") == "1"
    assert device.log(device.daemon())[0].endswith("Starting pelmor daemon")
    device.wait_for_log(device.daemon(), "Loaded start time")
    assert_uploads(device, "ap/third")
    assert device.file(START_TIME).read_text() == past["start"]
    refresh = device.cloud.wait_for_request("refresh", after=before)
    assert ("refresh_token", "refresh-1") in refresh.form
    assert not device.cloud.requests("exchange", after=before)


def test_after_an_unsupported_value_the_daemon_restarts(device: BootedDevice) -> None:
    old = device.daemon()
    refused = record(device, "ap/unsupported", "as", "1", "list")
    assert refused.code == 1
    device.wait_for_restart(old)
    assert device.unit("NRestarts") == "2"
    ends = [entry["MESSAGE"] for entry in device.journal("--boot", f"--unit={UNIT}")
            if "code=" in entry["MESSAGE"] and "status=" in entry["MESSAGE"]]
    assert ends == [f"{UNIT}: Main process exited, code=killed, status=9/KILL",
                    f"{UNIT}: Main process exited, code=killed, status=6/ABRT"]
    assert_uploads(device, "ap/fourth")
    assert device.file(START_TIME).read_text() == past["start"]


def test_a_reboot_keeps_the_refresh_token_and_not_the_start_time(device: BootedDevice) -> None:
    before = device.event_log.last()
    device.reboot()
    assert device.unit("NRestarts") == "0"
    assert device.file(names.REFRESH_TOKEN).read_text() == "refresh-1"
    assert not device.file(START_TIME).exists()
    assert_uploads(device, "ap/fifth")
    assert int(device.file(START_TIME).read_text()) > int(past["start"])
    assert not device.cloud.requests("exchange", after=before)
    assert not any("Loaded start time" in line for line in device.log())


def test_each_line_is_in_the_journal_once(device: BootedDevice) -> None:
    # By boot and process: five processes in two boots.
    logs: dict[tuple[str, str], list[str]] = {}
    for entry in device.journal(f"--unit={UNIT}"):
        if entry["_TRANSPORT"] != "journal":
            process = (entry["_BOOT_ID"], entry["_PID"])
            logs.setdefault(process, []).append(entry["MESSAGE"])
    assert len(logs) == 5
    for log in logs.values():
        for line in ("Starting pelmor daemon", "token: 200"):
            assert sum(line in text for text in log) == 1, log


def test_the_daemon_shuts_down_with_the_device(device: BootedDevice) -> None:
    assert device.power_off() == 0
    log = device.log()
    assert log[-1].endswith("Shutting down pelmor daemon"), log
    assert not [entry["MESSAGE"] for entry in device.journal("--boot", f"--unit={UNIT}")
                if "Failed with result" in entry["MESSAGE"]]
    api.check(request for request in device.cloud.requests() if request not in past["probes"])
