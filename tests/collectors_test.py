"""What Debian's metrics collectors do with the samples of the daemon, for each STATSD_TYPE."""

import json
import re
from collections.abc import Callable, Iterator
from pathlib import Path

import pytest

from lab.bench import testbed
from lab.common.applicability import NOT_APPLICABLE
from lab.device.device import Device
from tests.device.helpers import METRICS_STATUS, PERIOD, record_numbers, start_ticking, tick

PORT = "18125"
OUTPUT = "/tmp/collector"

# By collector: its program, and the Debian releases that have its package.
COLLECTORS = {"collectd": (Path("/usr/sbin/collectd"), {"12", "13"}),
              "netdata": (Path("/usr/sbin/netdata"), {"12"})}

COLLECTD = f"""\
Hostname "ap"
FQDNLookup false
BaseDir "/tmp"
PluginDir "/usr/lib/collectd"
TypesDB "/usr/share/collectd/types.db"
Interval 0.2
LoadPlugin logfile
LoadPlugin statsd
LoadPlugin csv
<Plugin logfile>
  File "stdout"
</Plugin>
<Plugin csv>
  DataDir "stdout"
</Plugin>
<Plugin statsd>
  Host "127.0.0.1"
  Port "{PORT}"
</Plugin>
"""

# Only its collector of StatsD samples.
NETDATA = f"""\
[db]
  mode = ram
[ml]
  enabled = no
[health]
  enabled = no
[web]
  bind to = 127.0.0.1:19999
[statsd]
  bind to = udp:127.0.0.1:{PORT}
[plugins]
  enable running new plugins = no
  cgroups = no
  diskspace = no
  idlejitter = no
  netdata monitoring = no
  proc = no
  tc = no
  timex = no
"""
NETDATA_FOLDERS = [f"{parent}/netdata" for parent in ("/etc", "/var/cache", "/var/lib", "/var/log")]
FETCH = "import sys, urllib.request as u; print(u.urlopen(sys.argv[1]).read().decode())"


@pytest.fixture(name="device")
def fixture_device(request: pytest.FixtureRequest) -> Iterator[Device]:
    """A device in which the collector of the test's name can run."""
    collector = next(name for name in COLLECTORS if name in request.node.name)
    program, releases = COLLECTORS[collector]
    [release] = re.findall(r'^VERSION_ID="(\d+)"$', Path("/etc/os-release").read_text(),
                           re.MULTILINE) or ["testing"]
    if not program.exists() and release not in releases:
        pytest.skip(f"{NOT_APPLICABLE}Debian {release} has no {collector}")
    assert program.exists(), f"install packages/{collector}.txt"
    with Device(movable_clocks=True) as device:
        yield device


def output_of(device: Device) -> str:
    return (device.read_file(OUTPUT) or b"").decode()


def await_that(condition: Callable[[], bool], device: Device) -> None:
    testbed.await_that(condition, f"the collector, which printed: {output_of(device)}")


def start_collector(device: Device, command: str) -> None:
    device.run("sh", "-c", f"{command} >{OUTPUT} 2>&1 &")
    await_that(lambda: f":{int(PORT):04X} " in device.run("cat", "/proc/net/udp").output, device)


def upload(device: Device, sample_type: str) -> dict[str, int]:
    """Uploads a point; returns the samples that the daemon has sent."""
    start_ticking(device, STATSD_PORT=PORT, STATSD_TYPE=sample_type)
    record_numbers(device, 1)
    tick(device, PERIOD)
    size = len(device.cloud.wait_for_request("metrics").body)
    return {"AccessPoint.PelmorMetrics.RequestPointCount": 1,
            "AccessPoint.PelmorMetrics.RequestWireSize": size,
            "AccessPoint.PelmorMetrics.RequestWireSizePerPoint": size, METRICS_STATUS: 200}


# collectd.

def start_collectd(device: Device) -> None:
    device.write_file("/etc/collectd.conf", COLLECTD)
    start_collector(device, "collectd -f -C /etc/collectd.conf")


def values_in_collectd(device: Device) -> dict[str, float]:
    """The average of each timer in the intervals that had samples."""
    return {name: float(value) for name, value in re.findall(
        r"^PUTVAL ap/statsd/latency-(.*)-average interval=.*:([\d.]+)\n", output_of(device),
        re.MULTILINE)}


def test_collectd_takes_timers_and_shows_a_thousandth(device: Device) -> None:
    start_collectd(device)
    samples = upload(device, "ms")
    await_that(lambda: len(values_in_collectd(device)) == len(samples), device)
    assert values_in_collectd(device) == {
        name: pytest.approx(value / 1000) for name, value in samples.items()}
    assert "Unable to parse" not in output_of(device)


def test_collectd_rejects_histograms(device: Device) -> None:
    start_collectd(device)
    samples = upload(device, "h")
    rejected = [f'Unable to parse line: "{name}:{value}|h"' for name, value in samples.items()]
    await_that(lambda: all(line in output_of(device) for line in rejected), device)
    assert values_in_collectd(device) == {}


# netdata.

def values_in_netdata(device: Device, chart: str) -> set[float]:
    """The different maxima of a second since the start; empty without such a chart."""
    fetched = device.run("python3", "-c", FETCH, "http://127.0.0.1:19999/api/v1/data"
                         f"?chart=statsd_{chart.lower()}&dimensions=max&after=-60")
    return {value for _, value in json.loads(fetched.output)["data"]} if not fetched.code else set()


@pytest.mark.parametrize(("sample_type", "kind"), [("h", "histogram"), ("ms", "timer")])
def test_netdata_takes_both_types(device: Device, sample_type: str, kind: str) -> None:
    for folder in NETDATA_FOLDERS:
        device.make_folder(folder)
    device.write_file("/etc/netdata/netdata.conf", NETDATA)
    start_collector(device, "netdata -D -u root")
    for name, value in upload(device, sample_type).items():
        await_that(lambda: value in values_in_netdata(device, f"{name}_{kind}"), device)
