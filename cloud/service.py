"""The HTTPS service: the token endpoint and the three methods of the monitoring service.

The daemon decides by the status alone what it keeps, so what fails here fails at the transport: the
connection is closed without a response. A daemon then repeats its points, log or refresh later. Any
error status would make it drop its points, or its credentials. These are answered:

    2xx   everything is stored
    400   the body violates the interface: repeating it is useless
    401   the token is unknown, has expired or belongs to another device: the daemon keeps its
          records and fetches a new token, whereas with 403 it would drop its points
"""

import asyncio
import logging
import os
import resource
import socket
import ssl
from collections.abc import Awaitable, Callable
from dataclasses import dataclass
from urllib.parse import parse_qsl

from aiohttp import web

from cloud import tokens
from cloud.contract import METHODS, MalformedBody, parsed
from cloud.database import Database
from cloud.delivery import Deliveries
from cloud.forwarder import Forwarder
from cloud.ledger import Batch, Ledger, Log, StoreUnavailable
from cloud.points import points_of

BASE_PATH = "/v1/devices"
TOKEN_PATH = "/token"
# A daemon waits for 10 seconds, and the answer has to reach it.
_MOST_SECONDS = 8
# A daemon keeps an unused connection for 118 seconds.
_KEEP_ALIVE_SECONDS = 150
_MOST_BODY_BYTES = 64 * 1024 * 1024
# A device may still have the token of another provider, of any length.
_MOST_HEADER_BYTES = 64 * 1024
_LOG = logging.getLogger(__name__)

Handler = Callable[[web.Request], Awaitable[web.StreamResponse]]


@dataclass(frozen=True)
class Settings:
    # The folder of PostgreSQL's socket, and the URL of VictoriaMetrics.
    database: str
    metrics_url: str
    listener: socket.socket
    context: ssl.SSLContext
    # Of an access token, in seconds.
    token_lifetime: int


class Service:
    def __init__(self, database: Database, settings: Settings) -> None:
        self._database = database
        self._lifetime = settings.token_lifetime
        self._tokens = tokens.AccessTokens(database)
        self._ledger = Ledger(database)
        self._deliveries = Deliveries(database)
        self._forwarder = Forwarder(database, settings.metrics_url)

    def app(self) -> web.Application:
        app = web.Application(client_max_size=_MOST_BODY_BYTES, middlewares=[_fail_at_transport])
        methods = "|".join(METHODS)
        app.add_routes([
            web.post(TOKEN_PATH, self._token),
            web.post(f"{BASE_PATH}/{{device}}/{{method:{methods}}}", self._record),
            # A daemon without a device id.
            web.post(f"{BASE_PATH}/{{method:{methods}}}", self._record)])
        app.cleanup_ctx.append(self._background)
        return app

    async def _background(self, _: web.Application):
        tasks = [asyncio.create_task(part.run())
                 for part in (self._ledger, self._deliveries, self._forwarder)]
        for task in tasks:
            task.add_done_callback(_end_with)
        yield
        for task in tasks:
            task.cancel()
        await asyncio.gather(*tasks, return_exceptions=True)
        await self._deliveries.save()

    async def _token(self, request: web.Request) -> web.StreamResponse:
        try:
            form = dict(parse_qsl((await request.read()).decode(), keep_blank_values=True))
        except UnicodeDecodeError as error:
            return web.json_response({
                "error": "invalid_request",
                "error_description": f"the body is not UTF-8 at byte {error.start}"}, status=400)
        async with self._database.transaction() as connection:
            status, body = await tokens.answer(connection, form, self._lifetime)
        if status >= 400:
            _LOG.warning("token request rejected: %s", body.get("error"))
        return web.json_response(body, status=status, headers={"Cache-Control": "no-store"})

    async def _record(self, request: web.Request) -> web.StreamResponse:
        device = await self._tokens.device_of(request.headers.get("Authorization", ""))
        if device is None or device != request.match_info.get("device"):
            return web.json_response({"error": "invalid_token"}, status=401,
                                     headers={"WWW-Authenticate": "Bearer"})
        method = request.match_info["method"]
        text = await request.read()
        try:
            body = parsed(method, text)
        except MalformedBody as error:
            _LOG.warning("%s: %s rejected: %s", device, method, error)
            return web.json_response({"error": str(error)}, status=400)
        if method == METHODS[0]:
            await self._ledger.put(Batch(device, points_of(device, body)))
            return web.json_response({})
        return await self._record_log(request, Log.of(device, method, body, text))

    async def _record_log(self, request: web.Request, log: Log) -> web.StreamResponse:
        log.before = await self._deliveries.row_before(log)
        await self._ledger.put(log)
        response = web.json_response({})
        await response.prepare(request)
        await response.write_eof()
        self._deliveries.note(log, request.transport)
        return response


def _end_with(task: asyncio.Task) -> None:
    """Without one of its parts the service ends at once, and is replaced: devices repeat what was
    not answered."""
    if not task.cancelled():
        _LOG.critical("a part has failed: %r", task.exception())
        os._exit(1)


@web.middleware
async def _fail_at_transport(request: web.Request, handler: Handler) -> web.StreamResponse:
    try:
        async with asyncio.timeout(_MOST_SECONDS):
            return await handler(request)
    except web.HTTPException as answer:
        return web.json_response({"error": answer.reason}, status=answer.status)
    except StoreUnavailable as error:
        _LOG.warning("not answered: %s", error)
    except Exception as error:  # Also a fault of ours must not make devices drop records.
        _LOG.error("not answered: %s: %s", type(error).__name__, error)
    if request.transport:
        request.transport.abort()
    return web.Response()


def _hide_request(record: logging.LogRecord) -> bool:
    """aiohttp quotes a malformed request, which can have a token."""
    if record.exc_info and record.exc_info[0]:
        record.msg += f": {record.exc_info[0].__name__}"
        record.exc_info = None
    return True


async def _serve(settings: Settings, ended: asyncio.Event) -> None:
    database = Database(settings.database)
    runner = web.AppRunner(Service(database, settings).app(), access_log=None,
                           keepalive_timeout=_KEEP_ALIVE_SECONDS,
                           max_field_size=_MOST_HEADER_BYTES)
    await runner.setup()
    await web.SockSite(runner, settings.listener, ssl_context=settings.context).start()
    await ended.wait()
    await runner.cleanup()
    database.close()


def run(settings: Settings, signals: list[int]) -> None:
    """Until one of these signals."""
    async def serve() -> None:
        ended = asyncio.Event()
        for one in signals:
            asyncio.get_running_loop().add_signal_handler(one, ended.set)
        await _serve(settings, ended)

    # A descriptor for each device.
    _, most = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (most, most))
    # At its debug level it logs tokens.
    logging.getLogger("authlib").setLevel(logging.WARNING)
    logging.getLogger("aiohttp.server").addFilter(_hide_request)
    asyncio.run(serve())
