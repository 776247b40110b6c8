"""The mutants of the mutation test, and its report."""

from pathlib import Path

import pytest

from lab.common.tree import ROOT
from lab.mutation import __main__ as mutation
from lab.mutation.mutants import Mutant, mutants
from lab.mutation.workshop import Fate


@pytest.mark.parametrize(("line", "expected"), [
    ("  if (a == b) return;", ["  if (a != b) return;"]),
    ("  if (age <= limit || !ready) return true;",
     ["  if (age < limit || !ready) return true;", "  if (age <= limit && !ready) return true;",
      "  if (age <= limit || ready) return true;", "  if (age <= limit || !ready) return false;"]),
    ("constexpr int kSeconds = 30;", ["constexpr int kSeconds = 31;"]),
    ("  timer_.Start(period, task);", ["  ;"]),
    ("  start_time_ = start_time;", ["  ;"]),
    ("  const bool ready = Ready();", []),
    ("  return Ready();", []),
    ("#include <vector>", []),
    ('  LOG(INFO) << "1 == true && 2";', ["  ;"]),
    ("  // 1 == true", []),
    ("std::map<int, std::vector<char>> map_;", []),
    ("uint32_t Int64ToString(base::Time t);", []),
])
def test_each_place_has_its_mutants(line: str, expected: list[str]) -> None:
    assert [mutant.new for mutant in mutants("a.cc", line)] == expected


def test_only_a_whole_statement_is_removed() -> None:
    source = "  Call(first,\n       second());\n  if (ready)\n    Go();\n"
    assert [str(one) for one in mutants("a.cc", source)] == ["a.cc:4: Go();  ->  ;"]


def test_a_mutant_changes_only_its_line() -> None:
    mutant = Mutant("a.cc", 2, "  b();", "  ;")
    assert mutant.apply("a();\n  b();\nc();\n") == "a();\n  ;\nc();\n"


def test_only_an_unexplained_survivor_fails_the_run(
        monkeypatch: pytest.MonkeyPatch, tmp_path: Path) -> None:
    killed, equal = Mutant("a.cc", 1, "x();", ";"), Mutant("a.cc", 2, "y();", ";")
    endless = Mutant("a.cc", 3, "z();", ";")
    listed = tmp_path / "explained.txt"
    monkeypatch.setattr(mutation, "_EXPLAINED", listed)
    listed.write_text("# Why.\n")
    fates = {killed: Fate.UNIT, equal: Fate.SURVIVED}
    passed, lines = mutation.judge(fates)
    assert not passed and "unexplained: a.cc:2: y();  ->  ;" in lines
    listed.write_text("a.cc: y();  ->  ; # It does nothing.\n")
    passed, lines = mutation.judge(fates)
    assert passed and "score: 1 of 2 killed, 50.0 %; 1 survivors explained" in lines
    passed, lines = mutation.judge({**fates, endless: Fate.UNDECIDED})
    assert not passed and "unexplained: a.cc:3: z();  ->  ;" in lines


def test_every_explained_mutant_still_exists() -> None:
    there = {mutation.without_number(one) for name in mutation.sources()
             for one in mutants(name, (ROOT / name).read_text())}
    assert mutation.explained() <= there
