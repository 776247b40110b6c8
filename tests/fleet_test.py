"""The accounting, the figures and the projection of the fleet, and a small fleet."""

import asyncio
import dataclasses
import json
import os
import re
import signal
import subprocess
from collections import Counter
from collections.abc import Sequence
from pathlib import Path

import pytest

from lab.common.names import Endpoint
from lab.common.tree import ROOT
from lab.device.device import find_daemon
from lab.fleet import figures, plot, projection, report, usage
from lab.fleet.__main__ import main
from lab.fleet.accounting import Accounting, Fate, History
from lab.fleet.cloud import Account, Arrival
from lab.fleet.device import Device
from lab.fleet.plan import INTERVALS, PHASES, CloudMode, Phase, Plan
from lab.fleet.records import Record
from lab.fleet.run import Fleet, RunResult

INTERVAL = 10.0
END = 100.0
SOON = 0.1
# The token arrives a second after power-up.
TOKENS = [(1.0, True)]


def point(number: int, sent: float) -> Record:
    return Record(number, Endpoint.METRICS, sent, sent + 0.01)


def log(number: int, sent: float) -> Record:
    return Record(number, Endpoint.STRUCTURED_LOGS, sent, sent + 0.01)


def request(tick: float, *numbers: int, status: int = 200,
            endpoint: Endpoint = Endpoint.METRICS) -> Arrival:
    return Arrival(1, tick + SOON, endpoint, status, numbers, 100, False)


def log_request(tick: float, number: int, status: int = 200) -> Arrival:
    return request(tick, number, status=status, endpoint=Endpoint.STRUCTURED_LOGS)


def fates(records: Sequence[Record], arrivals: Sequence[Arrival],
          tokens: Sequence[tuple[float, bool]] = TOKENS) -> list[Fate]:
    checks = sorted({arrival.time - SOON for arrival in arrivals})
    return History(arrivals, checks, tokens, INTERVAL).fates(records, END)


# The fate of a record.

@pytest.mark.parametrize(("arrivals", "fate"), [
    pytest.param([request(10, 1)], Fate.UPLOADED, id="accepted"),
    pytest.param([request(10, 1, status=401), request(20, 1)], Fate.UPLOADED,
                 id="accepted after the token was renewed"),
    pytest.param([request(10, 1, status=503), request(20, 2)], Fate.ANSWERED, id="refused"),
    pytest.param([], Fate.WAITING, id="no cycle came"),
    pytest.param([request(10, 1, status=401)], Fate.WAITING, id="kept, and no cycle came"),
    pytest.param([request(4, 9)], Fate.WAITING, id="the cycle was before it"),
    pytest.param([request(10, 2)], Fate.UNEXPLAINED, id="not in the next request"),
    pytest.param([request(10, 1, status=401), request(20, 2)], Fate.UNEXPLAINED,
                 id="kept, and not in the next request"),
    pytest.param([request(1900, 2)], Fate.TOO_OLD, id="30 minutes old at the next request"),
    pytest.param([request(10, *range(2, 1002))], Fate.TOO_MANY, id="1000 newer ones"),
    pytest.param([request(10, *range(2, 1001))], Fate.UNEXPLAINED, id="999 newer ones"),
])
def test_a_point_is_followed_through_the_requests(arrivals: list[Arrival], fate: Fate) -> None:
    assert fates([point(1, 5.0)], arrivals, [*TOKENS, (10.2, False), (10.3, True)]) == [fate]


LOST, FOUND = (10.2, False), (10.5, True)


@pytest.mark.parametrize(("sent", "tokens", "fate"), [
    (0.5, TOKENS, Fate.NO_TOKEN), (0.5, [], Fate.NO_TOKEN), (1.5, TOKENS, Fate.UNEXPLAINED),
    (10.1, [*TOKENS, LOST, FOUND], Fate.UNEXPLAINED),
    (10.3, [*TOKENS, LOST, FOUND], Fate.NO_TOKEN),
    (10.6, [*TOKENS, LOST, FOUND], Fate.UNEXPLAINED),
    pytest.param(10.6, [*TOKENS, LOST, FOUND, (10.55, False)], Fate.NO_TOKEN,
                 id="a second refusal, of the old token, has ended the new one"),
    pytest.param(3.0, [*TOKENS, (2.0, False)], Fate.UNEXPLAINED, id="nothing was refused"),
])
def test_a_record_without_an_access_token_is_not_accepted(
        sent: float, tokens: list[tuple[float, bool]], fate: Fate) -> None:
    arrivals = [request(10, 7, status=401), request(20, 7)]
    assert fates([point(1, sent)], arrivals, tokens) == [fate]


def test_a_call_without_a_successful_reply_is_unexplained() -> None:
    unanswered = [Record(1, Endpoint.METRICS, 5.0), Record(2, Endpoint.OFFLINE_LOGS, 5.0)]
    assert fates(unanswered, [request(10, 1)]) == [Fate.UNEXPLAINED] * 2


@pytest.mark.parametrize(("newer", "fate"), [(18, Fate.UNEXPLAINED), (19, Fate.PUSHED_OUT)])
def test_a_log_may_be_pushed_out_by_the_newest_20(newer: int, fate: Fate) -> None:
    records = [log(1, 2.0), *(log(2 + number, 3.0) for number in range(newer))]
    arrivals = [log_request(10, record.number) for record in records[1:]]
    assert fates(records, arrivals) == [fate, *[Fate.UPLOADED] * newer]


@pytest.mark.parametrize(("arrivals", "fate"), [
    ([log_request(10, 1)], Fate.UPLOADED),
    ([log_request(10, 1, status=500), log_request(20, 1)], Fate.UPLOADED),
    ([], Fate.WAITING),
    ([request(10, 9)], Fate.UNEXPLAINED),
    ([request(END - 0.5, 9)], Fate.WAITING),
])
def test_a_log_is_pending_only_until_a_cycle(arrivals: list[Arrival], fate: Fate) -> None:
    assert fates([log(1, 5.0)], arrivals) == [fate]


def test_the_accounts_balance_if_no_record_is_lost_or_invented() -> None:
    records, arrivals = [point(1, 0.1), point(2, 5.0), point(3, 15.0)], [request(10, 2)]
    balance = Accounting()
    balance.add("device-1", records, [*arrivals, *arrivals], fates(records, arrivals))
    assert (balance.recorded, balance.accepted, balance.repeated) == (3, 2, 1)
    assert balance.fates == Counter({Fate.NO_TOKEN: 1, Fate.UPLOADED: 1, Fate.WAITING: 1})
    assert balance.adds_up


@pytest.mark.parametrize(("arrivals", "fault"), [
    ([request(10, 8)], "record 1, metrics, is unexplained"),
    ([request(10, 1, 8)], "record 8 arrived but was never recorded as one of metrics"),
    ([request(10, 1), log_request(10, 1)], "recorded as one of structured_logs")])
def test_the_accounts_name_lost_and_invented_records(arrivals: list[Arrival],
                                                     fault: str) -> None:
    balance, records = Accounting(), [point(1, 5.0)]
    balance.add("device-1", records, arrivals, fates(records, arrivals))
    assert not balance.adds_up
    assert any(fault in one for one in balance.faults)


def test_a_log_line_with_a_secret_is_counted(tmp_path: Path) -> None:
    account = Account(7)
    token = account.issue()
    device = Device(account, tmp_path / "daemon", tmp_path / "device", interval=1)
    device.log += [b"all is well\n", f"the token is {token}\n".encode(),
                   f"{account.refresh_token} {account.client_secret}\n".encode()]
    assert device.leaks() == 2


# Plans and figures.

def test_a_run_has_the_requested_length() -> None:
    plan = Plan.of(100, 10, 1.0)
    assert (plan.interval, plan.seconds, plan.phases) == (15, 600, PHASES)
    assert sum(phase.intervals for phase in PHASES) == INTERVALS
    assert Plan.of(1, INTERVALS / 60, 1.0).interval == 1


@pytest.mark.parametrize("wrong", [["--devices", "0"], ["--rate", "0"], ["--minutes", "0.5"],
                                   ["--daemon", "/nowhere"], ["--minutes", "many"]])
def test_invalid_arguments_are_rejected(wrong: list[str]) -> None:
    with pytest.raises(SystemExit) as refused:
        main(wrong)
    assert refused.value.code == 2


def test_the_cloud_is_silent_only_when_requests_end_within_their_interval() -> None:
    def silent(minutes: float) -> bool:
        return any(phase.mode == CloudMode.SILENCE for phase in Plan.of(1, minutes, 1.0).phases)

    assert [silent(minutes) for minutes in (0.7, 7, 7.4, 60)] == [False, False, True, True]


def test_checks_close_to_each_other_are_one_cycle() -> None:
    assert figures.cycles([10.0, 10.01, 10.2, 20.0, 20.01, 30.0], INTERVAL) == [10.0, 20.0, 30.0]
    assert figures.cycles([], INTERVAL) == []


def test_a_summary_sorts_its_values() -> None:
    assert figures.summary([]) == {"count": 0}
    assert figures.summary([3.0, 1.0, 2.0, 10.0]) == {
        "count": 4, "least": 1.0, "median": 2.5, "p95": 3.0, "most": 10.0}


def test_memory_and_processor_time_of_a_process_are_read() -> None:
    own, before = os.getpid(), usage.usage(os.getpid())
    assert 0 < before.anonymous < before.rss
    assert usage.usage(own).cpu > before.cpu
    child = subprocess.Popen(["sleep", "60"])
    try:
        assert child.pid in [one.pid for one in usage.family(own, usage.processes())]
    finally:
        child.kill()
        child.wait()


# The projection to other fleets.

def phase(name: str, requests: float, connections: float, wire: float) -> dict:
    return {"name": name, "per_cycle": {"requests": requests, "connections": connections,
                                        "wire_bytes": wire, "body_bytes": 1000.0}}


def test_the_bytes_of_a_connection_are_the_difference_of_two_phases() -> None:
    measured = projection.Measured.of({
        "phases": [phase("connections kept", 1.5, 0.1, 1000 + 1.5 * 500 + 0.1 * 2000),
                   phase("connections closed", 1.5, 1.5, 1000 + 1.5 * 500 + 1.5 * 2000)],
        "request": {"bytes_per_request": 20, "bytes_per_point": 100, "bytes_per_log": 80}})
    assert measured.exchange == pytest.approx(500)
    assert measured.connection == pytest.approx(2000)


def test_the_projection_follows_its_formulas() -> None:
    measured = projection.Measured(20, 100, 80, 500, 2000)
    case = projection.Case(devices=1000, interval=600, points=10, logs=1, connections=2, spread=10,
                           token_life=3600, outage=1200, clock_ppm=50, override_spread=2)
    values = {line.what: line.value for line in projection.lines(measured, case)
              if line.formula != "counted"}
    assert projection.cycle_bytes(measured, case, 10) == 2 * 2000 + 2 * 500 + 20 + 1000 + 80
    assert values == {
        "requests, mean": "3.33 /s", "requests, in phase": "200 /s",
        "handshakes, mean": "3.33 /s", "handshakes, in phase": "200 /s",
        "peak to mean, in phase": "60",
        "bytes of a cycle, W": "6 100 B", "per device and month of 30 days": "26.4 MB",
        "at the cloud, mean": "0.0813 Mbit/s", "at the cloud, in phase": "4.88 Mbit/s",
        "token refreshes, mean": "0.278 /s",
        "after an outage longer than T, mean of one interval": "1.67 /s",
        "the same, in phase": "100 /s",
        "refresh attempts while only the identity provider is down, at most": "33.3 /s",
        "points of the first cycle after an outage": "30",
        "its bytes, relative to a usual cycle": "1.33",
        "longest outage that loses no point": "1 200 s",
        "until clocks alone have spread the fleet": "68.3 days",
        "until intervals of I ± d have spread it": "1 480 min"}


def test_a_fleet_in_phase_stays_in_phase_unless_its_intervals_differ() -> None:
    together = projection.Case(interval=600, spread=30, override_spread=0)
    assert projection.peak_to_mean(together, since=0, days=1) == pytest.approx(600 / 30)
    apart = dataclasses.replace(together, override_spread=30)
    assert projection.peak_to_mean(apart, since=0, days=1) > 8
    assert projection.peak_to_mean(apart, since=5700, days=1) < 5


# The page of docs/fleet.md, whose figures are those of the report beside it.

REPORT = json.loads((ROOT / "docs/fleet/report.json").read_text())
PAGE = (ROOT / "docs/fleet.md").read_text()


def test_the_page_shows_the_measured_figures() -> None:
    assert report.markdown(REPORT) in PAGE
    assert REPORT["balance"]["adds_up"] and not REPORT["faults"]
    for fate, count in REPORT["balance"]["fates"].items():
        assert f"| {fate} | {_apart(count)} |" in PAGE
    for name in ("rss", "anonymous", "pss"):
        assert _megabytes(REPORT["memory_kb"][name]) in PAGE
    for recovery in REPORT["recoveries"]:
        took = recovery["seconds"]
        assert f"{took['least']:.1f} to {took['most']:.1f}" in PAGE


def test_the_page_projects_the_measured_figures() -> None:
    measured = projection.Measured.of(REPORT)
    assert projection.inputs(measured) in PAGE
    assert projection.table(measured, projection.Case()) in PAGE


def test_the_page_states_the_projected_case() -> None:
    table = re.findall(r"^\| ([A-Za-z]) \| .* \| ([\d. ]+?)(?: s| ppm)? \|$", PAGE, re.MULTILINE)
    given = {name: float(value.replace(" ", "")) for name, value in table}
    case = dataclasses.asdict(projection.Case())
    for name, value in zip("NIPLcSTDqd", case.values(), strict=True):
        assert given[name] == value, name


def _apart(count: int) -> str:
    return f"{count:,}".replace(",", " ")


def _megabytes(values: dict[str, float]) -> str:
    return " | ".join(f"{values[one] / 1000:.1f} MB" for one in ("median", "least", "most"))


# A small fleet.

SHORT = (Phase("power-up", 1.5, CloudMode.KEEP), Phase("connections closed", 1, CloudMode.CLOSE),
         Phase("first outage", 1, CloudMode.REFUSE), Phase("recovery", 1.5, CloudMode.KEEP))


def test_a_small_fleet_accounts_for_itself(tmp_path: Path,
                                           monkeypatch: pytest.MonkeyPatch) -> None:
    plan = Plan(devices=3, interval=2, rate=10.0, phases=SHORT)
    result = asyncio.run(Fleet(plan, find_daemon(), lambda _: None).run())
    for check in (_its_records_are_accounted_for, _a_lost_record_is_found,
                  _other_faults_are_found, _its_load_is_counted, _all_recover,
                  _its_report_contains_no_secret):
        check(result)
    monkeypatch.setattr(plot, "draw", lambda *_: None)
    for outcome, code in ((result, 0), (_without_a_record(result), 1)):
        monkeypatch.setattr(Fleet, "run", lambda _, outcome=outcome: asyncio.sleep(0, outcome))
        assert main(["--output", str(tmp_path)]) == code


def _its_records_are_accounted_for(result: RunResult) -> None:
    balance = figures.accounting(result)
    assert balance.adds_up, balance.faults
    assert balance.fates[Fate.UPLOADED] > balance.recorded / 2
    kinds = {arrival.endpoint for device in result.devices for arrival in device.arrivals}
    assert kinds == {Endpoint.REFRESH, Endpoint.METRICS, Endpoint.STRUCTURED_LOGS,
                     Endpoint.OFFLINE_LOGS}


def _a_lost_record_is_found(result: RunResult) -> None:
    assert figures.accounting(_without_a_record(result)).faults == [
        f"device-0001: record {_some_point(result)}, metrics, is unexplained"]


def _without_a_record(result: RunResult) -> RunResult:
    """As if a point had never arrived."""
    device, lost = result.devices[0], {_some_point(result)}
    arrivals = [dataclasses.replace(arrival, numbers=tuple(set(arrival.numbers) - lost))
                for arrival in device.arrivals]
    return dataclasses.replace(result, devices=[dataclasses.replace(device, arrivals=arrivals),
                                                *result.devices[1:]])


def _some_point(result: RunResult) -> int:
    points = [arrival for arrival in result.devices[0].arrivals
              if arrival.endpoint == Endpoint.METRICS]
    return points[1].numbers[0]


def _other_faults_are_found(result: RunResult) -> None:
    device, *others = result.devices
    for wrong in (dataclasses.replace(result, misdirected=["device-0001: another's access token"]),
                  *(dataclasses.replace(result, devices=[dataclasses.replace(device, **change),
                                                         *others])
                    for change in ({"exit_code": 69}, {"leaks": 1}))):
        assert not figures.accounting(wrong).adds_up


def _its_load_is_counted(result: RunResult) -> None:
    phases = {one["name"]: one for one in figures.of_phases(result)}
    # One with each of the two servers.
    assert phases["power-up"]["full_handshakes"] >= 2 * 3
    assert phases["connections closed"]["resumed_handshakes"] >= 3
    assert phases["first outage"]["requests"] == 0
    assert phases["first outage"]["cycles"] == 3


def _all_recover(result: RunResult) -> None:
    recovery, = figures.recoveries(result)
    assert recovery["recovered"] == 3
    assert 0 < min(recovery["seconds"])


def _its_report_contains_no_secret(result: RunResult) -> None:
    content = report.made(result, figures.accounting(result))
    text = report.text(content) + json.dumps(content)
    assert "every record is accounted for" in text
    # A secret is a longer word than any in it.
    assert max(len(word) for word in re.findall(r"[\w-]+", text)) < 32
    assert [device.leaks for device in result.devices] == [0, 0, 0]


def test_an_interrupted_fleet_leaves_nothing(tmp_path: Path) -> None:
    fleet = subprocess.Popen(
        ["/usr/bin/python3", "-m", "lab.fleet", "--devices", "2", "--minutes", "1"], cwd=ROOT,
        env=os.environ | {"TMPDIR": str(tmp_path)}, stdout=subprocess.PIPE, text=True)
    assert fleet.stdout
    while "power-up" not in fleet.stdout.readline():
        assert fleet.poll() is None
    assert [path.name.startswith("pelmor-fleet-") for path in tmp_path.iterdir()] == [True]
    fleet.send_signal(signal.SIGINT)
    assert fleet.wait(20) == 130
    assert list(tmp_path.iterdir()) == []
    assert not [one for one in Path("/proc").glob("[0-9]*/cmdline")
                if str(tmp_path).encode() in _read(one)]


def _read(file: Path) -> bytes:
    try:
        return file.read_bytes()
    except OSError:
        return b""
