"""What an upload costs: the request's text, and its way to the service."""

import subprocess
import tempfile
from pathlib import Path

from bench import micro, parse
from bench.bed import ONE_CA, PROGRAMS, SCRIPTS, Bed, await_that, output
from bench.figures import Figure, Goal
from bench.plan import Settings, measures
from lab import certificates, names

POINTS = 1000
_BODY = "/tmp/body.json"
_SINK_CERTIFICATE = "/etc/sink.pem"
KEPT_PORT = 8443
_CLOSED_PORT = 8444


def _instructions_of(*argv: object) -> int:
    with tempfile.TemporaryDirectory() as folder:
        dump = Path(folder) / "callgrind"
        subprocess.run(["valgrind", "--tool=callgrind", f"--callgrind-out-file={dump}",
                        *map(str, argv)], check=True, capture_output=True)
        return parse.instructions(dump.read_text())


@measures("json-instructions", "json-time")
def json(settings: Settings) -> list[Figure]:
    program = settings.build / "bench/json_cost"
    # Run N writes once more than run N - 1.
    totals = {writer: [_instructions_of(program, writer, POINTS, times)
                       for times in range(1, settings.runs + 2)]
              for writer in ("daemon", "stream")}
    ours, floor = (tuple(float(more - less) for less, more in zip(runs, runs[1:]))
                   for runs in totals.values())
    times = micro.run(settings.build / "bench/micro", f"json/.*/{POINTS}", settings.runs)
    return [Figure("json-instructions", f"JSON of {POINTS} points, instructions", "count",
                   Goal(3), ours, floor),
            Figure("json-time", f"JSON of {POINTS} points, time", "µs", None,
                   times[f"json/daemon/{POINTS}"], times[f"json/stream/{POINTS}"])]


def start_sink(bed: Bed, port: int, point: str, *close: str) -> None:
    certificate = certificates.of_the_cloud()
    bed.device.write_file(_SINK_CERTIFICATE, certificate.key + certificate.chain)
    bed.spawn("python3", f"{SCRIPTS}/sink.py", str(port), _SINK_CERTIFICATE, point, *close)
    await_that(lambda: bool(bed.read_file(f"/tmp/sink.{port}")), "the sink")


@measures("upload-kept", "upload-reconnect")
def upload(settings: Settings) -> list[Figure]:
    body = subprocess.run([settings.build / "bench/json_cost", "print", str(POINTS)],
                          capture_output=True, check=True).stdout
    spent: dict[tuple[str, int], list[float]] = {}
    with Bed(settings.build) as bed:
        bed.device.write_file(_BODY, body)
        start_sink(bed, KEPT_PORT, "endTime")
        start_sink(bed, _CLOSED_PORT, "endTime", "close")
        for _ in range(settings.runs):
            for port in (KEPT_PORT, _CLOSED_PORT):
                for side in ("our_post", "floor_post"):
                    spent.setdefault((side, port), []).append(
                        _post(bed, side, port, settings.scaled(50)))

    def figure(key: str, what: str, most: float, port: int) -> Figure:
        return Figure(key, what, "µs", Goal(most), tuple(spent["our_post", port]),
                      tuple(spent["floor_post", port]))

    return [figure("upload-kept", "upload CPU without JSON, kept-alive", 1.3, KEPT_PORT),
            figure("upload-reconnect", "upload CPU without JSON, after the server closed; all CAs,"
                   " the floor with one", 1.5, _CLOSED_PORT)]


def _post(bed: Bed, side: str, port: int, count: int) -> float:
    url = f"https://{names.Host.MONITORING}:{port}/v1"
    authority = [ONE_CA] if side == "floor_post" else []
    return float(output(bed.device, f"{PROGRAMS}/{side}", url, _BODY, str(count), *authority))


def points_of(request: dict) -> int:
    return sum(len(metric["points"]) for metric in request["metricPoints"])
