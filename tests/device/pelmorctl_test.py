"""`pelmorctl` beside the real daemon: its records are uploaded, and its check of a configuration
agrees with the daemon."""

import re
from signal import SIGABRT

import pytest

from lab.common import names
from lab.common.names import Endpoint
from lab.common.tree import ROOT
from lab.device.device import DEFAULT_CONFIGURATION, Device, Run
from tests.device.helpers import BUS_SOCKET, EX_UNAVAILABLE, EX_USAGE, register, start_ready
from tests.device.pelmorctl import (FAILED, FOR_PELMOR, INTERVAL, OK, add_daemons_user,
                                    assert_silent_success, ctl, make_readable, shell)

TYPE_URL = "type.example/ap.Event"


# Records.

@pytest.mark.parametrize("arguments, typed", [
    (["12"], {"int64Value": "12"}),
    (["-7", "--type", "double"], {"doubleValue": -7.0}),
    (["0.25"], {"doubleValue": 0.25}),
    (["true"], {"boolValue": True}),
    (["true", "--type=string"], {"stringValue": "true"}),
    (["two words"], {"stringValue": "two words"}),
], ids=str)
def test_a_metric_reaches_the_cloud_with_its_type_and_labels(
        device: Device, arguments: list[str], typed: dict) -> None:
    start_ready(device)
    assert_silent_success(ctl(device, "metric", "ap/x", *arguments, "-l", "band=5g",
                              "--label", "note=a=b"))
    register(device)

    [metric] = device.cloud.wait_for_request(Endpoint.METRICS).json["metricPoints"]

    [point] = metric["points"]
    assert metric["metricName"] == "ap/x"
    assert point["labels"] == {"band": "5g", "note": "a=b"}
    assert {key: value for key, value in point.items() if key.endswith("Value")} == typed


def test_a_structured_entry_reaches_the_cloud_from_a_file(device: Device) -> None:
    start_ready(device)
    device.write_file("/tmp/entry", b"\xfb\xff\x01")
    assert_silent_success(ctl(device, "structured", TYPE_URL, "/tmp/entry"))
    register(device)
    request = device.cloud.wait_for_request(Endpoint.STRUCTURED_LOGS)
    assert request.json == {"typeUrl": TYPE_URL, "value": "-_8B"}


def test_a_structured_entry_reaches_the_cloud_from_a_pipe(device: Device) -> None:
    start_ready(device)
    assert_silent_success(device.run("env", "PATH=/opt/ap:/usr/bin", "bash", "-c",
                                     rf"pelmorctl structured {TYPE_URL} <(printf '\373\377\001')"))
    register(device)
    request = device.cloud.wait_for_request(Endpoint.STRUCTURED_LOGS)
    assert request.json == {"typeUrl": TYPE_URL, "value": "-_8B"}


def test_offline_data_reaches_the_cloud_from_the_standard_input(device: Device) -> None:
    start_ready(device)
    assert_silent_success(shell(device, rf"printf '\373\377\001' | pelmorctl offline {TYPE_URL}"))
    assert_silent_success(shell(device, f"pelmorctl offline {TYPE_URL}/2 - </dev/null"))
    register(device)
    device.cloud.wait_for_request(Endpoint.OFFLINE_LOGS, count=2)
    assert [request.json["writeLog"] for request in device.cloud.requests(
        Endpoint.OFFLINE_LOGS)] == [[{"typeUrl": TYPE_URL, "value": "-_8B"}],
                                    [{"typeUrl": f"{TYPE_URL}/2", "value": ""}]]


def test_an_invalid_record_fails_with_a_message(device: Device) -> None:
    device.start_daemon()
    device.run("truncate", "--size=16777217", "/tmp/large")
    for arguments, code, complaint in (
            (["metric", "ap/x"], EX_USAGE, "metric: give a NAME and a VALUE; "
             "see 'pelmorctl metric --help'"),
            (["metric", "ap/x", "1", "--type", "float"], EX_USAGE, "metric: no type 'float'; the "
             "types are int64, double, bool and string; see 'pelmorctl metric --help'"),
            (["offline", TYPE_URL, "/tmp/absent"], FAILED, "/tmp/absent: there is no such file"),
            (["offline", TYPE_URL, "/tmp"], FAILED, "/tmp: it can't be read: Is a directory"),
            (["offline", TYPE_URL, "/tmp/large"], FAILED,
             "more than 16777216 bytes: too large"),
            (["offline", TYPE_URL, "/dev/zero"], FAILED,
             "more than 16777216 bytes: too large")):
        assert ctl(device, *arguments) == Run(code, "", f"pelmorctl: {complaint}\n")
    assert device.stop_daemon() == 0


@pytest.mark.plain_build("so much data that a sanitized daemon can reply too late")
def test_data_of_the_largest_size_is_accepted(device: Device) -> None:
    start_ready(device)
    device.run("truncate", "--size=16777216", "/tmp/large")
    assert_silent_success(ctl(device, "offline", TYPE_URL, "/tmp/large"))


def test_an_absent_daemon_or_bus_has_its_own_exit_status(device: Device) -> None:
    absent = ctl(device, "metric", "ap/x", "1")
    assert absent.code == EX_UNAVAILABLE
    assert absent.errors.startswith("pelmorctl: the daemon does not answer (")
    device.delete_file(BUS_SOCKET)
    no_bus = ctl(device, "metric", "ap/x", "1")
    assert no_bus == Run(EX_UNAVAILABLE, "", "pelmorctl: the system bus can't be reached: "
                         "No such file or directory: see 'pelmorctl doctor'\n")


def test_help_and_version(device: Device) -> None:
    assert ctl(device, "--version").output.startswith("pelmorctl ")
    assert ctl(device, "doctor", "--help").output.startswith("Usage: pelmorctl doctor [--json] ")
    assert ctl(device, "--help").code == OK


# The versions. A running daemon can only be read by root with all capabilities.

ENDPOINT = "token endpoint https://oauth2.quintara.example/token"
ANOTHER_FILE = "The running daemon is another file than the installed one: restart it to run that\n"


def version_of(daemon: str) -> str:
    [version] = re.findall(r"^project\(.* VERSION ([\d.]+)", (ROOT / "CMakeLists.txt").read_text(),
                           re.MULTILINE)
    return f"{version}, {ENDPOINT} ({daemon})"


@pytest.mark.not_emulated("the file of an emulated process is the emulator")
def test_the_versions_of_the_installed_and_the_running_daemon_are_shown() -> None:
    with Device(may_trace=True) as device:
        start_ready(device)
        [started] = device.event_log.events("daemon.started")
        run = ctl(device, "version", "--daemon", names.DAEMON_PROGRAM)
        running = version_of(f"process {started['pid']}")
        assert run.output.splitlines() == [
            f"pelmorctl            {version_of('').removesuffix(' ()')}",
            f"installed ap-pelmor  {version_of(names.DAEMON_PROGRAM)}",
            f"running ap-pelmor    {running}"]

        # An upgrade without a restart.
        device.write_file("/tmp/ap-pelmor", b"@(#)ap-pelmor 9.9 https://id.test/token\0")
        run = ctl(device, "version", "--daemon", "/tmp/ap-pelmor")
        assert (f"installed ap-pelmor  9.9, token endpoint https://id.test/token (/tmp/ap-pelmor)\n"
                f"running ap-pelmor    {running}\n{ANOTHER_FILE}") in run.output
        assert run.code == OK


def test_a_missing_or_unreadable_daemon_is_reported(device: Device) -> None:
    assert ctl(device, "version").output.endswith(
        "installed ap-pelmor  /usr/sbin/ap-pelmor: there is no such file\n"
        "running ap-pelmor    none is on the bus\n")
    start_ready(device)
    assert "has no right to read it: run this as root" in ctl(device, "version").output
    device.delete_file(BUS_SOCKET)
    assert ctl(device, "version").code == OK


# The check of the configuration, compared with the daemon.

GOOD = "".join(f"{key}={value}\n" for key, value in DEFAULT_CONFIGURATION.items())


def but(key: str, line: str) -> str:
    return GOOD.replace(f"{key}={DEFAULT_CONFIGURATION[key]}\n", line)


# The main file, the overrides if any, and whether the daemon starts.
CONFIGURATIONS = [
    (GOOD, None, True),
    ("# comment\n\n  \t\n" + GOOD, None, True),
    (GOOD + "no pair\n", None, False),
    (GOOD + "=no key\n", None, False),
    (GOOD + "\r\n", None, False),
    (GOOD + "PELMOR_OTHER=1\nPELMOR_SCOPE=2\n", None, True),
    (GOOD.replace("\n", "\r\n"), None, False),
    *((but(key, ""), None, False) for key in DEFAULT_CONFIGURATION),
    (but(INTERVAL, f"{INTERVAL}=soon\n"), None, False),
    (but(INTERVAL, f"{INTERVAL}=60 \n"), None, False),
    (but(INTERVAL, f"{INTERVAL}=\n"), None, False),
    (but(INTERVAL, f"{INTERVAL}=0\n"), None, True),
    (but(INTERVAL, f"{INTERVAL}=-5\n"), None, True),
    (but(INTERVAL, f"{INTERVAL}=2147483648\n"), None, False),
    (but("PELMOR_URL", "PELMOR_URL=ftp://x/\n"), None, True),
    (but("PELMOR_URL", "PELMOR_URL= not a url \n"), None, True),
    (but(INTERVAL, ""), f"{INTERVAL}=5\n", True),
    (GOOD, f"{INTERVAL}=soon\n", False),
    (GOOD, f"{INTERVAL}=soon\nno pair\n", True),
    (but(INTERVAL, ""), f"{INTERVAL}=5\nno pair\n", False),
]


def daemon_starts(device: Device) -> bool:
    before = device.mark()
    device.start_daemon(wait=False)
    event = device.wait_for(
        lambda one: one.kind == "daemon.exited" or one.matches(
            "bus.name", {"name": names.DAEMON_SERVICE, "owned": False}) or (
                one.kind == "daemon.notify" and one["text"] == "READY=1"), after=before,
        what="the daemon's start or end")
    if event.kind == "daemon.notify":
        assert device.stop_daemon() == 0
        return True
    assert device.wait_for_exit(after=before) == -SIGABRT
    return False


@pytest.mark.parametrize("part", range(3))
def test_check_config_predicts_whether_the_daemon_starts(device: Device, part: int) -> None:
    for main, overrides, starts in CONFIGURATIONS[part::3]:
        device.write_file(names.CONFIGURATION, main)
        if overrides is not None:
            device.write_file(names.OVERRIDE, overrides)
        elif device.read_file(names.OVERRIDE) is not None:
            device.delete_file(names.OVERRIDE)
        run = ctl(device, "check-config")
        assert "secret-1" not in run.output + run.errors
        assert run.code == (OK if starts else FAILED), (main, overrides, run.output)
        assert daemon_starts(device) == starts, (main, overrides)


REJECTION = "the identity provider will probably reject the device"
EXAMPLE = ".example is a reserved domain without servers; nothing will be uploaded"


def test_the_defaults_of_the_package_are_warnings_and_fail_a_strict_check(device: Device) -> None:
    shipped = (ROOT / "packaging/pelmor.conf").read_text()
    lines = {line.partition("=")[0]: number
             for number, line in enumerate(shipped.splitlines(), 1) if line.startswith("PELMOR_")}
    device.write_file(names.CONFIGURATION, shipped, mode=0o600)
    expected = [f"{names.CONFIGURATION}:{lines[key]}: warning: {key}: {fault}" for key, fault in (
        ("PELMOR_CLIENT_ID", f"still the package's default; {REJECTION}"),
        ("PELMOR_CLIENT_SECRET", f"still the package's default; {REJECTION}"),
        ("PELMOR_SCOPE", f"empty; {REJECTION}"), ("PELMOR_URL", EXAMPLE))]
    run, strict = ctl(device, "check-config"), ctl(device, "check-config", "--strict")
    assert run.output == strict.output
    assert run.output.splitlines()[5:] == [
        *expected, "The daemon starts with this configuration (errors: 0, warnings: 4)"]
    assert (run.code, strict.code) == (OK, FAILED)
    assert daemon_starts(device)


def test_a_strict_check_passes_without_warnings(device: Device) -> None:
    device.write_file(names.OVERRIDE, "PELMOR_URL=https://monitoring.example.com\n")
    run = ctl(device, "check-config", "--strict")
    assert run.code == OK
    assert run.output.endswith("(errors: 0, warnings: 0)\n")


def test_an_unreadable_override_is_a_warning_and_a_missing_main_file_an_error(
        device: Device) -> None:
    device.write_file(names.OVERRIDE, f"{INTERVAL}=soon\n", mode=0)
    run = ctl(device, "check-config")
    assert run.code == OK and daemon_starts(device)
    assert (f"{names.OVERRIDE}: warning: the daemon can't read it: Permission denied (checked for "
            "root, the caller, because the daemon does not run); run 'chown root "
            f"{names.OVERRIDE} && chmod 0400 {names.OVERRIDE}'; the daemon ignores it\n"
            ) in run.output
    device.delete_file(names.CONFIGURATION)
    run = ctl(device, "check-config")
    assert run.code == FAILED and not daemon_starts(device)
    assert f"{names.CONFIGURATION}: error: there is no such file\n" in run.output


def test_a_main_file_that_only_root_can_read_is_an_error(device: Device) -> None:
    add_daemons_user(device)
    device.write_file(names.CONFIGURATION, GOOD, mode=0o600)
    assert ctl(device, "check-config") == Run(FAILED, f"""\
{names.CONFIGURATION}: error: the daemon can't read it: the owner and mode of \
{names.CONFIGURATION} forbid it {FOR_PELMOR}; {make_readable(names.CONFIGURATION)}
The daemon does not start with this configuration (errors: 1, warnings: 0)
""", "")


def test_an_override_file_that_only_root_can_read_is_ignored_with_a_warning(device: Device) -> None:
    add_daemons_user(device)
    device.write_file(names.CONFIGURATION, but("PELMOR_CLIENT_SECRET", "PELMOR_CLIENT_SECRET=\n"))
    device.write_file(names.OVERRIDE, f"{INTERVAL}=60\n", mode=0o600)
    run = ctl(device, "check-config")
    assert f"{names.CONFIGURATION}:5: {INTERVAL}=1\n" in run.output
    assert run.output.endswith(f"""
{names.OVERRIDE}: warning: the daemon can't read it: the owner and mode of {names.OVERRIDE} \
forbid it {FOR_PELMOR}; {make_readable(names.OVERRIDE)}; the daemon ignores it
{names.CONFIGURATION}:2: warning: PELMOR_CLIENT_SECRET: empty; {REJECTION}
{names.CONFIGURATION}:4: warning: PELMOR_URL: {EXAMPLE}
The daemon starts with this configuration (errors: 0, warnings: 3)
""")
    assert run.code == OK
    # The user of a running daemon, here root, takes precedence over the intended user.
    start_ready(device)
    assert f"{names.OVERRIDE}:1: {INTERVAL}=60\n" in ctl(device, "check-config").output


@pytest.mark.parametrize("mode, readers", [
    (0o644, "every local user"), (0o604, "every local user"), (0o640, None), (0o600, None)])
def test_a_secret_that_others_can_read_is_a_warning(
        device: Device, mode: int, readers: str | None) -> None:
    device.write_file(names.OVERRIDE, "PELMOR_CLIENT_SECRET=secret-2\n", mode=mode)
    warning = (f"{names.OVERRIDE}: warning: it contains a secret, and {readers} can read it; run "
               f"'chown root {names.OVERRIDE} && chmod 0400 {names.OVERRIDE}'\n")
    run = ctl(device, "check-config")
    assert run.code == OK
    assert (warning in run.output) == bool(readers), run.output
    assert f"warnings: {int(bool(readers)) + 1})" in run.output
    # Without a secret, every user may read the file.
    device.write_file(names.OVERRIDE, f"{INTERVAL}=60\n", mode=mode)
    assert "warnings: 1)" in ctl(device, "check-config").output


def test_any_two_files_can_be_checked(device: Device) -> None:
    device.write_file("/tmp/main", but("PELMOR_SCOPE", "PELMOR_SCOPE=a \n"))
    device.write_file("/tmp/over", "PELMOR_URL=https://other.example.com\n")
    run = ctl(device, "check-config", "--config", "/tmp/main", "--override=/tmp/over")
    assert run == Run(OK, """\
/tmp/main:1: PELMOR_CLIENT_ID=client-1
/tmp/main:2: PELMOR_CLIENT_SECRET=(not shown)
/tmp/main:3: PELMOR_SCOPE=a~
/tmp/over:1: PELMOR_URL=https://other.example.com
/tmp/main:5: PELMOR_UPLOAD_INTERVAL_IN_SECONDS=1
/tmp/main:3: warning: PELMOR_SCOPE: the trailing blanks are part of the value
The daemon starts with this configuration (errors: 0, warnings: 1)
""".replace("~", " "), "")
