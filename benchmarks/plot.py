"""The report's pictures: ratios with their targets, and admissions a second over threads."""

from __future__ import annotations

from pathlib import Path
from statistics import median

import matplotlib
from matplotlib.figure import Figure
from rows import Result, Values, Verdict, spread

# The same figures give the same file: no random ids, no date. Text stays text.
matplotlib.rcParams.update(
    {"svg.hashsalt": "decision-bounds", "svg.fonttype": "none", "font.size": 9}
)
WITHOUT_DATE = {"Date": None}
TICKS = (0.1, 0.2, 0.5, 1, 2, 5, 10, 20, 50, 100, 200, 500, 1000)
COLOURS = {"module": "#1b6ca8", "twin": "#d1793b", "semaphore": "#8a8a8a"}
LABELS = {"module": "module", "twin": "plain Python", "semaphore": "BoundedSemaphore(2)"}


def ratios(results: list[Result], path: Path) -> None:
    """One bar for each "at least" row, as a multiple of what it is measured against."""
    bars = [(result, result.row.at_least) for result in results if result.row.at_least][::-1]
    figure = Figure(figsize=(9, 0.32 * len(bars) + 0.8), layout="constrained")
    axes = figure.subplots()
    for y, (bar, target) in enumerate(bars):
        colour = COLOURS["twin" if bar.verdict == Verdict.MISSED else "module"]
        axes.barh(y, bar.median - 1, left=1, color=colour, height=0.6)
        axes.hlines(y, bar.low, bar.high, color="black", linewidth=1)
        axes.plot([target, target], [y - 0.4, y + 0.4], color="black", linewidth=2)
        end = max(bar.median, bar.high, target)
        axes.text(end * 1.08, y, f"{bar.median:.3g}x", va="center")
    axes.set_yticks(range(len(bars)), [_short(bar.row.label) for bar, _ in bars])
    axes.set_xscale("log")
    axes.minorticks_off()
    axes.set_xticks(TICKS, [f"{tick:g}x" for tick in TICKS])
    ends = [bar.low for bar, _ in bars], [max(bar.high, target) for bar, target in bars]
    axes.set_xlim(min(0.5, *ends[0]), 2 * max(ends[1]))
    axes.set_ylim(-0.7, len(bars) - 0.3)
    axes.set_xlabel("times better; thin line: quartiles, thick mark: target")
    axes.spines[["top", "right"]].set_visible(False)
    figure.savefig(path, metadata=WITHOUT_DATE)


def _short(label: str) -> str:
    return label.replace("`", "").replace(" that makes no room, 200 threads waiting", ", 200 wait")


def scaling(values: Values, threads: tuple[int, ...], path: Path) -> None:
    """Admissions a second over the number of threads, for both kinds of call."""
    figure = Figure(figsize=(9, 3.6), layout="constrained")
    panels = figure.subplots(1, 2, sharex=True, sharey=True)
    titles = {"at once": "the call takes no time", "sends": "the call makes one system call"}
    for axes, (kind, title) in zip(panels, titles.items(), strict=True):
        for subject, colour in COLOURS.items():
            points = [values[f"{kind}/{count}/{subject}"] for count in threads]
            _, low, high = zip(*map(spread, points), strict=True)
            axes.plot(threads, list(map(median, points)), "o-", color=colour, label=LABELS[subject])
            axes.fill_between(threads, low, high, color=colour, alpha=0.2, linewidth=0)
        axes.set_xscale("log", base=2)
        axes.set_yscale("log")
        axes.set_xticks(threads, [str(count) for count in threads])
        axes.set_title(title)
        axes.set_xlabel("threads")
        axes.grid(True, alpha=0.3)
        axes.spines[["top", "right"]].set_visible(False)
    panels[0].set_ylabel("admissions a second, room for two calls")
    panels[0].legend(frameon=False)
    figure.savefig(path, metadata=WITHOUT_DATE)
