"""Serves the console's page on the loopback address.

    GET  /api/events          changes as server-sent events, beginning with the whole state
    GET  /api/state           the whole state once
    GET  /api/requests/N      a request to the cloud with its answer
    POST /api/controls/NAME   runs a control; its fields are a JSON object

To keep other web sites from controlling the device, requests must name this server as their host,
and as their origin if they have one. Everything runs on one asyncio loop.
"""

import asyncio
import errno
import json
import socket
import threading
from collections.abc import Awaitable, Callable
from pathlib import Path
from typing import Any

from aiohttp import web

from lab.common.errors import LabError
from lab.common.tree import ROOT
from lab.console.controls import Controls
from lab.console.feed import Feed
from lab.console.fields import FieldError

LOOPBACK = "127.0.0.1"
_PAGE = Path(__file__).resolve().parent / "page"
# Events within this many seconds are sent together.
_BATCH = 0.1
# The delay after which a page reconnects.
_RETRY_MILLISECONDS = 1000
# The number of earlier lines that a new page gets.
_FIRST_LINES = 2000
_HEADERS = {
    "Content-Security-Policy": "default-src 'self'; base-uri 'none'; form-action 'none'; "
                               "frame-ancestors 'none'; object-src 'none'",
    "X-Content-Type-Options": "nosniff", "Referrer-Policy": "no-referrer",
    "Cross-Origin-Resource-Policy": "same-origin", "Cache-Control": "no-store"}
_MOST_BODY = 64 * 1024

Handler = Callable[[web.Request], Awaitable[web.StreamResponse]]


class Server:
    """`about` describes the device's surroundings to the page."""

    def __init__(self, feed: Feed, controls: Controls | None, about: dict[str, Any]) -> None:
        self._feed = feed
        self._controls = controls
        self._about = about
        self._allowed: set[str] = set()
        self._streams: set[asyncio.Event] = set()
        self._ending = False

    async def serve(self, listening: socket.socket, ended: asyncio.Event) -> None:
        """Until `ended` is set."""
        port = listening.getsockname()[1]
        self._allowed = {f"{host}:{port}" for host in ("127.0.0.1", "localhost")}
        loop = asyncio.get_running_loop()
        self._feed.listen(lambda _: loop.is_closed() or loop.call_soon_threadsafe(self._wake))
        runner = web.AppRunner(self._app(), access_log=None)
        await runner.setup()
        await web.SockSite(runner, listening, shutdown_timeout=0).start()
        await ended.wait()
        self._ending = True
        self._wake()
        await runner.cleanup()

    def _app(self) -> web.Application:
        app = web.Application(middlewares=[self._guard], client_max_size=_MOST_BODY)
        app.add_routes([
            web.get("/", self._index), web.static("/page", _PAGE),
            web.static("/third_party/uPlot", ROOT / "third_party/uPlot"),
            web.get("/api/events", self._events), web.get("/api/state", self._state),
            web.get(r"/api/requests/{number:\d+}", self._request),
            web.post("/api/controls/{name}", self._press)])
        app.on_response_prepare.append(_add_headers)
        return app

    def _wake(self) -> None:
        for stream in self._streams:
            stream.set()

    @web.middleware
    async def _guard(self, request: web.Request, handler: Handler) -> web.StreamResponse:
        if request.headers.get("Host") not in self._allowed:
            return _error(403, "this server accepts only requests to its loopback address")
        origin = request.headers.get("Origin")
        if origin and origin not in {f"http://{host}" for host in self._allowed}:
            return _error(403, f"requests from {origin} are not allowed")
        try:
            return await handler(request)
        except web.HTTPException as refusal:
            return _error(refusal.status, refusal.reason)

    async def _index(self, _: web.Request) -> web.StreamResponse:
        return web.FileResponse(_PAGE / "index.html")

    async def _state(self, _: web.Request) -> web.StreamResponse:
        return web.json_response(self._first_news({}))

    async def _request(self, request: web.Request) -> web.StreamResponse:
        number = int(request.match_info["number"])
        found = self._feed.request(number)
        return web.json_response(found) if found else _error(404, f"no request {number} is kept")

    async def _press(self, request: web.Request) -> web.StreamResponse:
        if request.content_type != "application/json":
            return _error(415, "the fields must be application/json")
        try:
            given = json.loads(await request.text())
        except ValueError as error:
            return _error(400, f"the fields are not JSON: {error}")
        try:
            if not self._controls:
                raise LabError("there is no device to control")
            await asyncio.to_thread(self._controls.press, request.match_info["name"], given)
        except FieldError as error:
            return _error(400, str(error))
        except LabError as error:
            return _error(409, str(error))
        return web.json_response({"done": True})

    def _first_news(self, places: dict[str, int]) -> dict[str, Any]:
        news = self._feed.news(places) | {"first": True, "about": self._about}
        news["lines"] = news["lines"][-_FIRST_LINES:]
        return news

    async def _events(self, request: web.Request) -> web.StreamResponse:
        response = web.StreamResponse(headers={"Content-Type": "text/event-stream"})
        await response.prepare(request)
        places: dict[str, int] = {}
        stream = asyncio.Event()
        self._streams.add(stream)
        try:
            await response.write(f"retry: {_RETRY_MILLISECONDS}\n".encode())
            news = self._first_news(places)
            while not self._ending:
                await response.write(f"data: {json.dumps(news)}\n\n".encode())
                await asyncio.sleep(_BATCH)
                await stream.wait()
                stream.clear()
                news = self._feed.news(places)
        except ConnectionError:
            pass  # The page was closed.
        finally:
            self._streams.discard(stream)
        return response


async def _add_headers(_: web.Request, response: web.StreamResponse) -> None:
    response.headers.update(_HEADERS)


def _error(status: int, text: str) -> web.Response:
    return web.json_response({"error": text}, status=status)


def listen(port: int) -> socket.socket:
    """On the loopback address; raises a `LabError` with a remedy on failure."""
    listening = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    listening.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    try:
        listening.bind((LOOPBACK, port))
        listening.listen()
    except (OSError, OverflowError) as error:
        listening.close()
        is_taken = isinstance(error, OSError) and error.errno == errno.EADDRINUSE
        reason = "is in use" if is_taken else f"can't be used ({error})"
        raise LabError(f"Port {port} {reason}: choose another with --port") from None
    return listening


class Serving:
    """Runs a server on a dedicated thread from `start` to `close`; owns the socket."""

    def __init__(self, listening: socket.socket) -> None:
        self._listening = listening
        self.address = f"http://{LOOPBACK}:{listening.getsockname()[1]}/"
        self._loop = asyncio.new_event_loop()
        self._ended = asyncio.Event()
        self._thread: threading.Thread | None = None

    def start(self, server: Server) -> None:
        self._thread = threading.Thread(target=self._run, args=(server,), name="page")
        self._thread.start()

    def close(self) -> None:
        if self._thread:
            self._loop.call_soon_threadsafe(self._ended.set)
            self._thread.join()
        else:
            self._loop.close()
        self._listening.close()

    def _run(self, server: Server) -> None:
        with asyncio.Runner(loop_factory=lambda: self._loop) as runner:
            runner.run(server.serve(self._listening, self._ended))
