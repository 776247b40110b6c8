"""Runs Google Benchmark and reads its report."""

import json
import subprocess
from pathlib import Path


def run(program: Path, pattern: str, repetitions: int) -> dict[str, tuple[float, ...]]:
    """The microseconds of CPU of each repetition, by benchmark."""
    process = subprocess.run(
        [program, f"--benchmark_filter={pattern}", f"--benchmark_repetitions={repetitions}",
         "--benchmark_enable_random_interleaving=true", "--benchmark_format=json"],
        capture_output=True, text=True, check=True)
    return times(process.stdout)


def times(report: str) -> dict[str, tuple[float, ...]]:
    found: dict[str, tuple[float, ...]] = {}
    for one in json.loads(report)["benchmarks"]:
        if one["run_type"] == "iteration":
            microseconds = one["cpu_time"] * {"ns": 1e-3, "us": 1.0, "ms": 1e3}[one["time_unit"]]
            found[one["run_name"]] = (*found.get(one["run_name"], ()), microseconds)
    return found
