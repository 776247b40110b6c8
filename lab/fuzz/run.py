"""Runs fuzz targets. A target fails if it crashes or executes nothing.

    python3 -m lab.fuzz.run BUILD_FOLDER [TARGET|all] [SECONDS]

New inputs are kept in BUILD_FOLDER/lab/fuzz/corpus, and inputs that fail in
BUILD_FOLDER/lab/fuzz/crashes. To repeat one:

    BUILD_FOLDER/lab/fuzz/fuzz_TARGET FILE
"""

import concurrent.futures
import os
import pathlib
import re
import subprocess
import sys

from lab.common import results
from lab.common.tree import ROOT

_FUZZ = pathlib.Path(__file__).parent
_DEFAULT_SECONDS = 30
# A hundred times what any input needs. Elapsed time: on a busy machine, a process can wait ten
# seconds for a processor.
_INPUT_TIMEOUT_SECONDS = 60
_MEMORY_LIMIT_MIB = 2048
# Of the output of a failed target.
_SHOWN_LINES = 60


def _targets(build):
    """The command of each target, by its name."""
    programs = {path.name.removeprefix("fuzz_"): [str(path)]
                for path in (build / "lab/fuzz").glob("fuzz_*")}
    generator = [sys.executable, "-B", "-m", "lab.fuzz.generator"]
    return dict(sorted({**programs, "generator": generator}.items()))


def _run(name, command, build, seconds):
    found = build / "lab/fuzz/corpus" / name
    crashes = build / "lab/fuzz/crashes" / name
    seeds = _FUZZ / "corpus" / name
    for folder in (found, crashes):
        folder.mkdir(parents=True, exist_ok=True)
    # A small quarantine of freed memory keeps the process small.
    environment = {**os.environ, "ASAN_OPTIONS": "quarantine_size_mb=16",
                   "PYTHONPATH": str(ROOT / "dbus/generator")}
    if os.access("/dev/shm", os.W_OK):
        # Some targets spend most of their time writing files to disk.
        environment["TMPDIR"] = "/dev/shm"
    done = subprocess.run(
        [*command, f"-max_total_time={seconds}", "-print_final_stats=1",
         # Leaks are checked once, at the end: a check takes longer than an input.
         "-detect_leaks=0", f"-timeout={_INPUT_TIMEOUT_SECONDS}",
         f"-rss_limit_mb={_MEMORY_LIMIT_MIB}", f"-artifact_prefix={crashes}/",
         str(found), str(seeds)],
        env=environment, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
        text=True, errors="replace", check=False)
    return name, done.returncode, done.stdout


def _last(pattern, text):
    found = re.findall(pattern, text)
    return int(found[-1]) if found else 0


def _report(name, status, text):
    """Prints one line for a target, and the end of its output if it failed. Returns the line, and
    whether it passed."""
    executions = _last(r"stat::number_of_executed_units: (\d+)", text)
    rate = _last(r"stat::average_exec_per_sec: +(\d+)", text)
    edges = _last(r"cov: (\d+)", text)
    features = _last(r"ft: (\d+)", text)
    corpus = _last(r"corp: (\d+)", text)
    failed = status != 0 or executions == 0
    line = (f"{name:<14} {executions:>10} executions {rate:>6}/s {edges:>6} edges "
            f"{features:>6} features {corpus:>5} inputs  {'FAILED' if failed else 'no crash'}")
    print(line, flush=True)
    if failed:
        print("\n".join(text.splitlines()[-_SHOWN_LINES:]), flush=True)
    return line, not failed


def main(arguments):
    build = pathlib.Path(arguments[0])
    wanted = arguments[1] if len(arguments) > 1 else "all"
    seconds = int(arguments[2]) if len(arguments) > 2 else _DEFAULT_SECONDS
    targets = _targets(build)
    if wanted != "all" and wanted not in targets:
        print(f"no target '{wanted}'; the targets are {', '.join(targets)}", file=sys.stderr)
        return 2
    chosen = targets if wanted == "all" else {wanted: targets[wanted]}
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        runs = [pool.submit(_run, name, command, build, seconds)
                for name, command in chosen.items()]
        reports = [_report(*run.result()) for run in concurrent.futures.as_completed(runs)]
    passed = all(good for _, good in reports)
    if wanted == "all":
        results.keep("fuzz", f"./dev fuzz all {seconds}", passed,
                     sorted(line for line, _ in reports))
    return 0 if passed else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
