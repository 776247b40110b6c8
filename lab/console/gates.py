"""What prevents uploads: the first closed gate, with the control that opens it."""

from collections.abc import Callable
from typing import Any

from lab.common.names import Endpoint

Picture = dict[str, Any]
Step = dict[str, Any]

_SERVICES = {"identity": "identity provider", "monitoring": "monitoring service"}
_UPLOADS = {Endpoint.METRICS: "points", Endpoint.STRUCTURED_LOGS: "structured logs",
            Endpoint.OFFLINE_LOGS: "offline logs"}


def next_step(picture: Picture) -> Step | None:
    """None if records are uploaded, or if the daemon waits for an answer."""
    return next((step for find in CONDITIONS.values() if (step := find(picture))), None)


def _step(text: str, press: str = "", control: str = "", **arguments: Any) -> Step:
    """Without `press` if only waiting helps."""
    return {"text": text, "press": press, "control": control, "arguments": arguments}


def _start(text: str, program: str, name: str) -> Step:
    return _step(text, f"Start {name}", "program", program=program, action="start")


def _bus(picture: Picture) -> Step | None:
    if picture["up"]["bus"]:
        return None
    return _start("The system bus is down.", "bus", "the bus")


def _service(picture: Picture) -> Step | None:
    if picture["up"]["daemon"]:
        return None
    return _start("The daemon is not running.", "daemon", "the daemon")


def _provisioned(picture: Picture) -> Step | None:
    if picture["provisioned"] is not False or picture["token"] == "requested":
        return None
    if not picture["up"]["larder"]:
        return _start("The device has no credentials, and Larder, which delivers the cloud’s code, "
                      "is not on the bus.", "larder", "Larder")
    return _host(picture, "identity", Endpoint.EXCHANGE) or _step(
        "The device has no credentials yet.", "Deliver a code", "deliver_code",
        code="one-time-code")


def _registration(picture: Picture) -> Step | None:
    if not picture["up"]["larder"]:
        return _start("Larder is not on the bus: each cycle ends, because the registration is "
                      "unknown.", "larder", "Larder")
    if not picture["registered"]:
        return _step("The device is not registered with the cloud: each cycle ends.",
                     "Register the device", "register", device_id="device-0001")
    return None


def _token_endpoint(picture: Picture) -> Step | None:
    if picture["token"] == "held" or not picture["provisioned"]:
        return None
    return _host(picture, "identity", Endpoint.REFRESH)


def _access_token(picture: Picture) -> Step | None:
    if picture["token"] in ("held", "requested") or not picture["provisioned"]:
        return None
    return _step("The daemon has no access token. It requests one at a report or a cycle, at most "
                 "once in 30 seconds.")


def _clock(picture: Picture) -> Step | None:
    if picture["clock"]["known"]:
        return None
    if not picture["up"]["tlsdate"]:
        return _start("tlsdate is not on the bus: records are dropped, because the daemon does not "
                      "know the network time.", "tlsdate", "tlsdate")
    if picture["clock"]["source"] != "network":
        return _step("The clock is not set from the network: records are dropped.",
                     "Set the clock", "clock", source="network")
    return None


def _monitoring_service(picture: Picture) -> Step | None:
    return _host(picture, "monitoring", *_UPLOADS)


def _uploads(picture: Picture) -> Step | None:
    result = picture["results"]["metrics"]
    if not result["failed"]:
        return None
    return _step(f"The last request with points was not accepted: {result['text']}.",
                 "Reset all answers", "behave", endpoint="all")


def _records(picture: Picture) -> Step | None:
    counts = picture["counts"]
    if picture["token"] != "held" or counts["recorded"] or counts["logs"]:
        return None
    return _step("Everything works, but nothing is recorded yet.", "Start a load", "load",
                 rate=4, metrics="ap/clients, ap/radio/utilization", labels="band=2g,5g",
                 seconds=120)


def _host(picture: Picture, host: str, *endpoints: Endpoint) -> Step | None:
    """What prevents an acceptable answer of a service."""
    name = _SERVICES[host]
    if not picture["up"][host]:
        return _start(f"The {name} is down.", host, f"the {name}")
    if picture["certificates"][host] != "trusted":
        return _step(f"The daemon rejects the certificate of the {name}.",
                     "Show a trusted certificate", "certificate", host=host, kind="trusted")
    bad = next((endpoint for endpoint in endpoints if endpoint in picture["faults"]), None)
    if not bad:
        return None
    what = _UPLOADS.get(bad, "requests for a token")
    return _step(f"The {name} does not accept {what}: its answer is set to "
                 f"“{picture['answers'][bad]}”.", "Reset the answer", "behave", endpoint=bad)


# In the order in which a record meets them, by their names in `pelmorctl doctor`.
CONDITIONS: dict[str, Callable[[Picture], Step | None]] = {
    "bus": _bus, "service": _service, "provisioned": _provisioned, "registration": _registration,
    "token-endpoint": _token_endpoint, "access-token": _access_token, "clock": _clock,
    "monitoring-service": _monitoring_service, "uploads": _uploads, "records": _records}
