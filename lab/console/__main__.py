"""Runs a device and shows it on a web page until Ctrl-C.

    python3 -m lab.console [--port 8088] [--log] [--provisioned] [--cloud URL …]
"""

import argparse
import os
import signal
import sys
import threading
import time
from pathlib import Path
from typing import Any

from cloud.process import Cloud, CloudFailed
from lab.common.errors import LabError
from lab.common.names import Host
from lab.console.console import DEFAULT_INTERVAL, DEFAULT_PORT, Console
from lab.device.external import ExternalCloud, of_the_reference

REFERENCE = "reference"
# Of the simulated Larder.
DEVICE_ID = "device-0001"
_SEVERITIES = {"info": " ", "warning": "!", "error": "✗"}


def plain_line(line: dict[str, Any]) -> str:
    at = time.strftime("%H:%M:%S", time.localtime(line["at"]))
    milliseconds = int(line["at"] * 1000) % 1000
    return (f"{at}.{milliseconds:03d} {_SEVERITIES[line['severity']]} {line['category']:<7} "
            f"{line['text']}")


def _say(text: str) -> None:
    """In one piece, because the feed prints on its own thread."""
    print(f"{text}\n", end="", flush=True)


def _print(lines: list[dict[str, Any]]) -> None:
    try:
        for line in lines:
            _say(plain_line(line))
    except BrokenPipeError:
        # The reader has closed the pipe: discard further output, and end.
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        signal.pthread_kill(threading.main_thread().ident or 0, signal.SIGTERM)


def _print_addresses(console: Console, reference: Cloud | None) -> None:
    text = f"""\
The device is up.
  Page:       {console.address}
  Reporters:  export DBUS_SYSTEM_BUS_ADDRESS={console.bus_address}
"""
    if reference:
        text += f"""\
  Points:     {reference.query_url}
  Cloud:      {reference.service_url}
  Data:       {reference.data}
  Code:       ./dev cloud provision {DEVICE_ID} --data {reference.data}
"""
    _say(f"{text}Ctrl-C ends it.")


def _arguments(argv: list[str]) -> argparse.Namespace:
    parser = argparse.ArgumentParser(prog="./dev lab", description="Runs a device in a "
                                     "sandbox and shows it on a web page until Ctrl-C.")
    parser.add_argument("--port", type=int, default=DEFAULT_PORT,
                        help=f"of the page on the loopback address (default: {DEFAULT_PORT})")
    parser.add_argument("--log", action="store_true",
                        help="also print the timeline as plain text")
    parser.add_argument("--provisioned", action="store_true",
                        help="start with credentials")
    parser.add_argument("--interval", type=int, default=DEFAULT_INTERVAL, metavar="SECONDS",
                        help=f"the upload interval (default: {DEFAULT_INTERVAL})")
    cloud = parser.add_argument_group("a real cloud, in place of the simulated one")
    cloud.add_argument("--cloud", metavar="URL", help=f"base URL of the service, PELMOR_URL; or "
                       f"'{REFERENCE}', which also starts the cloud of this tree")
    cloud.add_argument("--token-url", metavar="URL", help="the token endpoint")
    cloud.add_argument("--ca", metavar="FILE", type=Path, help="the device's CA bundle")
    cloud.add_argument("--client-id", metavar="ID", help="PELMOR_CLIENT_ID")
    cloud.add_argument("--client-secret-file", metavar="FILE", type=Path,
                       help="has PELMOR_CLIENT_SECRET")
    cloud.add_argument("--scope", default="", help="PELMOR_SCOPE")
    parser.add_argument("--daemon", help="the daemon's binary (default: the release build's)")
    wanted = parser.parse_args(argv)
    is_complete = all((wanted.token_url, wanted.ca, wanted.client_id, wanted.client_secret_file))
    if wanted.cloud not in (None, REFERENCE):
        if not is_complete:
            parser.error("--cloud needs --token-url, --ca, --client-id and --client-secret-file")
        if wanted.provisioned:
            parser.error("a code of this cloud provisions the device: deliver it on the page")
    return wanted


def _read(path: Path) -> str:
    try:
        return path.read_text()
    except (OSError, UnicodeDecodeError) as error:
        raise LabError(f"cannot read {path}: {error}") from None


def _external(wanted: argparse.Namespace, reference: Cloud | None) -> ExternalCloud | None:
    if reference:
        return of_the_reference(reference)
    if not wanted.cloud:
        return None
    return ExternalCloud(wanted.cloud, wanted.token_url, _read(wanted.ca), wanted.client_id,
                         _read(wanted.client_secret_file).strip(), wanted.scope)


def _run(wanted: argparse.Namespace, reference: Cloud | None) -> None:
    with Console(wanted.daemon, port=wanted.port, interval=wanted.interval,
                 provisioned=wanted.provisioned and not reference,
                 listener=_print if wanted.log else None,
                 cloud=_external(wanted, reference)) as console:
        if reference and wanted.provisioned:
            console.deliver(reference.provision(DEVICE_ID))
        _print_addresses(console, reference)
        threading.Event().wait()


def _end(*_: object) -> None:
    raise KeyboardInterrupt


def main(argv: list[str]) -> int:
    wanted = _arguments(argv)
    signal.signal(signal.SIGTERM, _end)
    try:
        if wanted.cloud == REFERENCE:
            with Cloud("--name", Host.IDENTITY) as reference:
                _run(wanted, reference)
        _run(wanted, None)
    except KeyboardInterrupt:
        print()
        return 0
    except (LabError, CloudFailed) as error:
        print(f"lab: {error}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
