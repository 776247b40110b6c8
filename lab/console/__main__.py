"""Runs a device and shows it on a web page until Ctrl-C.

    python3 -m lab.console [--port 8088] [--log] [--provisioned]
"""

import argparse
import os
import signal
import sys
import threading
import time
from typing import Any

from lab.common.errors import LabError
from lab.console.console import DEFAULT_INTERVAL, DEFAULT_PORT, Console

_SEVERITIES = {"info": " ", "warning": "!", "error": "✗"}


def plain_line(line: dict[str, Any]) -> str:
    at = time.strftime("%H:%M:%S", time.localtime(line["at"]))
    milliseconds = int(line["at"] * 1000) % 1000
    return (f"{at}.{milliseconds:03d} {_SEVERITIES[line['severity']]} {line['category']:<7} "
            f"{line['text']}")


def _print(lines: list[dict[str, Any]]) -> None:
    try:
        for line in lines:
            print(plain_line(line), flush=True)
    except BrokenPipeError:
        # The reader has closed the pipe: discard further output, and end.
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        signal.pthread_kill(threading.main_thread().ident or 0, signal.SIGTERM)


def _print_addresses(console: Console) -> None:
    print(f"""\
The device is up.
  Page:       {console.address}
  Reporters:  export DBUS_SYSTEM_BUS_ADDRESS={console.bus_address}
Ctrl-C ends it.""", flush=True)


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
    parser.add_argument("--daemon", help="the daemon's binary (default: the release build's)")
    return parser.parse_args(argv)


def _end(*_: object) -> None:
    raise KeyboardInterrupt


def main(argv: list[str]) -> int:
    wanted = _arguments(argv)
    signal.signal(signal.SIGTERM, _end)
    try:
        with Console(wanted.daemon, port=wanted.port, interval=wanted.interval,
                     provisioned=wanted.provisioned,
                     listener=_print if wanted.log else None) as console:
            _print_addresses(console)
            threading.Event().wait()
    except KeyboardInterrupt:
        print()
        return 0
    except LabError as error:
        print(f"lab: {error}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
