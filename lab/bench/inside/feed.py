"""Sends points to collectd: `python3 -m lab.bench.inside.feed SOCKET COUNT DEPTH`. Waits for the
answers after each DEPTH points. With a count of 0 it flushes collectd instead."""

import socket
import sys
import time


def main() -> None:
    path, count, depth = sys.argv[1], int(sys.argv[2]), int(sys.argv[3])
    with socket.socket(socket.AF_UNIX) as connection:
        connection.connect(path)
        with connection.makefile("rwb") as lines:
            # A series rejects two points of the same time.
            began = time.time()
            moments = (began + number / 1000 for number in range(count))
            requests = [f'PUTVAL "ap/radio-5g/gauge-radio-0" interval=1 {moment:.3f}:0.25'
                        for moment in moments] or ["FLUSH plugin=write_http/cloud"]
            for first in range(0, len(requests), depth):
                ask(lines, requests[first:first + depth])


def ask(lines: object, requests: list[str]) -> None:
    lines.write("".join(f"{line}\n" for line in requests).encode())
    lines.flush()
    for line in requests:
        answer = lines.readline().decode()
        if not answer.startswith("0 "):
            sys.exit(f"{line}: {answer}")


main()
