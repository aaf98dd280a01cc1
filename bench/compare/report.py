"""Lines of the table and how a figure is judged."""

from dataclasses import dataclass
from statistics import median
from typing import Optional


@dataclass
class Line:
    """One line of the table. `met` is None for a figure that is only reported."""

    work: str
    beside: str
    figure: str
    reach: str = "-"
    met: Optional[bool] = None
    detail: str = ""


def ratio_line(work, beside, pairs, at_least=None, at_most=None, detail=None):
    """A line for pairs (ours, theirs) measured one after the other: the median of their ratios is
    the figure, and what is judged."""
    ratios = [ours / theirs for ours, theirs in pairs]
    middle = median(ratios)
    figure = f"{middle:.2f} ({min(ratios):.2f}..{max(ratios):.2f})"
    if detail is None:
        ours, theirs = median(pair[0] for pair in pairs), median(pair[1] for pair in pairs)
        detail = f"{ours:,.0f}/s beside {theirs:,.0f}/s"
    reach, met = _judge(middle, at_least, at_most)
    return Line(work, beside, figure, reach, met, detail)


def value_line(work, values, unit, at_most=None, detail=""):
    """A line for a figure that is compared with nothing: the median of the values."""
    middle = median(values)
    figure = f"{middle:.2f} {unit}"
    if len(values) > 1:
        figure += f" ({min(values):.2f}..{max(values):.2f})"
    reach, met = _judge(middle, None, at_most)
    return Line(work, "-", figure, reach if at_most is None else f"{reach} {unit}", met, detail)


def _judge(value, at_least, at_most):
    if at_least is not None:
        return f">= {at_least:g}", value >= at_least
    if at_most is not None:
        return f"<= {at_most:g}", value <= at_most
    return "-", None


_HEADINGS = ("Work", "Beside", "Figure", "Reach", "Met", "In this run")
_MET = {True: "yes", False: "NO", None: "-"}


def table(lines):
    """A Markdown table that is also aligned on a terminal."""
    rows = [_HEADINGS]
    rows += [
        (line.work, line.beside, line.figure, line.reach, _MET[line.met], line.detail)
        for line in lines
    ]
    widths = [max(len(row[i]) for row in rows) for i in range(len(_HEADINGS))]
    printed = ["| " + " | ".join(cell.ljust(w) for cell, w in zip(row, widths)) + " |" for row in rows]
    printed.insert(1, "|" + "|".join("-" * (width + 2) for width in widths) + "|")
    return "\n".join(printed)
