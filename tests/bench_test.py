"""The arithmetic of the benchmark."""

import json
import os
import subprocess
from pathlib import Path

import pytest

from lab.bench import built, micro, parse, plan, testbed
from lab.bench.figures import Figure, Goal, Verdict, number, table
from lab.common.tree import ROOT
from lab.device import system_bus
from lab.device.device import Run
from lab.device.system_bus import SystemBus


# The output of the kernel and of tools.

@pytest.mark.parametrize(("schedstats", "cpu", "runs"), [
    ("1500000 200 7\n", 1500.0, 7),
    ("0 0 0\n", 0.0, 0),
    ("1000 5 1\n2000 5 2\n500 5 4\n", 3.5, 7),
])
def test_the_cpu_time_of_all_threads_is_summed(schedstats: str, cpu: float, runs: int) -> None:
    assert parse.cpu_microseconds(schedstats) == cpu
    assert parse.times_run(schedstats) == runs


@pytest.mark.parametrize(("read", "text"), [
    (parse.cpu_microseconds, ""), (parse.times_run, ""), (parse.memory_kilobytes, ""),
    (parse.peak_kilobytes, ""), (parse.instructions, "fn=main\n1 2\n"),
    (parse.heap_kilobytes, "2001 points\n"), (parse.heap_mapping_kilobytes, "")])
def test_missing_output_is_an_error_and_not_a_zero(read: object, text: str) -> None:
    with pytest.raises(ValueError):
        read(text)


def test_this_process_is_read_from_proc() -> None:
    schedstat = Path("/proc/self/schedstat").read_text()
    assert parse.cpu_microseconds(schedstat) == int(schedstat.split()[0]) / 1000
    memory = parse.memory_kilobytes(Path("/proc/self/smaps_rollup").read_text())
    assert memory["Rss"] >= memory["Private_Dirty"] > 0


def test_memory_sizes_are_read_by_name() -> None:
    rollup = ("55d0c000-7ffd2000 ---p 00000000 00:00 0     [rollup]\n"
              "Rss:               16112 kB\nPss:                4000 kB\n"
              "Private_Dirty:      2936 kB\n")
    assert parse.memory_kilobytes(rollup) == {"Rss": 16112, "Pss": 4000, "Private_Dirty": 2936}


def test_the_heap_is_one_mapping_of_all() -> None:
    heap = ("7f00-7f01 r--p 00000000 08:01 12   /usr/lib/libc.so.6\nRss:   1632 kB\n"
            "VmFlags: rd mr\n"
            "55ec-55ed rw-p 00000000 00:00 0    [heap]\nSize:   880 kB\nRss:   780 kB\n"
            "VmFlags: rd wr\n"
            "7fff-8000 rw-p 00000000 00:00 0    [stack]\nRss:   20 kB\nVmFlags: rd wr\n")
    assert parse.heap_mapping_kilobytes(heap) == 780


def test_the_peak_is_the_highest_resident_memory() -> None:
    status = "VmPeak:\t 4096 kB\nVmHWM:\t   29968 kB\nVmRSS:\t 2048 kB\n"
    assert parse.peak_kilobytes(status) == 29968


def test_the_heap_is_read_in_kilobytes() -> None:
    assert parse.heap_kilobytes("2001 points, 2048 bytes\n") == 2


SMAPS = """\
00001000-3dede000 ---p 00000000 00:00 0
Size:            1014644 kB
Private_Dirty:         0 kB
3e6f1000-3e6f6000 rw-p 00000000 fe:00 12600607      /opt/sysroot/usr/lib/libffi.so.8.1.2
Rss:                  20 kB
Private_Dirty:        12 kB
VmFlags: rd wr mr mw me
3e6f6000-ffff1000 rw-p 00000000 00:00 0
Private_Dirty:        30 kB
ffff2000-100000000 ---p 00000000 00:00 0
Private_Dirty:         0 kB
55558987c000-555589b91000 rw-p 00000000 00:00 0          [heap]
Private_Dirty:      2000 kB
"""


def test_the_memory_of_an_emulator_is_not_that_of_its_program() -> None:
    assert parse.emulated_dirty_kilobytes(SMAPS) == 42
    with pytest.raises(ValueError):
        parse.emulated_dirty_kilobytes(SMAPS.replace("ffff2000-100000000", "ffff2000-ffff3000"))


def test_relocations_and_libraries_are_read_from_an_elf_file() -> None:
    assert parse.relocations(
        "\nRelocation section '.rel.dyn' at offset 0x9f8 contains 1204 entries:\n Offset\n"
        "0003f0  00000017 R_ARM_RELATIVE\n"
        "\nRelocation section '.rel.plt' at offset 0x3 contains 1 entry:\n") == 1205
    assert parse.needed_libraries(
        " 0x00000001 (NEEDED)                     Shared library: [libssl.so.3]\n"
        " 0x0000000e (SONAME)                     Library soname: [libcurl.so.4]\n") == [
            "libssl.so.3"]


@pytest.mark.parametrize(("source_age", "why"), [
    (None, "./dev lean makes it"), (0, "the sources are newer; ./dev lean makes it"), (20, "")])
def test_only_a_build_of_the_present_sources_is_measured(
        source_age: int | None, why: str, tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(built, "ROOT", tmp_path)
    source = tmp_path / "ap/main.cc"
    source.parent.mkdir()
    source.touch()
    binary = tmp_path / "build/lean/ap/pelmor/ap-pelmor"
    if source_age is not None:
        binary.parent.mkdir(parents=True)
        binary.touch()
        os.utime(binary, (0, source.stat().st_mtime + source_age - 10))
    assert built.program("lean", "./dev lean") == (binary, why)


@pytest.mark.parametrize(("before", "after", "share"), [
    # user nice system idle iowait irq softirq steal guest guest_nice
    ("cpu  10 0 10 80 0 0 0 5 0 0\ncpu0 1", "cpu  40 0 20 130 0 0 0 15 9 0\ncpu0 2", 0.1),
    ("cpu  10 0 10 80 0 0 0 5 0 0\n", "cpu  10 0 10 80 0 0 0 5 0 0\n", 0.0),
])
def test_stolen_time_is_a_share_of_all_time(before: str, after: str, share: float) -> None:
    assert parse.stolen_share(before, after) == share


@pytest.mark.parametrize(("status", "pid", "parent"), [
    ("Name:\tap-pelmor\nPid:\t917\nPPid:\t900\nNSpid:\t917\t31\t6\n", 6, "900"),
    ("Name:\tsh\nPid:\t12\nPPid:\t1\nNSpid:\t12\n", 12, "1"),
    ("", None, ""),
])
def test_a_process_is_found_by_its_innermost_id(status: str, pid: int | None, parent: str) -> None:
    assert parse.innermost_pid(status) == pid
    assert parse.parent_pid(status) == parent


@pytest.mark.parametrize(("dump", "count"), [
    ("version: 1\nevents: Ir\nsummary: 16753120\n\nfn=(1)\n1 5\ntotals: 16753120\n", 16753120),
    ("fn=(1)\n1 5\ntotals: 42\n", 42),
])
def test_instructions_are_the_total_of_a_dump(dump: str, count: int) -> None:
    assert parse.instructions(dump) == count


def test_an_interrupted_system_call_counts_once() -> None:
    log = ("6     epoll_wait(4,  <unfinished ...>\n"
           "9     futex(0x7f, FUTEX_WAKE, 1) = 1\n"
           "6     <... epoll_wait resumed>[{events=EPOLLIN}], 8, -1) = 1\n"
           "6     recvmsg(5, {msg_name=NULL}, MSG_DONTWAIT) = 16\n"
           "6     --- SIGTERM {si_signo=SIGTERM} ---\n"
           "6     +++ exited with 0 +++\n"
           'close(3) = 0\n')
    assert parse.system_calls(log) == 4


def test_repetitions_are_grouped_by_benchmark_without_aggregates() -> None:
    def one(name: str, kind: str, cpu: float, unit: str) -> dict[str, object]:
        return {"run_name": name, "run_type": kind, "cpu_time": cpu, "time_unit": unit}

    report = {"benchmarks": [one("json", "iteration", 1500, "ns"), one("log", "iteration", 2, "ms"),
                             one("json", "iteration", 1.7, "us"), one("json", "aggregate", 9, "s")]}
    assert micro.times(json.dumps(report)) == {"json": (1.5, 1.7), "log": (2000.0,)}


# Figures.

@pytest.mark.parametrize(("ours", "baseline", "goal", "ratio", "verdict"), [
    # The ratio is that of the medians, and a goal is met at its very edge.
    ((1, 5, 100), (4, 1, 9), Goal(1.25), 1.25, Verdict.MET),
    ((1, 5.01, 100), (4, 1, 9), Goal(1.25), 1.2525, Verdict.MISSED),
    ((1, 3), (4,), Goal(1.0), 0.5, Verdict.MET),
    # A goal for the figure itself needs no baseline and ignores one.
    ((0, 0, 2), (), Goal(0, of_ratio=False), None, Verdict.MET),
    ((1, 1, 0), (), Goal(0, of_ratio=False), None, Verdict.MISSED),
    ((6,), (60,), Goal(5, of_ratio=False), 0.1, Verdict.MISSED),
    # A goal for the excess is for the difference of the medians.
    ((1, 6, 9), (3, 4, 70), Goal(2, of_excess=True), 1.5, Verdict.MET),
    ((1, 6.01, 9), (3, 4, 70), Goal(2, of_excess=True), 1.5025, Verdict.MISSED),
    ((6,), (), Goal(2, of_excess=True), None, Verdict.UNMEASURED),
    # An unmeasured figure never meets its goal.
    ((), (), Goal(5, of_ratio=False), None, Verdict.UNMEASURED),
    ((), (4,), Goal(1), None, Verdict.UNMEASURED),
    ((4,), (), Goal(1), None, Verdict.UNMEASURED),
    ((4,), (0,), Goal(1), None, Verdict.UNMEASURED),
    ((4,), (2,), None, 2, Verdict.NO_GOAL),
])
def test_a_figure_is_judged_by_its_goal(ours: tuple, baseline: tuple, goal: Goal | None,
                                        ratio: float | None, verdict: Verdict) -> None:
    figure = Figure("key", "what", "µs", goal, ours, baseline)
    assert figure.ratio == (ratio and pytest.approx(ratio))
    assert figure.verdict == verdict


@pytest.mark.parametrize(("goal", "text"), [
    (Goal(1.25), "≤ 1.25"), (Goal(400, of_ratio=False), "≤ 400 itself"),
    (Goal(2, of_excess=True), "≤ baseline + 2")])
def test_a_goal_says_what_it_limits(goal: Goal, text: str) -> None:
    assert str(goal) == text


@pytest.mark.parametrize(("value", "text"), [
    (None, "-"), (0, "0"), (0.12345, "0.123"), (6.4321, "6.43"), (34.251, "34.3"),
    (99.96, "100"), (2614.8, "2 615"), (17170326, "17 170 326"), (2.0, "2")])
def test_numbers_have_three_significant_digits(value: float | None, text: str) -> None:
    assert number(value) == text


FIGURES = [Figure("call-cpu", "CPU", "µs", Goal(1.25), (6.0, 6.5, 7.0), (5.0,)),
           Figure("wakes", "wake-ups", "1/s", Goal(0, of_ratio=False), (1.0,)),
           Figure("size", "binary", "kB", Goal(400, of_ratio=False), why="not built")]


def test_the_table_is_aligned_and_gives_the_reason_for_a_missing_figure() -> None:
    assert table(FIGURES) == """\
| figure   | what          | daemon | baseline | ratio | goal         | verdict                 |
|----------|---------------|--------|----------|-------|--------------|-------------------------|
| call-cpu | CPU, µs       | 6.5    | 5        | 1.3   | ≤ 1.25       | missed                  |
| wakes    | wake-ups, 1/s | 1      | -        | -     | ≤ 0 itself   | missed                  |
| size     | binary, kB    | -      | -        | -     | ≤ 400 itself | not measured: not built |"""


def test_the_json_has_every_run() -> None:
    first, _, last = (figure.as_json() for figure in FIGURES)
    assert first == {
        "figure": "call-cpu", "what": "CPU", "unit": "µs", "daemon": 6.5, "baseline": 5.0,
        "ratio": 1.3, "goal": {"most": 1.25, "of_ratio": True, "of_excess": False},
        "verdict": "missed", "why": "",
        "runs": {"daemon": (6.0, 6.5, 7.0), "baseline": (5.0,)}}
    assert (last["daemon"], last["ratio"], last["verdict"]) == (None, None, "not measured")


# What is measured.

def test_only_requested_figures_are_measured() -> None:
    plan.register_all()

    assert len(plan.keys()) == len(set(plan.keys())) >= 18
    assert [one.keys for one in plan.chosen(["bus-cpu"])] == [("call-cpu", "bus-cpu")]
    assert [key for one in plan.chosen([]) for key in one.keys] == plan.keys()


def test_a_quick_run_shrinks_loads_to_no_less_than_one() -> None:
    settings = plan.Settings(ROOT, shrink=10)
    assert [settings.scaled(count) for count in (20_000, 15, 3)] == [2000, 1, 1]
    assert plan.Settings(ROOT).scaled(500) == 500


@pytest.mark.parametrize("before", [None, SystemBus.DBUS_DAEMON, SystemBus.DBUS_BROKER])
def test_a_measurement_chooses_its_bus_and_restores_the_choice(
        monkeypatch: pytest.MonkeyPatch, before: SystemBus | None) -> None:
    monkeypatch.delenv(system_bus.VARIABLE, raising=False)
    if before:
        monkeypatch.setenv(system_bus.VARIABLE, before)
    for bus in SystemBus:
        with pytest.raises(RuntimeError), testbed.on_bus(bus):
            assert system_bus.chosen() == bus
            raise RuntimeError
    assert os.environ.get(system_bus.VARIABLE) == before


@pytest.mark.parametrize(("accepted", "lost", "flush", "counts"), [
    (10, 0, "", True), (9, 0, "", False), (10, 1, "", False),
    (10, 0, "org.freedesktop.DBus.Error.Timeout", False)])
def test_a_lost_point_fails_a_measurement(monkeypatch: pytest.MonkeyPatch, accepted: int, lost: int,
                                          flush: str, counts: bool) -> None:
    bed = testbed.Testbed(ROOT)
    report = json.dumps({"accepted": accepted, "busy": 0, "lost": lost, "flush": flush})
    monkeypatch.setattr(bed.device, "run", lambda *_, **__: Run(0, report, ""))
    if counts:
        bed.report(10)
    else:
        with pytest.raises(RuntimeError, match="points were lost"):
            bed.report(10)


def test_every_figure_is_explained() -> None:
    page = (ROOT / "docs/performance.md").read_text()
    for key in plan.keys():
        assert f"`{key}`" in page, key


def test_an_unknown_figure_is_refused() -> None:
    refused = subprocess.run(["/usr/bin/python3", "-m", "lab.bench", "--build", ".", "speed"],
                             cwd=ROOT, capture_output=True, text=True, check=False)
    assert refused.returncode == 2
    assert "no figure 'speed'; there are call-instructions, call-cpu, bus-cpu, " in refused.stderr
