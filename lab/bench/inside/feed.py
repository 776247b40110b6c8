"""Sends points to collectd, each after the answer to the previous one:
`python3 -m lab.bench.inside.feed SOCKET COUNT`. With a count of 0 it flushes collectd instead."""

import socket
import sys
import time


def main() -> None:
    path, count = sys.argv[1], int(sys.argv[2])
    with socket.socket(socket.AF_UNIX) as connection:
        connection.connect(path)
        with connection.makefile("rwb") as lines:
            # A series rejects two points of the same time.
            began = time.time()
            for number in range(count):
                moment = began + number / 1000
                ask(lines, f'PUTVAL "ap/radio-5g/gauge-radio-0" interval=1 {moment:.3f}:0.25')
            if not count:
                ask(lines, "FLUSH plugin=write_http/cloud")


def ask(lines: object, line: str) -> None:
    lines.write(line.encode() + b"\n")
    lines.flush()
    answer = lines.readline().decode()
    if not answer.startswith("0 "):
        sys.exit(f"{line}: {answer}")


main()
