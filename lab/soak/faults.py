"""The injected faults, and how each is undone."""

import signal
from collections.abc import Callable
from dataclasses import dataclass

from lab.common.names import Endpoint, Host
from lab.device.device import Device

_IDENTITY = (Endpoint.REFRESH, Endpoint.EXCHANGE)
_CREDENTIALS = "/org/quintara/Larder/commands/credentials"
# A flood: the number of reporters, and the text in each of their points.
_FLOODERS = 4
_FLOOD_TEXT_BYTES = 2600
_RECORDS = (Endpoint.METRICS, Endpoint.STRUCTURED_LOGS, Endpoint.OFFLINE_LOGS)


@dataclass(frozen=True)
class Fault:
    name: str
    happen: Callable[[Device], None]
    undo: Callable[[Device], None]


def _behave(device: Device) -> None:
    device.cloud.behave()
    device.larder.behave()
    device.clock.behave()


def _cloud(name: str, *, to: tuple[Endpoint, ...] = _RECORDS, **answer: object) -> Fault:
    def happen(device: Device) -> None:
        for endpoint in to:
            device.cloud.answer(endpoint, **answer)

    return Fault(name, happen, _behave)


def _each(name: str, do: Callable[[Device, Endpoint], None],
          to: tuple[Endpoint, ...] = _RECORDS) -> Fault:
    def happen(device: Device) -> None:
        for endpoint in to:
            do(device, endpoint)

    return Fault(name, happen, _behave)


def _expire(device: Device) -> None:
    device.cloud.answer(Endpoint.METRICS, status=401, times=1)


def _break_certificate(device: Device) -> None:
    device.cloud.refuse_tls(Host.MONITORING)


def _new_credentials(device: Device) -> None:
    before = device.mark()
    device.larder.add_credentials_command(_CREDENTIALS)
    # No record is kept during the exchange.
    device.wait_for_log("Successfully fetched refresh token: 200", after=before)


def _foreign_commands(device: Device) -> None:
    for number in range(100):
        path = f"/org/quintara/Larder/commands/foreign_{device.event_log.last().number}_{number}"
        device.larder.add_command(path, "_vendor._reboot")
        device.larder.remove_command(path)


def _nothing(_: Device) -> None:
    pass


FAULTS = (
    _cloud("the service answers 503", status=503),
    _each("the service cuts each connection",
          lambda device, endpoint: device.cloud.cut_connection(endpoint)),
    _each("the service sends garbage",
          lambda device, endpoint: device.cloud.send_garbage(endpoint)),
    _cloud("the service is slow", delay=3.0),
    _each("the service never answers",
          lambda device, endpoint: device.cloud.never_answer(endpoint)),
    _cloud("the service answers a megabyte", body="x" * 1_000_000),
    Fault("the access token expires", _expire, _behave),
    Fault("the service's certificate is not trusted", _break_certificate,
          lambda device: device.cloud.trust_tls(Host.MONITORING)),
    Fault("the service is down", lambda device: device.cloud.go_away(Host.MONITORING),
          lambda device: device.cloud.come_back(Host.MONITORING)),
    Fault("the identity provider is down and the token expires",
          lambda device: (device.cloud.go_away(Host.IDENTITY), _expire(device)),
          lambda device: (device.cloud.come_back(Host.IDENTITY), _behave(device))),
    Fault("Larder is stopped", lambda device: device.larder.stop(),
          lambda device: device.larder.start()),
    Fault("Larder rejects calls", lambda device: device.larder.refuse("CheckDeviceRegistered"),
          _behave),
    Fault("Larder is slow", lambda device: device.larder.delay("CheckDeviceRegistered", 0.5),
          _behave),
    Fault("tlsdate is stopped", lambda device: device.clock.stop(),
          lambda device: device.clock.start()),
    Fault("the cloud sends new credentials", _new_credentials,
          lambda device: device.larder.remove_command(_CREDENTIALS)),
    Fault("a hundred commands for other programs", _foreign_commands, _nothing),
    Fault("reporters flood the daemon",
          lambda device: device.start_flood(_FLOODERS, _FLOOD_TEXT_BYTES),
          lambda device: device.stop_flood()),
    Fault("the daemon is stopped and continued",
          lambda device: device.signal_daemon(signal.SIGSTOP),
          lambda device: device.signal_daemon(signal.SIGCONT)),
)
