"""The charts of the page with made-up uploads, in a real browser."""

import hashlib
import json
import re
from collections.abc import Iterable

from lab.common.tree import ROOT
from tests.console.browser import POINT, Browser, Invented, answer, request

CHARTS = ROOT / "third_party/uPlot"
# Keeps the texts of the latest drawing on a canvas in `drawn`.
WATCH_TEXTS = """
const {clearRect, fillText} = CanvasRenderingContext2D.prototype;
window.drawn = [];
CanvasRenderingContext2D.prototype.clearRect = function (...box) {
  window.drawn = [];
  return clearRect.apply(this, box);
};
CanvasRenderingContext2D.prototype.fillText = function (text, ...place) {
  window.drawn.push(text);
  return fillText.call(this, text, ...place);
};
"""
# For each colour of a line, the number of its pixels in each tenth of the chart's width.
COLORED = """
const canvas = document.querySelector("#metrics canvas");
if (!canvas) return null;
const {data} = canvas.getContext("2d").getImageData(0, 0, canvas.width, canvas.height);
return ["--c0", "--c1"].map((name) => {
  const color = getComputedStyle(document.documentElement).getPropertyValue(name).trim();
  const wanted = [1, 3, 5].map((i) => parseInt(color.slice(i, i + 2), 16));
  const counts = Array(10).fill(0);
  for (let i = 0; i < data.length; i += 4) {
    const isSame = wanted.every((one, j) => Math.abs(data[i + j] - one) < 40);
    if (isSame && data[i + 3] > 200)
      counts[Math.floor(10 * (i / 4 % canvas.width) / canvas.width)] += 1;
  }
  return counts;
});
"""


def upload(invented: Invented, **bands: Iterable[int]) -> None:
    """A point of the same value in each of the seconds of each band."""
    points = [POINT | {"labels": {"band": band}, "endTime": {"seconds": 1700000000 + second}}
              for band, seconds in bands.items() for second in seconds]
    request(invented, body=json.dumps(
        {"metricPoints": [{"metricName": "ap/clients", "points": points}]}))
    answer(invented)


def test_a_chart_shows_gaps_and_each_of_equal_series(
        browser: Browser, invented: Invented) -> None:
    browser.open(invented.address)
    # Points at different times, and an equal one after all others.
    upload(invented, a=[*range(0, 40, 2), *range(70, 90, 2), 120],
           b=[*range(1, 40, 2), *range(71, 90, 2), 120])

    def lines() -> list[list[int]] | None:
        """The lines, when both are drawn."""
        found = browser.run(COLORED)
        return found if found and all(min(line[2], line[3]) > 5 for line in found) else None

    for line in browser.wait(lines, "both lines"):
        assert line[4] == 0
        assert line[9] > 0


def test_the_labels_of_a_time_axis_differ(browser: Browser, invented: Invented) -> None:
    browser.open(invented.address)
    browser.run(WATCH_TEXTS)
    upload(invented, a=[300, 300, 300, 300])
    times = browser.wait(lambda: [text for text in browser.run("return window.drawn")
                                  if re.fullmatch(r"\d\d:\d\d:\d\d", text)], "an axis")
    assert len(times) == len(set(times)) > 1


def test_the_chart_library_matches_its_checksum() -> None:
    note = (CHARTS / "README.md").read_text()
    sums = dict(re.findall(r"([0-9a-f]{64})  (\S+)", note))
    files = {path.name for path in CHARTS.iterdir()} - {"README.md"}
    assert set(sums.values()) == files
    for checksum, name in sums.items():
        assert hashlib.sha256((CHARTS / name).read_bytes()).hexdigest() == checksum
