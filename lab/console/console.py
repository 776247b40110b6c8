"""A device with its web page, for `./dev lab` and the tests."""

import tempfile
from contextlib import ExitStack
from pathlib import Path

from lab.common import names
from lab.console.controls import Controls
from lab.console.feed import Feed, Listener
from lab.console.server import Server, Serving, listen
from lab.device.device import Device
from lab.device.external import ExternalCloud

DEFAULT_PORT = 8088
DEFAULT_INTERVAL = 5
# Limits the memory of the event log.
_MOST_EVENTS = 20_000


class Console:
    """A context manager; a dedicated thread serves its page."""

    def __init__(self, daemon: str | None = None, *, port: int = DEFAULT_PORT,
                 interval: int = DEFAULT_INTERVAL, provisioned: bool = False,
                 listener: Listener | None = None, cloud: ExternalCloud | None = None) -> None:
        """Port 0 chooses a free port. A device that is not `provisioned` has no credentials.
        `listener` gets each line of the timeline, on the feed's thread. `cloud` is a real one in
        place of the simulated one."""
        self._daemon = daemon
        self._port = port
        self._interval = interval
        self._provisioned = provisioned
        self._listener = listener
        self._cloud = cloud
        self._open = ExitStack()

    def __enter__(self) -> "Console":
        with ExitStack() as stack:
            # First, because it can fail at once. It closes after the device, whose end aborts the
            # controls that still wait.
            serving = Serving(listen(self._port))
            stack.callback(serving.close)
            folder = stack.enter_context(tempfile.TemporaryDirectory(prefix="pelmor-lab-"))
            self.address = serving.address
            self.bus_address = f"unix:path={folder}/{names.HOST_BUS}"
            self._make_device(Path(folder))
            stack.callback(self.feed.close)
            stack.enter_context(self.device)
            self._start_daemon()
            self._controls = Controls(self.device, self.feed)
            serving.start(Server(self.feed, self._controls,
                                 {"bus": self.bus_address}))
            self._open = stack.pop_all()
        return self

    def __exit__(self, *_: object) -> None:
        self._open.close()

    def deliver(self, code: str) -> None:
        """Provisions the device with an authorization code."""
        self._controls.press("deliver_code", {"code": code})

    def _make_device(self, shared_folder: Path) -> None:
        self.device = Device(self._daemon, shared_folder=shared_folder, cloud=self._cloud)
        # Users of the console may send requests that violate the documented interface.
        self.device.cloud.takes_anything = True
        self.device.event_log.remember(_MOST_EVENTS)
        self.feed = Feed(self.device.event_log, self._interval)
        if self._listener:
            self.feed.listen(self._listener)

    def _start_daemon(self) -> None:
        self.device.configure(upload_interval_in_seconds=str(self._interval))
        if self._provisioned:
            self.device.provision()
        self.device.watch_bus()
        self.device.start_daemon()
