"""The tool `pelmorctl` beside the real daemon: its records reach the cloud, its verdict on a
configuration is the daemon's, and its doctor names each thing that is wrong."""

import json
from collections.abc import Callable
from signal import SIGABRT

import pytest
from stories import LOG_LINE, messages, register, start_ready

from lab import names
from lab.device import DEFAULT_CONFIGURATION, Device, Run
from lab.names import Endpoint, Host

OK = 0
FAILED = 1
EX_USAGE = 64
EX_UNAVAILABLE = 69
BUS_SOCKET = "/run/dbus/system_bus_socket"
TYPE_URL = "type.example/ap.Event"

Change = Callable[[Device], None]


def ctl(device: Device, *arguments: str) -> Run:
    return device.run(names.TOOL_PROGRAM, *arguments)


def shell(device: Device, command: str) -> Run:
    return device.run("env", "PATH=/opt/ap:/usr/bin", "sh", "-c", command)


def assert_silent_success(run: Run) -> None:
    assert run == Run(OK, "", "")


# The roads to the cloud.

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


def test_what_cannot_be_recorded_is_named_and_fails(device: Device) -> None:
    device.start_daemon()
    device.run("truncate", "--size=16777217", "/tmp/large")
    for arguments, code, complaint in (
            (["metric", "ap/x"], EX_USAGE, "metric: give a NAME and a VALUE; "
             "see 'pelmorctl metric --help'"),
            (["metric", "ap/x", "1", "--type", "float"], EX_USAGE, "metric: no type 'float'; there "
             "are int64, double, bool and string; see 'pelmorctl metric --help'"),
            (["offline", TYPE_URL, "/tmp/absent"], FAILED, "/tmp/absent: there is no such file"),
            (["offline", TYPE_URL, "/tmp"], FAILED, "/tmp: it can't be read: Is a directory"),
            (["offline", TYPE_URL, "/tmp/large"], FAILED,
             "more than 16777216 bytes: that does not fit into a message of the bus"),
            (["offline", TYPE_URL, "/dev/zero"], FAILED,
             "more than 16777216 bytes: that does not fit into a message of the bus")):
        assert ctl(device, *arguments) == Run(code, "", f"pelmorctl: {complaint}\n")
    assert device.stop_daemon() == 0


def test_the_most_that_it_takes_does_fit(device: Device) -> None:
    start_ready(device)
    device.run("truncate", "--size=16777216", "/tmp/large")
    assert_silent_success(ctl(device, "offline", TYPE_URL, "/tmp/large"))


def test_an_absent_daemon_or_bus_is_told_from_a_failure(device: Device) -> None:
    absent = ctl(device, "metric", "ap/x", "1")
    assert absent.code == EX_UNAVAILABLE
    assert absent.errors.startswith("pelmorctl: the daemon does not answer (")
    device.delete_file(BUS_SOCKET)
    no_bus = ctl(device, "metric", "ap/x", "1")
    assert no_bus == Run(EX_UNAVAILABLE, "", "pelmorctl: the system bus can't be reached: "
                         "No such file or directory: see 'pelmorctl doctor'\n")


def test_help_and_version(device: Device) -> None:
    assert ctl(device, "--version").output.startswith("pelmorctl ")
    assert ctl(device, "doctor", "--help").output.startswith("Usage: pelmorctl doctor [--json]\n")
    assert ctl(device, "--help").code == OK


# The check of the configuration, and the daemon's own verdict.

GOOD = "".join(f"{key}={value}\n" for key, value in DEFAULT_CONFIGURATION.items())
INTERVAL = "PELMOR_UPLOAD_INTERVAL_IN_SECONDS"


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
def test_what_it_calls_good_starts_and_what_it_calls_an_error_does_not(
        device: Device, part: int) -> None:
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


def test_files_that_cannot_be_read_are_told_as_the_daemon_takes_them(device: Device) -> None:
    device.write_file(names.OVERRIDE, f"{INTERVAL}=soon\n", mode=0)
    run = ctl(device, "check-config")
    assert run.code == OK and daemon_starts(device)
    assert (f"{names.OVERRIDE}: warning: this user has no right to read it: run this as root; "
            "the daemon passes over it\n") in run.output
    device.delete_file(names.CONFIGURATION)
    run = ctl(device, "check-config")
    assert run.code == FAILED and not daemon_starts(device)
    assert f"{names.CONFIGURATION}: error: there is no such file\n" in run.output


def test_any_two_files_can_be_checked(device: Device) -> None:
    device.write_file("/tmp/main", but("PELMOR_SCOPE", "PELMOR_SCOPE=a \n"))
    device.write_file("/tmp/over", "PELMOR_URL=https://other.example\n")
    run = ctl(device, "check-config", "--config", "/tmp/main", "--override=/tmp/over")
    assert run == Run(OK, """\
/tmp/main:1: PELMOR_CLIENT_ID=client-1
/tmp/main:2: PELMOR_CLIENT_SECRET=(not shown)
/tmp/main:3: PELMOR_SCOPE=a~
/tmp/over:1: PELMOR_URL=https://other.example
/tmp/main:5: PELMOR_UPLOAD_INTERVAL_IN_SECONDS=1
/tmp/main:3: warning: PELMOR_SCOPE: the trailing blanks are part of the value
The daemon starts with this configuration (errors: 0, warnings: 1)
""".replace("~", " "), "")


# The doctor.

ALL = ["bus", "service", "configuration", "release-file", "start-time-folder", "clock",
       "registration", "provisioned", "token-endpoint", "monitoring-service"]


def examine(device: Device) -> dict[str, tuple[str, str]]:
    """What is red: by name, the finding and the advice."""
    run = ctl(device, "doctor", "--json")
    assert run.errors == ""
    report = json.loads(run.output)
    assert set(report) == {"healthy", "version", "conditions"}
    assert [condition["name"] for condition in report["conditions"]] == ALL
    red = {condition["name"]: (condition["finding"], condition["advice"])
           for condition in report["conditions"] if not condition["green"]}
    assert report["healthy"] == (not red)
    assert run.code == (FAILED if red else OK)
    return red


def well(device: Device) -> None:
    device.provision()
    device.cloud.takes_anything = True  # It knocks at the cloud without saying anything.
    device.start_daemon()
    device.wait_for_access_token()


def test_a_device_that_is_well_is_all_green(device: Device) -> None:
    well(device)
    run = ctl(device, "doctor")
    assert run == Run(OK, """\
ok   bus                 the system bus answers
ok   service             org.quintara.ap.Pelmor is on the bus
ok   configuration       complete
ok   release-file        /etc/lsb-release can be loaded
ok   start-time-folder   /tmp/ap/pelmor is writable (checked for root, whom the daemon runs as)
ok   clock               set from the network
ok   registration        registered as device-0001
ok   provisioned         there is a refresh token
ok   token-endpoint      https://oauth2.quintara.example answers (HTTP 404)
ok   monitoring-service  https://pelmor.quintara.example answers (HTTP 404)
""", "")
    assert examine(device) == {}
    assert "refresh-1" not in run.output
    # It asked, and sent nothing.
    requests = device.cloud.requests(Endpoint.UNKNOWN)
    assert {request.host for request in requests} == set(Host)
    assert not [request for request in requests
                if request.body or "authorization" in request.headers]


def test_records_get_through_on_a_device_that_is_all_green(device: Device) -> None:
    well(device)
    assert examine(device) == {}
    assert_silent_success(ctl(device, "metric", "ap/x", "1"))
    assert device.cloud.wait_for_request(Endpoint.METRICS).json["metricPoints"]


NO_BUS = "unknown: there is no bus to ask on"

# What breaks a device that is well, and by name all that is red then: a part of the finding and of
# the advice.
BROKEN: dict[str, tuple[Change, dict[str, tuple[str, str]]]] = {
    "no bus": (
        lambda device: device.delete_file(BUS_SOCKET),
        {"bus": ("can't be reached: No such file or directory", "start the bus"),
         "service": (NO_BUS, "mend the bus"), "clock": (NO_BUS, "mend the bus"),
         "registration": (NO_BUS, "mend the bus")}),
    "no daemon": (
        lambda device: device.stop_daemon() and None,
        {"service": ("org.quintara.ap.Pelmor is not on the bus", "start the daemon")}),
    "faulty configuration": (
        lambda device: device.configure(upload_interval_in_seconds="soon"),
        {"configuration": (f"1 error, the first: {names.CONFIGURATION}:5: {INTERVAL}: no whole",
                           "pelmorctl check-config")}),
    "no URL": (
        lambda device: device.configure(url=None),
        {"configuration": (f"1 error, the first: {names.CONFIGURATION}: PELMOR_URL is missing",
                           "pelmorctl check-config"),
         "monitoring-service": ("PELMOR_URL could not be read", "mend the configuration")}),
    "URL in clear": (
        lambda device: device.configure(url="http://pelmor.quintara.example/"),
        {"monitoring-service": ("refusing to send to http://pelmor.quintara.example in clear",
                                "set an https URL")}),
    "no release file": (
        lambda device: device.delete_file(names.RELEASE),
        {"release-file": (f"{names.RELEASE}: there is no such file", "the image must bring it")}),
    "malformed release file": (
        lambda device: device.write_file(names.RELEASE, "A=1\nno pair\n"),
        {"release-file": (f"{names.RELEASE}:2: no KEY=VALUE", "the image must bring it")}),
    "no start-time folder": (
        lambda device: device.delete_folder(names.RUN_FOLDER),
        {"start-time-folder": ("there is no such folder (checked for root, whom the daemon runs "
                               "as)", "make it at every boot")}),
    "start-time folder read-only": (
        lambda device: device.make_folder(names.RUN_FOLDER, mode=0o555),
        {"start-time-folder": ("Permission denied", "make it at every boot")}),
    "clock not from the network": (
        lambda device: device.clock.set_source("rtc"),
        {"clock": ("not set from the network; its source is 'rtc'", "wait until tlsdate")}),
    "no tlsdate": (
        lambda device: device.clock.stop(),
        {"clock": ("org.torproject.tlsdate is not on the bus", "start the time daemon")}),
    "tlsdate failing": (
        lambda device: device.clock.refuse("LastSyncInfo"),
        {"clock": ("tlsdate does not answer as it should: refused", "see tlsdate's log")}),
    "tlsdate answering otherwise": (
        lambda device: device.clock.answer_with("LastSyncInfo", "s", "network"),
        {"clock": ("tlsdate does not answer as it should", "see tlsdate's log")}),
    "no Larder": (
        lambda device: device.larder.stop(),
        {"registration": ("org.quintara.Larder is not on the bus", "start the cloud-reg")}),
    "not registered": (
        lambda device: device.larder.unregister(),
        {"registration": ("the device is not registered", "register it")}),
    "Larder failing": (
        lambda device: device.larder.refuse("CheckDeviceRegistered", message="no account"),
        {"registration": ("Larder says: no account", "see Larder's log")}),
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
        {"token-endpoint": ("certificate", "see the server's certificate")}),
    "token endpoint of another name": (
        lambda device: device.cloud.refuse_tls(Host.IDENTITY, "name"),
        {"token-endpoint": ("SSL", "see the server's certificate")}),
    "service down": (
        lambda device: device.cloud.go_away(Host.MONITORING),
        {"monitoring-service": (f"https://{Host.MONITORING} can't be reached: ", "firewall")}),
    "service of a stranger": (
        lambda device: device.cloud.refuse_tls(Host.MONITORING, "stranger"),
        {"monitoring-service": ("certificate", "see the server's certificate")}),
    "service of another name": (
        lambda device: device.cloud.refuse_tls(Host.MONITORING, "name"),
        {"monitoring-service": ("SSL", "see the server's certificate")}),
    "service unknown to DNS": (
        lambda device: device.configure(url="https://elsewhere.quintara.example/"),
        {"monitoring-service": ("Could not resolve host", "name servers")}),
}


@pytest.mark.parametrize("breakage", BROKEN)
def test_what_is_broken_is_red_with_what_to_do_and_nothing_else_is(
        device: Device, breakage: str) -> None:
    change, expected = BROKEN[breakage]
    well(device)
    change(device)
    red = examine(device)
    assert list(red) == list(expected)
    for name, (finding, advice) in expected.items():
        assert finding in red[name][0] and advice in red[name][1], red


def test_red_is_told_to_people_with_what_to_do(device: Device) -> None:
    well(device)
    device.clock.set_source("rtc")
    run = ctl(device, "doctor")
    assert run.code == FAILED
    assert ("RED  clock               not set from the network; its source is 'rtc'\n"
            "     -> wait until tlsdate has reached a server, or see why it can't\n") in run.output


def test_the_doctor_harms_no_daemon(device: Device) -> None:
    well(device)
    ctl(device, "doctor")
    assert device.stop_daemon() == 0
    assert not [line for line in device.log_lines() if not LOG_LINE.fullmatch(line)]
    assert not [text for text in messages(device) if text.startswith(("ERROR", "FATAL"))]


def test_colour_is_for_terminals_alone(device: Device) -> None:
    device.cloud.takes_anything = True
    script = "script -qec '/opt/ap/pelmorctl doctor' /dev/null"
    assert "\033[31mRED\033[0m  service" in shell(device, script).output
    assert "\033[" not in shell(device, f"NO_COLOR=1 {script}").output
    assert "\033[" not in ctl(device, "doctor").output
