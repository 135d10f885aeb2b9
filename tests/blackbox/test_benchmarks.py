"""What writes the benchmarks' page: ratios within a turn, targets, one part's results in the place of its older ones."""

import subprocess
import sys

import pytest
from support.paths import ROOT

sys.path.insert(0, str(ROOT / "bench"))

from qelbench import parts  # noqa: E402
from qelbench.page import Document  # noqa: E402
from qelbench.results import Figure, Results, at_least, at_most, percentile  # noqa: E402

MEASURED = {"date": "2026-01-01", "commit": "abc", "load": 0.1, "quick": False, "seconds": 1}


def results(rates):
    bare = Figure("bare", "messages/s", [100, 10, 1000])
    agent = Figure("agent", "messages/s", rates, at_least(15)).beside(bare, at_least(1.5))
    return Results([agent, bare], notes=["A note."])


def test_a_ratio_is_the_median_of_those_within_the_turns():
    agent = results([200, 10, 1500]).figures[0]
    assert agent.comparisons[0].ratios == [2, 1, 1.5]
    assert agent.comparisons[0].median == 1.5
    assert (agent.median, agent.spread) == (200, (10, 1500))


def test_figures_that_did_not_take_turns_are_not_compared():
    with pytest.raises(ValueError):
        Figure("agent", "s", [1, 2]).beside(Figure("bare", "s", [1]))


def test_a_target_is_held_up_to_its_limit():
    assert at_most(5).held_by(5) and not at_most(5).held_by(5.01)
    assert at_least(5).held_by(5) and not at_least(5).held_by(4.99)


def test_a_percentile_is_one_of_the_values():
    assert [percentile(range(100), share) for share in (0, 0.5, 0.99, 1)] == [0, 50, 99, 99]


def test_results_come_back_from_json_as_they_were():
    kept = results([200, 10, 1500])
    assert Results.from_json(kept.to_json()) == kept


def test_a_part_replaces_its_own_results_only(tmp_path):
    one, other = [part.NAME for part in parts.find()][:2]
    Document(tmp_path).put(one, results([200, 10, 1500]), MEASURED)
    Document(tmp_path).put(other, results([300, 30, 3000]), MEASURED)
    Document(tmp_path).put(one, results([10, 10, 10]), MEASURED)
    content = Document(tmp_path).content["parts"]
    assert content[one]["figures"][0]["runs"] == [10, 10, 10]
    assert content[other]["figures"][0]["runs"] == [300, 30, 3000]
    page = (tmp_path / "benchmarks.md").read_text(encoding="utf-8")
    assert page.count("**missed**") == 2
    assert page.count("| reached |") == 2
    assert page.count("A note.") == 2


def test_the_command_names_the_parts():
    done = subprocess.run([ROOT / "bench/run", "--list"], check=True, capture_output=True, text=True, timeout=60)
    assert [line.split()[0] for line in done.stdout.splitlines()] == [part.NAME for part in parts.find()]
