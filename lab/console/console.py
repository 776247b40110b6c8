"""A device that stays up, with its page: what `./dev lab` and the tests run."""

import asyncio
import errno
import socket
import tempfile
import threading
from contextlib import ExitStack
from pathlib import Path

from lab import names
from lab.console.controls import Controls
from lab.console.feed import Feed
from lab.console.server import Server
from lab.device import Device
from lab.errors import LabError

LOOPBACK = "127.0.0.1"
DEFAULT_PORT = 8088
DEFAULT_INTERVAL = 5
# The events that the device's story keeps: no session is so long that it fills the memory.
MOST_EVENTS = 20_000


class Console:
    """A context manager; its page is served by a thread of its own."""

    def __init__(self, daemon: str | None = None, *, port: int = DEFAULT_PORT,
                 interval: int = DEFAULT_INTERVAL, provisioned: bool = False) -> None:
        """Port 0 is some free one. A device that is not `provisioned` has no credentials yet."""
        self._daemon = daemon
        self._wanted_port = port
        self._interval = interval
        self._provisioned = provisioned
        self._open = ExitStack()
        self._loop: asyncio.AbstractEventLoop
        self._ended = asyncio.Event()
        self._page: threading.Thread | None = None

    def __enter__(self) -> "Console":
        with self._open:
            # First what fails at once.
            self._listening = self._open.enter_context(_listen(self._wanted_port))
            folder = self._open.enter_context(tempfile.TemporaryDirectory(prefix="pelmor-lab-"))
            self.device = Device(self._daemon, shared_folder=Path(folder))
            # What the console lets people do is not the daemon's to answer for.
            self.device.cloud.takes_anything = True
            self.device.story.remember(MOST_EVENTS)
            self.feed = Feed(self.device.story, self._interval)
            self._open.callback(self.feed.close)
            self.bus_address = f"unix:path={folder}/{names.HOST_BUS}"
            self.address = f"http://{LOOPBACK}:{self._listening.getsockname()[1]}/"
            # Ends after the device, whose end cuts short what a control still waits for.
            self._open.callback(self._end_page)
            self._open.enter_context(self.device)
            self._start_device()
            self._serve()
            self._open = self._open.pop_all()
        return self

    def __exit__(self, *_: object) -> None:
        self._open.close()

    def _start_device(self) -> None:
        self.device.configure(upload_interval_in_seconds=str(self._interval))
        if self._provisioned:
            self.device.provision()
        self.device.watch_bus()
        self.device.start_daemon()

    def _serve(self) -> None:
        server = Server(self.feed, Controls(self.device, self.feed), {"bus": self.bus_address})
        self._loop = asyncio.new_event_loop()

        def run() -> None:
            with asyncio.Runner(loop_factory=lambda: self._loop) as runner:
                runner.run(server.serve(self._listening, self._ended))

        self._page = threading.Thread(target=run, name="page")
        self._page.start()

    def _end_page(self) -> None:
        if self._page:
            self._loop.call_soon_threadsafe(self._ended.set)
            self._page.join()


def _listen(port: int) -> socket.socket:
    listening = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    listening.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    try:
        listening.bind((LOOPBACK, port))
        listening.listen()
    except OSError as error:
        listening.close()
        if error.errno == errno.EADDRINUSE:
            raise LabError(f"Port {port} is taken: choose another with --port") from None
        raise LabError(f"Port {port}: {error.strerror}: choose another with --port") from None
    return listening
