"""A whole device in a sandbox.

    with Device() as device:
        device.provision()
        device.start_daemon()
        device.record_metric("ap/clients", {}, 12)
        request = device.cloud.wait_for_request("metrics")

Its environment works from the start: Larder with a registered device, the time from the network,
and a cloud that accepts everything. A test states only the differences.
"""

import os
import signal as signals
import socket
from dataclasses import dataclass
from pathlib import Path
from typing import Any

from lab.common import certificates, names
from lab.common.errors import LabError
from lab.common.tree import ROOT
from lab.device import api, sandbox, system_bus
from lab.device.defaults import DEFAULT_CONFIGURATION, DEFAULT_RELEASE, key_values
from lab.device.events import DEFAULT_DEADLINE, Event, EventLog
from lab.device.external import ExternalCloud, Relay, relay_to
from lab.device.link import Link
from lab.device.programs import Cloud, Larder, Systemd, TimeDaemon
from lab.device.secrets import Secrets
from lab.device.status import PREFIX, Status, parse
from lab.device.values import variant_of

_CALL_DEADLINE = 40.0
# The mode of a file with a secret.
_SECRET = 0o600


@dataclass(frozen=True)
class Reply:
    """The reply to a D-Bus call: values with their signature, or an error with its message."""

    signature: str = ""
    values: tuple = ()
    error: str = ""
    message: str = ""


@dataclass(frozen=True)
class Run:
    """The result of a program in the device."""

    code: int
    output: str
    errors: str


@dataclass(frozen=True)
class Sample:
    """A sample of the daemon's own metrics, as received on the StatsD socket."""

    name: str
    value: int
    text: str


def find_daemon() -> Path:
    """The daemon's binary: PELMOR_DAEMON, or else the release build of this tree."""
    named = os.environ.get("PELMOR_DAEMON")
    return Path(named) if named else ROOT / "build/release/ap/pelmor/ap-pelmor"


class Device:
    """One device; a context manager. Each verb returns when its effect is complete."""

    def __init__(self, daemon: Path | str | None = None, *, movable_clocks: bool = False,
                 folders: dict[str, Path] | None = None, may_trace: bool = False,
                 shared_folder: Path | None = None,
                 cloud: ExternalCloud | None = None) -> None:
        """With `movable_clocks`, `move_clocks` can change the daemon's clocks. `folders` maps
        paths in the device to folders of the host. With `may_trace`, root in the device may
        inspect the daemon, which is not dumpable. `shared_folder` gets a socket of the device's
        bus, `names.HOST_BUS`, for programs of the host. `cloud` is a real one that the daemon uses
        in place of the simulated one."""
        self._daemon = Path(daemon or find_daemon()).resolve()
        self._folders = folders or {}
        self._movable_clocks = movable_clocks
        self._may_trace = may_trace
        self._shared_folder = shared_folder
        self._external = cloud
        self._relay: Relay | None = None
        self._clocks = [0, 0]
        self._clocks_stopped = False
        self._link: Link | None = None
        # By the start of the daemon.
        self._connections: dict[int, list[str]] = {}
        self.event_log = EventLog()
        self.larder = Larder("larder", self._call, self.event_log)
        self.clock = TimeDaemon("tlsdate", self._call, self.event_log)
        self.systemd = Systemd("systemd", self._call, self.event_log)
        self.cloud = Cloud(self._call, self.event_log, is_simulated=not cloud)
        self.secrets = Secrets(self.event_log)

    def __enter__(self) -> "Device":
        if not self._daemon.is_file():
            raise LabError(f"No daemon at {self._daemon}: build it, or name it in PELMOR_DAEMON")
        sandbox.check()
        system_bus.check(system_bus.chosen())
        sandbox.compile_modules()
        if self._external:
            self._external.check(self._daemon)
        ours, theirs = socket.socketpair()
        doors, their_doors = socket.socketpair()
        argv = sandbox.command(self._daemon, (theirs.fileno(), their_doors.fileno()),
                               self._movable_clocks, self._folders, self._may_trace,
                               self._shared_folder)
        self._link = Link(argv, ours, [theirs, their_doors], self.event_log)
        try:
            with doors:
                self._set_up(doors)
        except LabError:
            self._end()
            raise
        return self

    def __exit__(self, failure: type[BaseException] | None, *_: object) -> None:
        self._end()
        if not failure:
            self._check()

    def close(self) -> None:
        """Ends the device and every program in it; the event log remains readable. Raises if the
        cloud received a request that violates docs/cloud-api.yaml, or if a secret was revealed."""
        self._end()
        self._check()

    def _end(self) -> None:
        if self._link:
            self._link.close()
        if self._relay:
            self._relay.close()
            self._relay = None

    def _check(self) -> None:
        if not self.cloud.takes_anything:
            api.check(self.cloud.requests())
            self.secrets.check()

    def _set_up(self, doors: socket.socket) -> None:
        certificate, external = certificates.of_the_cloud(), self._external
        bundle = external.authority if external else certificates.trusted_bundle()
        self._call("device.come_up", authorities=certificates.system_files(bundle),
                   chain=certificate.chain, key=certificate.key, has_cloud=not external)
        if external:
            self._relay = relay_to(external, self._call, doors, self.event_log)
        self.write_file(names.RELEASE, key_values(DEFAULT_RELEASE))
        self.make_folder(names.STATE_FOLDER)
        self.make_folder(names.RUN_FOLDER)
        self.configure()

    def _call(self, verb: str, **arguments: Any) -> Any:
        if not self._link:
            raise LabError("The device is not up: use it in a with statement")
        # The link's deadline comes on top of the verb's own.
        deadline = arguments.get("deadline", 0) + _CALL_DEADLINE
        return self._link.call(verb, arguments, deadline)

    # The daemon.

    def start_daemon(self, *, wait: bool = True, under: tuple[str, ...] = (),
                     **environment: str) -> None:
        """Starts the daemon and waits until it owns its name on the bus, unless `wait` is false,
        for a start that is meant to fail. `under` is a command that runs the daemon, for example
        a profiler."""
        before = self.event_log.last()
        if self._movable_clocks:
            # AddressSanitizer would otherwise insist on being loaded first.
            environment = {"LD_PRELOAD": names.CLOCK_SHIFT_LIBRARY,
                           "CLOCK_SHIFT_FILE": names.CLOCK_SHIFT_FILE,
                           "ASAN_OPTIONS": "verify_asan_link_order=0"} | environment
        self._call("daemon.start", environment=environment, under=under)
        if wait:
            event = self.event_log.wait_for(_is_start_or_exit, after=before,
                                            what="the daemon's start")
            if event.kind == "daemon.exited":
                raise LabError(f"The daemon did not start\n{self.event_log.text()}")

    def stop_daemon(self, signal: signals.Signals = signals.SIGTERM) -> int:
        """The exit code; the negative signal number if a signal killed the daemon."""
        before = self.event_log.last()
        self.signal_daemon(signal)
        return self.wait_for_exit(after=before)

    def signal_daemon(self, signal: signals.Signals) -> None:
        self._call("daemon.signal", signal=int(signal))

    def kill_daemon(self) -> int:
        return self.stop_daemon(signals.SIGKILL)

    def wait_for_exit(self, *, after: Event | None = None,
                      deadline: float = DEFAULT_DEADLINE) -> int:
        return self.wait_for("daemon.exited", after=after, deadline=deadline)["code"]

    def move_clocks(self, *, wall: float = 0, monotonic: float = 0) -> None:
        """Moves the daemon's clocks by so many seconds; the monotonic one forward only."""
        if not self._movable_clocks:
            raise LabError("Clocks move only in a Device(movable_clocks=True)")
        if monotonic < 0:
            raise LabError("A monotonic clock cannot move backwards")
        self._clocks[0] += round(wall * 1_000_000)
        self._clocks[1] += round(monotonic * 1_000_000)
        self._call("daemon.move_clocks", wall=self._clocks[0], monotonic=self._clocks[1],
                   stopped=self._clocks_stopped)

    def stop_clocks(self, *, wall: int, monotonic: int) -> None:
        """Call it before the daemon starts. Its clocks show these microseconds and move only by
        `move_clocks`, except that the monotonic clock advances by 1 µs whenever it is read."""
        self._clocks = [0, 0]
        self._clocks_stopped = True
        self.move_clocks(wall=wall / 1_000_000, monotonic=monotonic / 1_000_000)

    # Its files.

    def configure(self, **keys: str | None) -> None:
        """Writes the configuration: the defaults with `keys` (without their PELMOR_, in any case)
        over them; None leaves a key out. For example `configure(url="https://…")`."""
        values: dict[str, str | None] = dict(DEFAULT_CONFIGURATION)
        keys = (self._external.configuration() if self._external else {}) | keys
        values |= {f"PELMOR_{key.upper()}": value for key, value in keys.items()}
        self.write_file(names.CONFIGURATION, key_values(values), mode=_SECRET)

    def provision(self, refresh_token: str = "refresh-1") -> None:
        """Stores a refresh token as an earlier run of the daemon would have."""
        self.write_file(names.REFRESH_TOKEN, refresh_token, mode=_SECRET)

    def write_file(self, path: str, data: str | bytes, mode: int = 0o644) -> None:
        """Replaces the whole file; creates its folder if necessary."""
        content = data.encode() if isinstance(data, str) else data
        self.secrets.note_file(path, content)
        self._call("files.write", path=path, data=content, mode=mode)

    def read_file(self, path: str) -> bytes | None:
        """None if the file does not exist."""
        return self._call("files.read", path=path)

    def delete_file(self, path: str) -> None:
        self._call("files.delete", path=path)

    def make_folder(self, path: str, mode: int = 0o755) -> None:
        self._call("files.make_folder", path=path, mode=mode)

    def delete_folder(self, path: str) -> None:
        """Including its content."""
        self._call("files.delete_folder", path=path)

    def wait_for_file(self, path: str, *, after: Event | None = None,
                      deadline: float = DEFAULT_DEADLINE) -> bytes | None:
        """Waits until a file in the daemon's folders is written; returns its content."""
        self.wait_for("file.written", path=path, after=after, deadline=deadline)
        return self.read_file(path)

    # Its reporters.

    def record_metric(self, name: str, labels: dict[str, str], value: Any) -> None:
        """Records a point as a reporter would. A plain value is sent as the nearest D-Bus type;
        `lab.device.values` has the others."""
        self._record("RecordMetric", "sa{ss}v", name, labels, variant_of(value))

    def record_metrics(self, points: list[tuple[str, dict[str, str], Any]]) -> None:
        """Records many points without waiting for each reply."""
        arguments = [[name, labels, variant_of(value)] for name, labels, value in points]
        self._call("reporter.call_all", method="RecordMetric", signature="sa{ss}v",
                   all_arguments=arguments)

    def record_structured(self, type_url: str, data: bytes) -> None:
        self._record("RecordStructuredData", "say", type_url, data)

    def record_offline(self, type_url: str, data: bytes) -> None:
        self._record("RecordOfflineData", "say", type_url, data)

    def _record(self, method: str, signature: str, *arguments: Any) -> None:
        reply = self.call_raw(method, signature, arguments)
        if reply != Reply():
            raise LabError(f"{method} was answered with {reply}\n{self.event_log.text()}")

    def call_raw(self, method: str, signature: str = "", arguments: tuple | list = (), *,
                 destination: str = names.DAEMON_SERVICE, path: str = names.DAEMON_PATH,
                 interface: str = names.DAEMON_INTERFACE) -> Reply:
        """Any D-Bus call; variants in the arguments are `lab.device.values.Variant`s."""
        reply = self._call("reporter.call", destination=destination, path=path,
                           interface=interface, method=method, signature=signature,
                           arguments=arguments)
        if destination == names.DAEMON_SERVICE:
            self.secrets.note_output(f"the reply to {method}", str(reply))
        return Reply(reply["signature"], tuple(reply["values"]), reply["error"], reply["message"])

    def daemon_connections(self) -> list[str]:
        """The daemon's connections to the bus, by their unique names."""
        started = self.event_log.events("daemon.started")[-1]
        if started.number not in self._connections:
            names_on_bus = self._ask_bus("ListNames").values[0]
            self._connections = {started.number: [
                name for name in names_on_bus if name.startswith(":")
                and self._ask_bus("GetConnectionUnixProcessID", name).values == (started["pid"],)]}
        return self._connections[started.number]

    def _ask_bus(self, method: str, *arguments: str) -> Reply:
        return self.call_raw(method, "s" * len(arguments), arguments,
                             destination=names.BUS_SERVICE, path=names.BUS_PATH,
                             interface=names.BUS_SERVICE)

    def forge_signal(self, path: str, interface: str, member: str, signature: str,
                     *values: Any) -> None:
        """Sends a signal from a connection that owns none of the names, as a broadcast and directly
        to the daemon. Returns when the bus has delivered it."""
        for destination in ("", names.DAEMON_SERVICE):
            self._call("reporter.emit", destination=destination, path=path, interface=interface,
                       member=member, signature=signature, values=values)

    def run(self, *argv: str, deadline: float = 30.0) -> Run:
        """Runs a program of the host in the device."""
        run = Run(**self._call("device.run", argv=argv, deadline=deadline))
        self.secrets.note_output(argv[0], run.output + run.errors)
        return run

    def stop_bus(self) -> None:
        """Ends the system bus; call no verb that needs it until `start_bus`."""
        self._call("bus.stop")

    def start_bus(self) -> None:
        """After `stop_bus`; the simulated programs reconnect. The daemon has exited."""
        self._call("device.start_bus")

    def watch_bus(self) -> None:
        """From now on each call of the daemon's methods and each D-Bus error is an event."""
        self._call("monitor.start")

    def start_load(self, rate: float, metrics: list[str], label_sets: list[dict[str, str]],
                   seconds: float) -> None:
        """Records `rate` points per second, of each metric and label set in turn."""
        self._call("load.start", rate=rate, metrics=metrics, label_sets=label_sets,
                   seconds=seconds)

    def stop_load(self) -> None:
        self._call("load.stop")

    def start_flood(self, reporters: int, text_bytes: int) -> None:
        """Until `stop_flood`, each reporter records points with a text of this size as fast as the
        bus accepts them, without waiting for replies."""
        self._call("flood.start", reporters=reporters, text_bytes=text_bytes)

    def stop_flood(self) -> None:
        self._call("flood.stop")

    # Events.

    def wait_for(self, kind: Any, **wanted: Any) -> Event:
        """See `EventLog.wait_for`; the kinds of events are listed in `lab.device.events`."""
        return self.event_log.wait_for(kind, **wanted)

    def wait_for_log(self, text: str, *, after: Event | None = None, count: int = 1,
                     deadline: float = DEFAULT_DEADLINE) -> Event:
        """Waits for a line of the daemon's log that contains `text`."""
        return self.wait_for(lambda event: event.kind == "daemon.log" and text in event["text"],
                             after=after, count=count, deadline=deadline, what=f'log "{text}"')

    def wait_for_access_token(self, *, after: Event | None = None) -> Event:
        """Waits until the daemon has an access token and so accepts records."""
        return self.wait_for_log("Successfully fetched access token: 200", after=after)

    def wait_for_status(self, *texts: str, after: Event | None = None) -> Status:
        """Waits until the daemon publishes a status line that contains all the texts."""
        event = self.wait_for(
            lambda one: one.kind == "daemon.notify" and one["text"].startswith(PREFIX) and all(
                text in one["text"] for text in texts), after=after, what=f"status {texts}")
        return parse(event["text"].removeprefix(PREFIX))

    def mark(self) -> Event | None:
        """The latest event, to wait for something `after` it."""
        return self.event_log.last()

    def samples(self, name: str | None = None) -> list[Sample]:
        """The samples of the daemon's own metrics, optionally of one name."""
        samples = [_sample(event) for event in self.event_log.events("statsd.sample")]
        return [sample for sample in samples if name in (None, sample.name)]

    def wait_for_sample(self, name: str, *, count: int = 1,
                        deadline: float = DEFAULT_DEADLINE) -> Sample:
        return _sample(self.wait_for("statsd.sample", name=name, count=count, deadline=deadline))

    def log_lines(self) -> list[str]:
        return self.event_log.log_lines()


def _is_start_or_exit(event: Event) -> bool:
    return event.kind == "daemon.exited" or event.matches(
        "bus.name", {"name": names.DAEMON_SERVICE, "owned": True})


def _sample(event: Event) -> Sample:
    return Sample(event["name"], event["value"], event["text"])
