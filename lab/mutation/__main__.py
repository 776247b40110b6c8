"""python3 -m lab.mutation [--count N] [FILE…]: exits with 0 when every mutant that survives is
explained."""

import argparse
import queue
import random
import subprocess
import sys
import threading
from collections import Counter
from pathlib import Path

from lab.common import results
from lab.common.tree import ROOT
from lab.mutation.mutants import Mutant, mutants
from lab.mutation.workshop import Fate, Workshop

# Equivalent mutants, one per line as printed, with the reason after " # ".
_EXPLAINED = Path(__file__).with_name("explained.txt")


def sources() -> list[str]:
    listed = subprocess.run(["git", "ls-files", "ap/*.cc"], cwd=ROOT, capture_output=True,
                            text=True, check=True)
    return [name for name in listed.stdout.splitlines()
            if not name.endswith("_test.cc") and "/testing/" not in name]


def explained() -> set[str]:
    """Without the line's number, which any change above moves."""
    lines = _EXPLAINED.read_text().splitlines()
    return {line.partition(" # ")[0] for line in lines if line and not line.startswith("#")}


def without_number(mutant: Mutant) -> str:
    _, _, change = str(mutant).partition(": ")
    return f"{mutant.path}: {change}"


class Run:
    """Tries the mutants in several workshops at once."""

    def __init__(self, chosen: list[Mutant], jobs: int) -> None:
        self._left: queue.SimpleQueue[Mutant] = queue.SimpleQueue()
        for mutant in chosen:
            self._left.put(mutant)
        self._count = len(chosen)
        self._jobs = jobs
        self._lock = threading.Lock()
        self.fates: dict[Mutant, Fate] = {}

    def go(self) -> None:
        threads = [threading.Thread(target=self._work, args=(number,))
                   for number in range(self._jobs)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        if len(self.fates) < self._count:
            raise SystemExit("A workshop failed: see above")

    def _work(self, number: int) -> None:
        workshop = Workshop(ROOT, ROOT / f"build/mutation/{number}")
        while True:
            try:
                mutant = self._left.get_nowait()
            except queue.Empty:
                return
            fate = workshop.try_out(mutant)
            with self._lock:
                self.fates[mutant] = fate
                print(f"{len(self.fates)}/{self._count}  {fate.value}: {mutant}", flush=True)


def judge(fates: dict[Mutant, Fate]) -> tuple[bool, list[str]]:
    """Whether every mutant that survived is explained; and the report."""
    count = Counter(fates.values())
    killed = count[Fate.UNIT] + count[Fate.MODEL] + count[Fate.DEVICE]
    known = explained()
    survivors = [mutant for mutant, fate in fates.items()
                 if fate in (Fate.SURVIVED, Fate.UNDECIDED)]
    unexplained = [one for one in survivors if without_number(one) not in known]
    alive = killed + len(survivors)
    share = f", {100 * killed / alive:.1f} %" if alive else ""
    lines = [*(f"{count[fate]:5}  {fate.value}" for fate in Fate),
             *(f"unexplained: {mutant}" for mutant in unexplained),
             f"score: {killed} of {alive} killed{share}; "
             f"{len(survivors) - len(unexplained)} survivors explained"]
    return not unexplained, lines


def main() -> int:
    parser = argparse.ArgumentParser(prog="./dev mutants", description=__doc__)
    parser.add_argument("--count", type=int, help="try so many, drawn by chance; all by default")
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--jobs", type=int, default=2)
    parser.add_argument("files", nargs="*", default=sources())
    arguments = parser.parse_args()
    chosen = [mutant for name in arguments.files
              for mutant in mutants(name, (ROOT / name).read_text())]
    random.Random(arguments.seed).shuffle(chosen)
    run = Run(chosen[:arguments.count], arguments.jobs)
    run.go()
    passed, lines = judge(run.fates)
    print("\n".join(lines))
    results.keep("mutants", " ".join(["./dev mutants", *sys.argv[1:]]), passed, lines)
    return 0 if passed else 1


if __name__ == "__main__":
    raise SystemExit(main())
