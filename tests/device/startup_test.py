"""How the daemon starts and stops, and how it fails to start."""

import re
from collections.abc import Callable
from signal import SIGABRT, SIGINT, SIGTERM, Signals

import pytest

from lab.common import names
from lab.common.names import Endpoint
from lab.device.device import DEFAULT_CONFIGURATION, Device
from tests.device.helpers import (BUS_SOCKET, EX_UNAVAILABLE, EX_USAGE, LOG_LINE, message_of,
                                  messages, register, start_ready, wait_for_message)

NO_STATE = "WARNING Failed to write QTD state"
BAD_OVERRIDE = ("WARNING Failed to load configuration overrides "
                "/var/lib/ap/pelmor.override")
BAD_MAIN_FILE = (
    "FATAL Check failed: configuration.Load(base::FilePath(kConfigurationFile))")
BAD_KEYS = (
    'FATAL Check failed: configuration.GetString("PELMOR_CLIENT_ID", &client_id) && '
    'configuration.GetString("PELMOR_CLIENT_SECRET", &client_secret) && '
    'configuration.GetString("PELMOR_SCOPE", &scope) && '
    'configuration.GetString("PELMOR_URL", &url) && '
    'configuration.GetString("PELMOR_UPLOAD_INTERVAL_IN_SECONDS", &upload_interval_string) && '
    "base::StringToInt(upload_interval_string, &upload_interval_in_seconds): "
    "Failed to read configuration")
BAD_RELEASE_FILE = (
    'FATAL Check failed: lsb_release_.Load(base::FilePath("/etc/lsb-release")): '
    "Unable to load lsb-release")
BAD_START_TIME_FILE = (
    "FATAL Check failed: "
    "base::WriteFile(kStartTimePath, serialized.data(), serialized.size()) != -1")

NO_KEY_VALUE = "no key and no value\n"

# Sends a notice of its own, after those that the daemon has sent.
SEND_NOTICE = """
import socket
out = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
out.sendto(b"the end", "/run/ap-pelmor.notify")
"""
SYSLOG_LINE = re.compile(r"<(?P<priority>\d+)>.{15} ap-pelmor\[\d+\]: "
                         r"(?P<severity>\w+) \w+\.cc:\d+\] (?P<message>.*)")

Change = Callable[[Device], None]


def notices(device: Device) -> list[str]:
    """The daemon's notices to its supervisor so far, except its status."""
    device.run("python3", "-c", SEND_NOTICE)
    device.wait_for("daemon.notify", text="the end")
    return [event["text"] for event in device.event_log.events("daemon.notify")
            if not event["text"].startswith("STATUS=")][:-1]


def syslog(device: Device) -> list[tuple[int, str]]:
    """The priorities, severities and messages in the system log."""
    lines = [event["text"] for event in device.event_log.events("syslog.line")]
    found = [SYSLOG_LINE.fullmatch(line) for line in lines]
    assert all(found), lines
    return [(int(line["priority"]), f"{line['severity']} {line['message']}")
            for line in found if line]


def fail_to_start(device: Device) -> int:
    device.start_daemon(wait=False)
    return device.wait_for_exit()


# Starting and stopping.

@pytest.mark.parametrize("signal", [SIGTERM, SIGINT])
def test_a_termination_signal_shuts_it_down(device: Device, signal: Signals) -> None:
    device.start_daemon()
    device.larder.wait_for_call("UpdateState")

    assert device.stop_daemon(signal) == 0

    # Larder's objects are not known yet when the state is first written.
    assert messages(device) == ["INFO Starting pelmor daemon", NO_STATE,
                                "INFO Shutting down pelmor daemon"]
    assert notices(device) == ["READY=1", "STOPPING=1"]
    assert device.wait_for("bus.name", name=names.DAEMON_SERVICE, owned=False)


def test_the_state_is_published_before_the_start_time_is_loaded(device: Device) -> None:
    device.provision()
    device.write_file(names.START_TIME, "1700000000000000")
    # Without an upload, which would ask for the network time.
    device.configure(upload_interval_in_seconds="600")
    device.start_daemon()
    device.wait_for_access_token()
    assert device.stop_daemon() == 0
    assert messages(device) == [
        "INFO Starting pelmor daemon", "INFO Refreshing access token.", NO_STATE,
        "INFO Loaded start time: 2023-11-14T22:13:20.000000Z",
        "INFO Successfully fetched access token: 200", "INFO Shutting down pelmor daemon"]


def test_it_starts_again_after_a_kill(device: Device) -> None:
    device.start_daemon()
    device.kill_daemon()
    restart = device.mark()
    device.start_daemon()
    device.larder.wait_for_call("UpdateState", after=restart)
    assert device.stop_daemon() == 0


def test_each_line_is_written_to_standard_error_and_to_the_system_log(device: Device) -> None:
    device.start_daemon()
    device.larder.wait_for_call("UpdateState")
    device.larder.add_credentials_command(code="")
    wait_for_message(device, "ERROR No pelmor authorization code provided")
    pid = device.wait_for("daemon.started")["pid"]

    lines = [LOG_LINE.fullmatch(line) for line in device.log_lines()]
    assert all(lines), device.log_lines()
    assert {int(line["pid"]) for line in lines if line} == {pid}
    device.wait_for("syslog.line", count=len(lines))
    assert syslog(device) == [(30, "INFO Starting pelmor daemon"), (28, NO_STATE),
                              (27, "ERROR No pelmor authorization code provided")]
    assert [text for _, text in syslog(device)] == messages(device)


def test_help_prints_its_usage(device: Device) -> None:
    run = device.run(names.DAEMON_PROGRAM, "--help")
    assert (run.code, run.errors) == (0, "")
    assert run.output == f"Usage: {names.DAEMON_PROGRAM} [--help]\n\n{names.DAEMON_PROGRAM}\n"


@pytest.mark.parametrize("argument, what", [
    ("--verbose", "unknown flag"), ("-v", "unknown flag"), ("--help=yes", "unknown flag"),
    ("start", "unexpected argument"), ("", "unexpected argument")])
def test_an_unknown_argument_is_an_error(device: Device, argument: str, what: str) -> None:
    run = device.run(names.DAEMON_PROGRAM, argument)
    assert (run.code, run.output) == (EX_USAGE, "")
    assert run.errors == (f"{names.DAEMON_PROGRAM}: {what} '{argument}'; "
                          f"see '{names.DAEMON_PROGRAM} --help'\n")


# Configurations that prevent the start.

def replace_by_folder(path: str) -> Change:
    def change(device: Device) -> None:
        device.delete_file(path)
        device.make_folder(path)
    return change


def forbid(path: str) -> Change:
    return lambda device: device.write_file(path, "", mode=0)


def spoil(path: str) -> Change:
    return lambda device: device.write_file(path, NO_KEY_VALUE)


def remove(path: str) -> Change:
    return lambda device: device.delete_file(path)


def replace_by_pipe(path: str) -> Change:
    def change(device: Device) -> None:
        device.run("rm", "-f", path)
        assert device.run("mkfifo", path).code == 0
    return change


def replace_by_endless_device(path: str) -> Change:
    return lambda device: replace_by_link(device, path, "/dev/zero")


def enlarge(path: str) -> Change:
    """Beyond the size that is read, with valid lines."""
    return lambda device: device.write_file(
        path, (device.read_file(path) or b"") + b"#" * 1023 * 1024 + b"\n" * 1025)


def replace_by_link(device: Device, path: str, target: str) -> None:
    assert device.run("ln", "-sfT", target, path).code == 0


def assert_fatal(device: Device, message: str) -> None:
    assert device.wait_for_exit() == -SIGABRT
    assert messages(device)[-1] == message
    device.wait_for("syslog.line", count=len(messages(device)))
    assert syslog(device)[-1] == (26, message)


@pytest.mark.parametrize("path, message", [
    (names.CONFIGURATION, BAD_MAIN_FILE), (names.RELEASE, BAD_RELEASE_FILE)],
    ids=["configuration", "release file"])
@pytest.mark.parametrize("change", [
    remove, spoil, forbid, replace_by_folder, replace_by_pipe, replace_by_endless_device, enlarge],
    ids=["missing", "malformed", "unreadable", "folder", "pipe", "endless", "too large"])
def test_without_a_mandatory_file_it_aborts(
        device: Device, change: Callable[[str], Change], path: str, message: str) -> None:
    change(path)(device)
    fail_to_start(device)
    assert_fatal(device, message)
    assert notices(device) == []


@pytest.mark.parametrize("key", ["client_id", "client_secret", "scope", "url",
                                 "upload_interval_in_seconds"])
def test_a_missing_key_is_fatal(device: Device, key: str) -> None:
    device.configure(**{key: None})
    fail_to_start(device)
    assert_fatal(device, BAD_KEYS)
    assert notices(device) == []


@pytest.mark.parametrize("interval", ["", "abc", "60 ", " 60", "60s", "1.5", "0x10",
                                      "2147483648", "-2147483649"])
def test_an_interval_that_is_not_a_number_is_fatal(device: Device, interval: str) -> None:
    device.configure(upload_interval_in_seconds=interval)
    fail_to_start(device)
    assert_fatal(device, BAD_KEYS)


def test_without_a_folder_for_the_start_time_it_aborts_at_the_first_upload(device: Device) -> None:
    device.delete_folder(names.RUN_FOLDER)
    start_ready(device)
    device.record_metric("ap/clients", {}, 12)
    register(device)
    assert_fatal(device, BAD_START_TIME_FILE)
    assert device.cloud.requests(Endpoint.METRICS) == []


@pytest.mark.parametrize("path", [names.CONFIGURATION, names.RELEASE])
def test_its_files_may_be_links(device: Device, path: str) -> None:
    device.run("mv", path, f"{path}.real")
    replace_by_link(device, path, f"{path}.real")
    device.start_daemon()
    device.larder.wait_for_call("UpdateState")


@pytest.mark.parametrize("change", [
    replace_by_folder, replace_by_pipe, replace_by_endless_device, enlarge],
    ids=["folder", "pipe", "endless", "too large"])
def test_an_unreadable_token_counts_as_none(
        device: Device, change: Callable[[str], Change]) -> None:
    device.provision("refresh-1")
    change(names.REFRESH_TOKEN)(device)
    device.start_daemon()
    device.larder.wait_for_call("UpdateState", count=2)
    assert device.cloud.requests(Endpoint.REFRESH) == []
    assert device.stop_daemon() == 0


# Intervals.

@pytest.mark.parametrize("interval", ["0", "-1", "-2147483648"])
def test_an_interval_of_zero_or_less_leaves_it_responsive(device: Device, interval: str) -> None:
    device.configure(upload_interval_in_seconds=interval)
    device.start_daemon()
    device.larder.wait_for_call("UpdateState", count=20)
    device.record_metric("ap/clients", {}, 12)
    device.larder.wait_for_call("UpdateState", after=device.mark(), count=20)
    assert device.stop_daemon() == 0
    assert messages(device)[-1] == "INFO Shutting down pelmor daemon"


def test_the_longest_interval_does_not_overflow(device: Device) -> None:
    device.configure(upload_interval_in_seconds="2147483647")
    device.start_daemon()
    device.larder.wait_for_call("UpdateState")
    device.record_metric("ap/clients", {}, 12)
    assert device.stop_daemon() == 0
    assert len(device.larder.calls("UpdateState")) == 1


# The override file.

def test_an_override_of_the_url_leaves_the_other_values(device: Device) -> None:
    device.write_file(names.OVERRIDE, f"PELMOR_URL=https://{names.Host.MONITORING}/other/\n")
    device.start_daemon()
    device.larder.add_credentials_command(code="code-1")
    device.larder.wait_for_call("Complete")
    device.record_metric("ap/clients", {}, 12)

    request = device.cloud.wait_for_request(Endpoint.METRICS)

    assert request.path == "/other/device-0001/metrics:batchCreatePoints"
    [exchange] = device.cloud.requests(Endpoint.EXCHANGE)
    assert [dict(exchange.form)[name] for name in ("client_id", "client_secret", "scope")] == [
        DEFAULT_CONFIGURATION[f"PELMOR_{name}"] for name in ("CLIENT_ID", "CLIENT_SECRET",
                                                             "SCOPE")]
    assert not [text for text in messages(device) if "override" in text]


def test_every_key_can_be_overridden(device: Device) -> None:
    device.configure(client_id="no", client_secret="no", scope="no",
                     upload_interval_in_seconds="600")
    device.write_file(names.OVERRIDE, "PELMOR_CLIENT_ID=id 2\nPELMOR_CLIENT_SECRET=se=cret\n"
                      "PELMOR_SCOPE=scope-2\nPELMOR_UPLOAD_INTERVAL_IN_SECONDS=0\n")
    device.start_daemon()
    device.larder.wait_for_call("UpdateState", count=3)  # Ticks, and so the new interval.
    device.larder.add_credentials_command(code="code-1")
    exchange = device.cloud.wait_for_request(Endpoint.EXCHANGE)
    assert [dict(exchange.form)[name] for name in ("client_id", "client_secret", "scope")] == [
        "id 2", "se=cret", "scope-2"]


def test_an_override_can_add_a_key_that_the_configuration_lacks(device: Device) -> None:
    device.configure(upload_interval_in_seconds=None)
    device.write_file(names.OVERRIDE, "PELMOR_UPLOAD_INTERVAL_IN_SECONDS=1\n")
    device.start_daemon()
    device.larder.wait_for_call("UpdateState", count=2)


def test_a_malformed_override_is_fatal(device: Device) -> None:
    device.write_file(names.OVERRIDE, "PELMOR_UPLOAD_INTERVAL_IN_SECONDS=soon\n")
    fail_to_start(device)
    assert_fatal(device, BAD_KEYS)


@pytest.mark.parametrize("change", [
    spoil(names.OVERRIDE), forbid(names.OVERRIDE),
    lambda device: device.make_folder(names.OVERRIDE), replace_by_pipe(names.OVERRIDE),
    replace_by_endless_device(names.OVERRIDE), enlarge(names.OVERRIDE)],
    ids=["malformed", "unreadable", "folder", "pipe", "endless", "too large"])
def test_an_override_file_that_cannot_be_loaded_is_ignored_with_a_warning(
        device: Device, change: Change) -> None:
    change(device)
    device.start_daemon()
    device.larder.wait_for_call("UpdateState", count=2)
    assert messages(device) == ["INFO Starting pelmor daemon", BAD_OVERRIDE, NO_STATE]
    assert device.stop_daemon() == 0


# The bus.

def test_without_a_bus_it_does_not_start(device: Device) -> None:
    device.delete_file(BUS_SOCKET)
    assert fail_to_start(device) == EX_UNAVAILABLE
    assert messages(device) == [
        "INFO Starting pelmor daemon",
        "ERROR Unable to connect to the system bus: No such file or directory"]
    assert notices(device) == []


def test_a_watchdog_without_a_period_is_ignored_with_a_warning(device: Device) -> None:
    device.provision()
    device.start_daemon(WATCHDOG_USEC="0")
    device.wait_for_access_token()
    assert "WARNING Unable to feed the watchdog: Invalid argument" in messages(device)
    assert device.stop_daemon() == 0


def test_a_second_daemon_does_not_start(device: Device) -> None:
    device.start_daemon()
    second = device.run(names.DAEMON_PROGRAM)
    assert second.code == EX_UNAVAILABLE
    assert [message_of(line) for line in second.errors.splitlines()] == [
        "INFO Starting pelmor daemon",
        "ERROR Unable to take the service name org.quintara.ap.Pelmor: "
        "The name org.quintara.ap.Pelmor has another owner"]
    device.record_metric("ap/clients", {}, 12)
    assert device.stop_daemon() == 0


def test_it_ends_when_the_bus_ends(device: Device) -> None:
    device.start_daemon()
    device.larder.wait_for_call("UpdateState", count=2)
    device.stop_bus()
    assert device.wait_for_exit() == EX_UNAVAILABLE
    assert "ERROR Lost the connection to the system bus" in messages(device)
    assert messages(device)[-1] == "INFO Shutting down pelmor daemon"
    assert notices(device) == ["READY=1", "STOPPING=1"]
