#!/usr/bin/python3
"""Records a metric, a structured and an offline log from Python, through libpelmor.

The records are sent without waiting for replies: flush waits once for all of them. With asyncio,
use pelmor.AsyncClient.
"""

import errno
import sys

try:
    import pelmor
except (ModuleNotFoundError, OSError) as missing:
    sys.exit(f"report.py: {missing}: install the package pelmor of client/python for "
             f"{sys.executable}, and the Debian package libpelmor0")

TYPE = "type.example/ap.Example"


def main() -> None:
    with pelmor.Client() as client:
        client.record("example/utilization", 0.25,
                      {"band": "5g", "language": "python-libpelmor"})
        client.record_structured_data(TYPE, b"structured from python-libpelmor")
        client.record_offline_data(TYPE, b"offline from python-libpelmor")
        client.flush()
    print("Recorded")


if __name__ == "__main__":
    try:
        main()
    except pelmor.Error as error:
        if error.errno == errno.ESRCH:
            sys.exit(f"report.py: the telemetry daemon is not running: {error.strerror}")
        sys.exit(f"report.py: {error.strerror}")
