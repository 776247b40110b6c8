"""The cost of an upload: building the request and sending it."""

import contextlib
import itertools
import os
import subprocess
import tempfile
from collections.abc import Iterator, Sequence
from pathlib import Path

from lab.bench import micro, parse
from lab.bench.testbed import ONE_CA, PROGRAMS, Testbed, await_that, output
from lab.bench.calls import callgrind_into
from lab.bench.figures import Figure, Goal
from lab.bench.plan import Settings, measures
from lab.common import certificates, names

POINTS = 1000
_BODY = "/tmp/body.json"
_SINK_CERTIFICATE = "/etc/sink.pem"
KEPT_PORT = 8443
_CLOSED_PORT = 8444
_POSTS = 50
_SIDES = ("our_post", "baseline_post")
# The function of that name in both programs.
_POST_ALONE = "--toggle-collect=(anonymous namespace)::Post(*)"
# Client and server share one processor. On two, the kernel, which delivers the server's answer,
# contends with the client for the lock of the client's socket, for an unpredictable time.
_TOGETHER = ("taskset", "-c", str(max(os.sched_getaffinity(0))))
# A POST takes less time than most disturbances.
_ROUNDS_A_RUN = 3


def _instructions_of(*argv: object) -> int:
    with tempfile.TemporaryDirectory() as folder:
        dump = Path(folder) / "callgrind"
        subprocess.run([*callgrind_into(dump), *map(str, argv)], check=True, capture_output=True)
        return parse.instructions(dump.read_text())


def _increments(totals: list[int]) -> tuple[float, ...]:
    """The cost of one action, from runs each of which acts once more than the previous run."""
    return tuple(float(more - less) for less, more in itertools.pairwise(totals))


@measures("json-instructions", "json-time")
def json(settings: Settings) -> list[Figure]:
    program = settings.build / "lab/bench/json_cost"
    # Run N writes once more than run N - 1.
    totals = {writer: [_instructions_of(program, writer, POINTS, times)
                       for times in range(1, settings.runs + 2)]
              for writer in ("daemon", "stream")}
    ours, baseline = map(_increments, totals.values())
    times = micro.run(settings.build / "lab/bench/micro", f"json/.*/{POINTS}", settings.runs)
    return [Figure("json-instructions", f"JSON of {POINTS} points, instructions", "count",
                   Goal(1.6), ours, baseline),
            Figure("json-time", f"JSON of {POINTS} points, time", "µs", None,
                   times[f"json/daemon/{POINTS}"], times[f"json/stream/{POINTS}"])]


def start_sink(testbed: Testbed, port: int, point: str, *close: str,
               under: Sequence[str] = ()) -> None:
    certificate = certificates.of_the_cloud()
    testbed.device.write_file(_SINK_CERTIFICATE, certificate.key + certificate.chain)
    testbed.spawn(*under, "python3", "-m", "lab.bench.inside.sink", str(port), _SINK_CERTIFICATE,
                  point, *close)
    await_that(lambda: bool(testbed.read_file(f"/tmp/sink.{port}")), "the sink")


def _write_body(testbed: Testbed, settings: Settings) -> None:
    body = subprocess.run([settings.build / "lab/bench/json_cost", "print", str(POINTS)],
                          capture_output=True, check=True).stdout
    testbed.device.write_file(_BODY, body)


@measures("upload-kept", "upload-reconnect")
def upload(settings: Settings) -> list[Figure]:
    spent: dict[tuple[str, int], list[float]] = {}
    with Testbed(settings.build) as testbed:
        _write_body(testbed, settings)
        start_sink(testbed, KEPT_PORT, "endTime", under=_TOGETHER)
        start_sink(testbed, _CLOSED_PORT, "endTime", "close", under=_TOGETHER)
        for _ in range(_ROUNDS_A_RUN * settings.runs):
            for port in (KEPT_PORT, _CLOSED_PORT):
                for side in _SIDES:
                    spent.setdefault((side, port), []).append(
                        _post(testbed, side, port, settings.scaled(_POSTS), *_TOGETHER))

    def figure(key: str, what: str, most: float, port: int) -> Figure:
        return Figure(key, what, "µs", Goal(most), tuple(spent["our_post", port]),
                      tuple(spent["baseline_post", port]))

    return [figure("upload-kept", "upload CPU without JSON, kept-alive", 1.3, KEPT_PORT),
            figure("upload-reconnect", "upload CPU without JSON, after the server closed; all CAs,"
                   " the baseline with one", 1.5, _CLOSED_PORT)]


def _post(testbed: Testbed, side: str, port: int, count: int, *under: str) -> float:
    url = f"https://{names.Host.MONITORING}:{port}/v1"
    authority = [ONE_CA] if side == "baseline_post" else []
    environment = [f"{name}={value}" for name, value in names.DAEMON_ENVIRONMENT.items()]
    return float(output(testbed.device, "env", *environment, *under, f"{PROGRAMS}/{side}", url,
                        _BODY, str(count), *authority))


@measures("upload-instructions")
def upload_instructions(settings: Settings) -> list[Figure]:
    with _counting_testbed(settings) as testbed:
        totals = {side: [parse.instructions(_counted_posts(testbed, side, times))
                         for times in range(1, settings.runs + 2)]
                  for side in _SIDES}
    ours, baseline = map(_increments, totals.values())
    return [Figure("upload-instructions", "the same, kept-alive, instructions", "count", None, ours,
                   baseline)]


def profile(settings: Settings, folder: Path) -> None:
    """Writes callgrind's counts of such POSTs and of the baseline's; the first one connects."""
    with _counting_testbed(settings) as testbed:
        for side in _SIDES:
            (folder / f"{side}.callgrind").write_text(_counted_posts(testbed, side, _POSTS))


@contextlib.contextmanager
def _counting_testbed(settings: Settings) -> Iterator[Testbed]:
    # Reading all authorities would be most of the work.
    with Testbed(settings.build, all_authorities=False) as testbed:
        _write_body(testbed, settings)
        start_sink(testbed, KEPT_PORT, "endTime")
        yield testbed


def _counted_posts(testbed: Testbed, side: str, times: int) -> str:
    """Callgrind's dump of the POSTs alone, without their preparation."""
    dump = f"/tmp/{side}.{times}"
    _post(testbed, side, KEPT_PORT, times, *callgrind_into(dump), _POST_ALONE)
    return testbed.read_file(dump)


def points_of(request: dict) -> int:
    return sum(len(metric["points"]) for metric in request["metricPoints"])
