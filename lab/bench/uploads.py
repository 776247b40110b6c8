"""What an upload costs: the request's text, and its way to the service."""

import contextlib
import itertools
import os
import subprocess
import tempfile
from collections.abc import Iterator, Sequence
from pathlib import Path

from lab.bench import micro, parse
from lab.bench.bed import ONE_CA, PROGRAMS, Bed, await_that, output
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
# The function of that name in both, but not what is made in it.
_POST_ALONE = "--toggle-collect=(anonymous namespace)::Post(*)"
# One processor of those that there are. On two, the kernel of a peer that answers holds the lock of
# the very socket that is read, and how long that takes the reader is anybody's guess.
_TOGETHER = ("taskset", "-c", str(max(os.sched_getaffinity(0))))
# A POST is shorter than most things that disturb it.
_ROUNDS_A_RUN = 3


def _instructions_of(*argv: object) -> int:
    with tempfile.TemporaryDirectory() as folder:
        dump = Path(folder) / "callgrind"
        subprocess.run([*callgrind_into(dump), *map(str, argv)], check=True, capture_output=True)
        return parse.instructions(dump.read_text())


def _once_more(totals: list[int]) -> tuple[float, ...]:
    """Of runs each of which acts once more than the one before: what that costs."""
    return tuple(float(more - less) for less, more in itertools.pairwise(totals))


@measures("json-instructions", "json-time")
def json(settings: Settings) -> list[Figure]:
    program = settings.build / "lab/bench/json_cost"
    # Run N writes once more than run N - 1.
    totals = {writer: [_instructions_of(program, writer, POINTS, times)
                       for times in range(1, settings.runs + 2)]
              for writer in ("daemon", "stream")}
    ours, floor = (tuple(float(more - less) for less, more in itertools.pairwise(runs))
                   for runs in totals.values())
    times = micro.run(settings.build / "lab/bench/micro", f"json/.*/{POINTS}", settings.runs)
    return [Figure("json-instructions", f"JSON of {POINTS} points, instructions", "count",
                   Goal(3), ours, floor),
            Figure("json-time", f"JSON of {POINTS} points, time", "µs", None,
                   times[f"json/daemon/{POINTS}"], times[f"json/stream/{POINTS}"])]


def start_sink(bed: Bed, port: int, point: str, *close: str, under: Sequence[str] = ()) -> None:
    certificate = certificates.of_the_cloud()
    bed.device.write_file(_SINK_CERTIFICATE, certificate.key + certificate.chain)
    bed.spawn(*under, "python3", "-m", "lab.bench.inside.sink", str(port), _SINK_CERTIFICATE, point,
              *close)
    await_that(lambda: bool(bed.read_file(f"/tmp/sink.{port}")), "the sink")


def _write_body(bed: Bed, settings: Settings) -> None:
    body = subprocess.run([settings.build / "lab/bench/json_cost", "print", str(POINTS)],
                          capture_output=True, check=True).stdout
    bed.device.write_file(_BODY, body)


@measures("upload-kept", "upload-reconnect")
def upload(settings: Settings) -> list[Figure]:
    spent: dict[tuple[str, int], list[float]] = {}
    with Bed(settings.build) as bed:
        _write_body(bed, settings)
        start_sink(bed, KEPT_PORT, "endTime", under=_TOGETHER)
        start_sink(bed, _CLOSED_PORT, "endTime", "close", under=_TOGETHER)
        for _ in range(_ROUNDS_A_RUN * settings.runs):
            for port in (KEPT_PORT, _CLOSED_PORT):
                for side in _SIDES:
                    told = _post(bed, side, port, settings.scaled(_POSTS), *_TOGETHER)
                    spent.setdefault((side, port), []).append(told)

    def figure(key: str, what: str, most: float, port: int) -> Figure:
        return Figure(key, what, "µs", Goal(most), tuple(spent["our_post", port]),
                      tuple(spent["baseline_post", port]))

    return [figure("upload-kept", "upload CPU without JSON, kept-alive", 1.3, KEPT_PORT),
            figure("upload-reconnect", "upload CPU without JSON, after the server closed; all CAs,"
                   " the floor with one", 1.5, _CLOSED_PORT)]


def _post(bed: Bed, side: str, port: int, count: int, *under: str) -> float:
    url = f"https://{names.Host.MONITORING}:{port}/v1"
    authority = [ONE_CA] if side == "baseline_post" else []
    environment = [f"{name}={value}" for name, value in names.DAEMON_ENVIRONMENT.items()]
    return float(output(bed.device, "env", *environment, *under, f"{PROGRAMS}/{side}", url, _BODY,
                        str(count), *authority))


@measures("upload-instructions")
def upload_instructions(settings: Settings) -> list[Figure]:
    with _counting_bed(settings) as bed:
        totals = {side: [parse.instructions(_counted_posts(bed, side, times))
                         for times in range(1, settings.runs + 2)]
                  for side in _SIDES}
    ours, floor = map(_once_more, totals.values())
    return [Figure("upload-instructions", "the same, kept-alive, instructions", "count", None, ours,
                   floor)]


def profile(settings: Settings, folder: Path) -> None:
    """Writes callgrind's counts of such POSTs, and of those of the floor; the first connects."""
    with _counting_bed(settings) as bed:
        for side in _SIDES:
            (folder / f"{side}.callgrind").write_text(_counted_posts(bed, side, _POSTS))


@contextlib.contextmanager
def _counting_bed(settings: Settings) -> Iterator[Bed]:
    # To read all authorities would be most of the work.
    with Bed(settings.build, all_authorities=False) as bed:
        _write_body(bed, settings)
        start_sink(bed, KEPT_PORT, "endTime")
        yield bed


def _counted_posts(bed: Bed, side: str, times: int) -> str:
    """Callgrind's dump, of the POSTs alone: not of what is prepared for them."""
    dump = f"/tmp/{side}.{times}"
    _post(bed, side, KEPT_PORT, times, *callgrind_into(dump), _POST_ALONE)
    return bed.read_file(dump)


def points_of(request: dict) -> int:
    return sum(len(metric["points"]) for metric in request["metricPoints"])
