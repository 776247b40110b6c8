"""`./dev matrix [ROW[:SUITE,…]…]`: see `python3 -m lab.matrix --help`."""

import argparse
import fcntl
import signal
import subprocess
import sys
import time
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path

from lab.common.tree import ROOT
from lab.matrix import page
from lab.matrix.results import Result
from lab.matrix.roots import Roots
from lab.matrix.rows import ROWS, Row, SelectionError, select
from lab.matrix.run import RowRun
from lab.matrix.space import Interrupted, Runner
from lab.matrix.table import exit_status, table

FOLDER = ROOT / "build/matrix"


class Busy(Exception):
    """The folder is in use."""


def _arguments(argv: list[str]) -> argparse.Namespace:
    parser = argparse.ArgumentParser(
        prog="./dev matrix", description="Builds and tests the last commit in each environment "
        "that it must work in. Exits with 1 when a row fails, and else with 77 when one cannot be "
        "run here.",
        epilog="rows: " + "; ".join(f"{row.name} ({', '.join(row.suites)})" for row in ROWS))
    parser.add_argument("rows", nargs="*", metavar="ROW[:SUITE,…]",
                        help="a row, with just these of its suites (default: all rows)")
    parser.add_argument("--write", action="store_true",
                        help="run nothing: write the tables of docs/portability.md, from the "
                        "last run of each row")
    return parser.parse_args(argv)


def _report(text: str) -> None:
    print(f"==> {text}", file=sys.stderr, flush=True)


def _git(*arguments: str) -> str:
    return subprocess.run(["git", *arguments], cwd=ROOT, capture_output=True, text=True,
                          check=True).stdout.strip()


@contextmanager
def alone(folder: Path) -> Iterator[None]:
    """Locks the folder: concurrent runs would delete each other's roots and clones."""
    folder.mkdir(parents=True, exist_ok=True)
    with (folder / "lock").open("w") as lock:
        try:
            fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
        except BlockingIOError:
            raise Busy("another ./dev matrix runs in this tree") from None
        yield


def _run(rows: list[Row], runner: Runner) -> list[Result]:
    commit = _git("rev-parse", "--short", "HEAD")
    _report(f"testing the last commit, {commit}")
    if _git("status", "--porcelain"):
        _report("the uncommitted changes of this tree are not tested")
    roots = Roots(FOLDER, runner, _report)
    roots.forget_stale()
    results = []
    for row in rows:
        result = RowRun(row, ROOT, FOLDER, runner, roots, _report).run()
        runner.check()
        results.append(result)
        page.keep(FOLDER, result, commit, time.strftime("%Y-%m-%d", time.gmtime()))
    return results


def main(argv: list[str]) -> int:
    wanted = _arguments(argv)
    if wanted.write:
        page.write(FOLDER)
        return 0
    runner = Runner()
    for number in (signal.SIGINT, signal.SIGTERM):
        signal.signal(number, lambda *_: runner.stop())
    try:
        rows = select(wanted.rows)
        with alone(FOLDER):
            results = _run(rows, runner)
    except (SelectionError, Busy) as error:
        print(f"matrix: {error}", file=sys.stderr)
        return 2
    except Interrupted:
        print("matrix: interrupted", file=sys.stderr)
        return 130
    print(table(results))
    return exit_status(results)


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
