"""`pelmorctl doctor` beside the real daemon: exactly the checks of what is wrong fail."""

import json
from collections.abc import Callable

import pytest

from lab.common import names
from lab.common.names import Endpoint, Host
from lab.device.device import Device, Run
from lab.device.values import string
from tests.device.helpers import BUS_SOCKET, LOG_LINE, messages
from tests.device.pelmorctl import (FAILED, FOR_PELMOR, INTERVAL, OK, add_daemons_user,
                                    assert_silent_success, ctl, make_readable, shell)

Change = Callable[[Device], None]

ALL = ["bus", "service", "configuration", "release-file", "start-time-folder", "clock",
       "registration", "provisioned", "token-endpoint", "monitoring-service", "access-token",
       "uploads", "records"]


def examine(device: Device, *options: str) -> dict[str, tuple[str, str]]:
    """The failed checks: by name, the finding and the advice."""
    run = ctl(device, "doctor", "--json", *options)
    assert run.errors == ""
    report = json.loads(run.output)
    assert set(report) == {"healthy", "version", "conditions"}
    assert [condition["name"] for condition in report["conditions"]] == ALL
    failed = {condition["name"]: (condition["finding"], condition["advice"])
              for condition in report["conditions"] if not condition["green"]}
    assert report["healthy"] == (not failed)
    assert run.code == (FAILED if failed else OK)
    return failed


def well(device: Device) -> None:
    device.provision()
    device.cloud.takes_anything = True  # The doctor's requests have no body.
    device.start_daemon()
    device.wait_for_access_token()


def test_on_a_healthy_device_every_check_passes(device: Device) -> None:
    well(device)
    run = ctl(device, "doctor")
    assert run == Run(OK, """\
pass  bus                 the system bus answers
pass  service             org.quintara.ap.Pelmor is on the bus
pass  configuration       complete, with 1 warning, the first: /etc/ap/pelmor.conf:4: PELMOR_URL: \
.example is a reserved domain without servers; nothing will be uploaded
pass  release-file        /etc/lsb-release can be loaded
pass  start-time-folder   /tmp/ap/pelmor is writable (checked for root, the daemon's user)
pass  clock               set from the network
pass  registration        registered as device-0001
pass  provisioned         there is a refresh token
pass  token-endpoint      https://oauth2.quintara.example answers (HTTP 404)
pass  monitoring-service  https://pelmor.quintara.example answers (HTTP 404)
pass  access-token        the daemon has one
pass  uploads             none yet
pass  records             none has been dropped after it was accepted from a caller
""", "")
    assert examine(device) == {}
    assert "refresh-1" not in run.output
    # The requests had neither a body nor a token.
    requests = device.cloud.requests(Endpoint.UNKNOWN)
    assert {request.host for request in requests} == set(Host)
    assert not [request for request in requests
                if request.body or "authorization" in request.headers]


def test_when_every_check_passes_records_are_uploaded(device: Device) -> None:
    well(device)
    assert examine(device) == {}
    assert_silent_success(ctl(device, "metric", "ap/x", "1"))
    assert device.cloud.wait_for_request(Endpoint.METRICS).json["metricPoints"]


NO_BUS = "unknown: the system bus can't be reached: No such file or directory"
NO_DAEMON = "unknown: org.quintara.ap.Pelmor is not on the bus"
STATUS_ADVICE = "run the daemon as ap-pelmor.service"

# What breaks a healthy device, and every check that fails then: by name, parts of its finding and
# of its advice.
BROKEN: dict[str, tuple[Change, dict[str, tuple[str, str]]]] = {
    "no bus": (
        lambda device: device.delete_file(BUS_SOCKET),
        {"bus": ("can't be reached: No such file or directory", "start the bus"),
         "service": (NO_BUS, "fix the bus"), "clock": (NO_BUS, "fix the bus"),
         "registration": (NO_BUS, "fix the bus"),
         "access-token": (NO_BUS, STATUS_ADVICE), "uploads": (NO_BUS, STATUS_ADVICE),
         "records": (NO_BUS, STATUS_ADVICE)}),
    "no daemon": (
        lambda device: device.stop_daemon() and None,
        {"service": ("org.quintara.ap.Pelmor is not on the bus", "start the daemon"),
         "access-token": (NO_DAEMON, STATUS_ADVICE), "uploads": (NO_DAEMON, STATUS_ADVICE),
         "records": (NO_DAEMON, STATUS_ADVICE)}),
    "no systemd": (
        lambda device: device.systemd.stop(),
        {"access-token": ("systemd does not answer: ", STATUS_ADVICE),
         "uploads": ("systemd does not answer: ", STATUS_ADVICE),
         "records": ("systemd does not answer: ", STATUS_ADVICE)}),
    "systemd without a status": (
        lambda device: device.systemd.answer_with("Get", "v", string("")),
        {"access-token": ("systemd has no status of ap-pelmor.service", STATUS_ADVICE),
         "uploads": ("systemd has no status", STATUS_ADVICE),
         "records": ("systemd has no status", STATUS_ADVICE)}),
    "faulty configuration": (
        lambda device: device.configure(upload_interval_in_seconds="soon"),
        {"configuration": (f"1 error, the first: {names.CONFIGURATION}:5: {INTERVAL}: not a whole",
                           "pelmorctl check-config")}),
    "override file of an unknown form": (
        lambda device: device.write_file(names.OVERRIDE, "no pair\n"),
        {"configuration": (f"{names.OVERRIDE}:1: neither KEY=VALUE", "pelmorctl check-config")}),
    "override file without rights": (
        lambda device: device.write_file(names.OVERRIDE, "", mode=0),
        {"configuration": (f"{names.OVERRIDE}: the daemon can't read it: Permission denied "
                           "(checked for root, the daemon's user); run 'chown root ",
                           "pelmorctl check-config")}),
    "no URL": (
        lambda device: device.configure(url=None),
        {"configuration": (f"1 error, the first: {names.CONFIGURATION}: PELMOR_URL is missing",
                           "pelmorctl check-config"),
         "monitoring-service": ("PELMOR_URL could not be read", "fix the configuration")}),
    "URL in clear": (
        lambda device: device.configure(url="http://pelmor.quintara.example/"),
        {"monitoring-service": ("refusing to send to http://pelmor.quintara.example in clear",
                                "set an https URL")}),
    "no release file": (
        lambda device: device.delete_file(names.RELEASE),
        {"release-file": (f"{names.RELEASE}: there is no such file", "add it to the image")}),
    "malformed release file": (
        lambda device: device.write_file(names.RELEASE, "A=1\nno pair\n"),
        {"release-file": (f"{names.RELEASE}:2: not KEY=VALUE", "add it to the image")}),
    "no start-time folder": (
        lambda device: device.delete_folder(names.RUN_FOLDER),
        {"start-time-folder": ("there is no such folder (checked for root, "
                               "the daemon's user)", "create it at every boot")}),
    "start-time folder read-only": (
        lambda device: device.make_folder(names.RUN_FOLDER, mode=0o555),
        {"start-time-folder": ("Permission denied", "create it at every boot")}),
    "clock not from the network": (
        lambda device: device.clock.set_source("rtc"),
        {"clock": ("not set from the network; its source is 'rtc'", "wait until tlsdate")}),
    "no tlsdate": (
        lambda device: device.clock.stop(),
        {"clock": ("org.torproject.tlsdate is not on the bus", "start the time daemon")}),
    "tlsdate failing": (
        lambda device: device.clock.refuse("LastSyncInfo"),
        {"clock": ("tlsdate does not give a valid answer: refused", "see tlsdate's log")}),
    "tlsdate answering otherwise": (
        lambda device: device.clock.answer_with("LastSyncInfo", "s", "network"),
        {"clock": ("tlsdate does not give a valid answer", "see tlsdate's log")}),
    "no Larder": (
        lambda device: device.larder.stop(),
        {"registration": ("org.quintara.Larder is not on the bus", "start the cloud-reg")}),
    "not registered": (
        lambda device: device.larder.unregister(),
        {"registration": ("the device is not registered", "register it")}),
    "Larder failing": (
        lambda device: device.larder.refuse("CheckDeviceRegistered", message="no account"),
        {"registration": ("Larder reports: no account", "see Larder's log")}),
    "no refresh token": (
        lambda device: device.delete_file(names.REFRESH_TOKEN),
        {"provisioned": (f"no file {names.REFRESH_TOKEN}", "have the cloud send")}),
    "empty refresh token": (
        lambda device: device.provision(""),
        {"provisioned": (f"the refresh token is empty: {names.REFRESH_TOKEN}", "delete the file")}),
    "unreadable refresh token": (
        lambda device: device.write_file(names.REFRESH_TOKEN, "refresh-1", mode=0),
        {"provisioned": ("this user has no right to read", "run this as root")}),
    "token endpoint down": (
        lambda device: device.cloud.go_away(Host.IDENTITY),
        {"token-endpoint": (f"https://{Host.IDENTITY} can't be reached: ", "firewall")}),
    "token endpoint of a stranger": (
        lambda device: device.cloud.refuse_tls(Host.IDENTITY, "stranger"),
        {"token-endpoint": ("certificate", "check the server's certificate")}),
    "token endpoint of another name": (
        lambda device: device.cloud.refuse_tls(Host.IDENTITY, "name"),
        {"token-endpoint": ("SSL", "check the server's certificate")}),
    "service down": (
        lambda device: device.cloud.go_away(Host.MONITORING),
        {"monitoring-service": (f"https://{Host.MONITORING} can't be reached: ", "firewall")}),
    "service of a stranger": (
        lambda device: device.cloud.refuse_tls(Host.MONITORING, "stranger"),
        {"monitoring-service": ("certificate", "check the server's certificate")}),
    "service of another name": (
        lambda device: device.cloud.refuse_tls(Host.MONITORING, "name"),
        {"monitoring-service": ("SSL", "check the server's certificate")}),
    "service unknown to DNS": (
        lambda device: device.configure(url="https://elsewhere.quintara.example/"),
        {"monitoring-service": ("Could not resolve host", "name servers")}),
}


@pytest.mark.parametrize("breakage", BROKEN)
def test_only_the_checks_of_what_is_broken_fail_each_with_advice(
        device: Device, breakage: str) -> None:
    change, expected = BROKEN[breakage]
    well(device)
    change(device)
    failed = examine(device)
    assert list(failed) == list(expected)
    for name, (finding, advice) in expected.items():
        assert finding in failed[name][0] and advice in failed[name][1], failed


RESTART = "restart the daemon"


@pytest.mark.parametrize("condition, path, remedy, advised", [
    ("configuration", names.CONFIGURATION, make_readable(names.CONFIGURATION), RESTART),
    ("configuration", names.OVERRIDE, make_readable(names.OVERRIDE), RESTART),
    ("provisioned", names.REFRESH_TOKEN, make_readable(names.REFRESH_TOKEN), RESTART),
    ("release-file", names.RELEASE, "", f"run 'chmod a+r {names.RELEASE}'; ")])
def test_a_file_that_only_root_can_read_fails_with_the_remedy(
        device: Device, condition: str, path: str, remedy: str, advised: str) -> None:
    device.cloud.takes_anything = True
    add_daemons_user(device)
    device.write_file(names.CONFIGURATION, device.read_file(names.CONFIGURATION) or b"")
    device.write_file(names.REFRESH_TOKEN, "refresh-1")
    assert condition not in examine(device)
    device.write_file(path, device.read_file(path) or b"", mode=0o600)
    finding, advice = examine(device)[condition]
    assert f"the owner and mode of {path} forbid it {FOR_PELMOR}" in finding
    assert remedy in finding + advice
    assert advised in advice


@pytest.mark.parametrize("condition, path", [
    ("configuration", names.CONFIGURATION), ("provisioned", names.REFRESH_TOKEN)])
def test_a_secret_that_others_can_read_passes_with_a_warning(
        device: Device, condition: str, path: str) -> None:
    well(device)
    device.write_file(path, device.read_file(path) or b"", mode=0o644)
    assert examine(device) == {}
    line = next(line for line in ctl(device, "doctor").output.splitlines() if condition in line)
    assert (f"{path}: it contains a secret, and every local user can read it; "
            f"run 'chown root {path} && chmod 0400 {path}'") in line


def test_a_check_with_a_warning_fails_if_strict(device: Device) -> None:
    well(device)
    # The lab's hosts are in the domain .example.
    failed = examine(device, "--strict")
    assert list(failed) == ["configuration"]
    finding, advice = failed["configuration"]
    assert "complete, with 1 warning" in finding and "pelmorctl check-config" in advice
    device.write_file(names.REFRESH_TOKEN, "refresh-1", mode=0o644)
    assert examine(device) == {}
    failed = examine(device, "--strict")
    assert list(failed) == ["configuration", "provisioned"]
    assert failed["provisioned"][1].startswith("run 'chown root ")


def test_the_doctor_waits_for_a_first_token_in_flight(device: Device) -> None:
    device.cloud.takes_anything = True
    device.cloud.answer(Endpoint.REFRESH, body={"access_token": "access-1"}, delay=2)
    device.provision()
    device.start_daemon()
    assert examine(device) == {}


def test_repeatedly_rejected_points_fail_the_check(device: Device) -> None:
    well(device)
    device.cloud.answer(Endpoint.METRICS, status=500)
    for count in (1, 2):
        device.record_metric("ap/clients", {}, count)
        device.wait_for_status(f"rejected={count} ")
    failed = examine(device)
    assert list(failed) == ["uploads", "records"]
    assert "the last metrics request was not accepted: HTTP 500, at 2" in failed["uploads"][0]
    assert "dropped since the daemon's start: 2 points rejected" in failed["records"][0]
    assert all("in the daemon's log" in advice for _, advice in failed.values())


@pytest.mark.movable_clocks
def test_a_repeatedly_rejected_token_fails_the_check(device: Device) -> None:
    well(device)
    device.cloud.answer(Endpoint.METRICS, status=401)
    device.record_metric("ap/clients", {}, 1)
    device.wait_for("cloud.answer", endpoint=Endpoint.METRICS)
    # The next refresh is at the earliest 30 seconds after the first.
    device.move_clocks(monotonic=30)
    device.wait_for("cloud.answer", endpoint=Endpoint.METRICS, count=2)
    device.wait_for_status("metrics time=", " status=401", "access_token=no")
    failed = examine(device)
    assert list(failed) == ["access-token", "uploads"]
    assert "HTTP 401" in failed["uploads"][0] and "PELMOR_URL" in failed["uploads"][1]


def test_points_beyond_the_limit_of_a_cycle_fail_the_check(device: Device) -> None:
    well(device)
    device.larder.refuse("CheckDeviceRegistered")
    device.record_metrics([("ap/clients", {}, 1)] * 2500)
    device.larder.behave()
    device.wait_for_status("accepted=1000 ")
    failed = examine(device)
    assert list(failed) == ["records"]
    assert "1500 points over the limit of a cycle; the last at 2" in failed["records"][0]
    assert "shorten PELMOR_UPLOAD_INTERVAL_IN_SECONDS" in failed["records"][1]


@pytest.mark.parametrize("endpoint", [Endpoint.REFRESH, Endpoint.EXCHANGE])
def test_a_wrong_client_secret_is_reported_and_not_the_command(
        device: Device, endpoint: Endpoint) -> None:
    device.cloud.takes_anything = True
    device.cloud.answer(endpoint, status=401, body='{"error": "invalid_client"}')
    if endpoint == Endpoint.REFRESH:
        device.provision()
    device.start_daemon()
    if endpoint == Endpoint.EXCHANGE:
        device.larder.add_credentials_command("/c/1", "code-1")
    device.wait_for_status('error="invalid_client"')
    failed = examine(device)
    assert list(failed) == ["provisioned", "access-token"]
    for _, advice in failed.values():
        assert advice.startswith("correct PELMOR_CLIENT_SECRET"), advice
    assert "HTTP 401, invalid_client" in failed["access-token"][0]


def test_a_failed_check_is_printed_with_advice(device: Device) -> None:
    well(device)
    device.clock.set_source("rtc")
    run = ctl(device, "doctor")
    assert run.code == FAILED
    assert ("FAIL  clock               not set from the network; its source is 'rtc'\n"
            "      -> wait until tlsdate has reached a server, or find out why it can't\n"
            ) in run.output


def test_the_doctor_does_not_disturb_the_daemon(device: Device) -> None:
    well(device)
    ctl(device, "doctor")
    assert device.stop_daemon() == 0
    assert not [line for line in device.log_lines() if not LOG_LINE.fullmatch(line)]
    assert not [text for text in messages(device) if text.startswith(("ERROR", "FATAL"))]


def test_colour_is_used_on_terminals_only(device: Device) -> None:
    device.cloud.takes_anything = True
    script = "script -qec '/opt/ap/pelmorctl doctor' /dev/null"
    assert "\033[31mFAIL\033[0m  service" in shell(device, script).output
    assert "\033[" not in shell(device, f"NO_COLOR=1 {script}").output
    assert "\033[" not in ctl(device, "doctor").output
