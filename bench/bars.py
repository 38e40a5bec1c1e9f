"""Times as bars over a logarithmic axis, as SVG."""

import math
import statistics
from html import escape

from tables import seconds_text

WIDTH = 900
RIGHT = 80
BAR = 13
GAP = 12
TOP = 96
KEY_WIDTH = 200  # of a name in the legend
PANEL_HEAD = 34
PANEL_FOOT = 44
COLOURS = ("#2563a8", "#d9822b", "#5a9e6f", "#8a6bb0")
STYLE = ("text{font-family:sans-serif;font-size:13px;fill:#222}"
         ".title{font-size:18px;font-weight:bold}.panel{font-size:14px;font-weight:bold}"
         ".small{font-size:11px;fill:#555}.grid{stroke:#ddd}.axis{stroke:#888}"
         ".spread{stroke:#222}")


def draw(title, note, series, panels, absent="failed", labels=200):
    """The text of the picture. `panels` are pairs of a heading and rows; a row
    is a label and, for each of the `series`, the seconds of all runs, which may
    be none. `labels` is the width of their column."""
    chart = Chart(series, panels, absent, labels)
    height = TOP + sum(chart.height(rows) for _, rows in panels)
    parts = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{WIDTH}" height="{height}" '
             f'viewBox="0 0 {WIDTH} {height}">', f"<style>{STYLE}</style>",
             f'<rect width="{WIDTH}" height="{height}" fill="#fff"/>',
             text(20, 30, title, "title"), text(20, 50, note, "small")]
    for index, name in enumerate(series):
        x = 20 + KEY_WIDTH * index
        parts.append(f'<rect x="{x}" y="64" width="14" height="14" fill="{COLOURS[index]}"/>')
        parts.append(text(x + 20, 76, name))
    parts.append(text(20 + KEY_WIDTH * len(series), 76, "bar: median; line: fastest to slowest run",
                      "small"))
    top = TOP
    for heading, rows in panels:
        parts += chart.panel(heading, rows, top)
        top += chart.height(rows)
    parts.append("</svg>")
    return "\n".join(parts) + "\n"


class Chart:
    def __init__(self, series, panels, absent, labels):
        values = [value for _, rows in panels for _, runs_of in rows for runs in runs_of
                  for value in runs]
        self._axis = Axis(min(values), max(values), labels)
        self._labels = labels
        self._absent = absent
        self._group = BAR * len(series) + GAP

    def height(self, rows):
        return PANEL_HEAD + self._group * len(rows) + PANEL_FOOT

    def panel(self, heading, rows, top):
        yield text(20, top + 20, heading, "panel")
        first = top + PANEL_HEAD
        last = first + self._group * len(rows)
        for tick in self._axis.ticks():
            x = self._axis.place(tick)
            yield f'<line class="grid" x1="{x:.1f}" y1="{first - 6}" x2="{x:.1f}" y2="{last}"/>'
            yield text(x, last + 16, tick_text(tick), "small", "middle")
        right = WIDTH - RIGHT
        yield f'<line class="axis" x1="{self._labels}" y1="{last}" x2="{right}" y2="{last}"/>'
        yield text((self._labels + right) / 2, last + 32, "time, logarithmic", "small", "middle")
        for number, (label, runs_of) in enumerate(rows):
            y = first + self._group * number
            yield text(self._labels - 10, y + self._group / 2 - 2, label, anchor="end")
            for index, runs in enumerate(runs_of):
                yield from self._bar(runs, y + BAR * index, COLOURS[index])

    def _bar(self, runs, y, colour):
        if not runs:
            yield text(self._labels + 6, y + 11, self._absent, "small")
            return
        middle = statistics.median(runs)
        end = self._axis.place(middle)
        yield (f'<rect x="{self._labels}" y="{y}" width="{end - self._labels:.1f}" '
               f'height="{BAR - 1}" fill="{colour}"/>')
        low, high = self._axis.place(min(runs)), self._axis.place(max(runs))
        if high - low > 1:
            line = y + (BAR - 1) / 2
            yield (f'<line class="spread" x1="{low:.1f}" y1="{line}" x2="{high:.1f}" '
                   f'y2="{line}"/>')
        yield text(max(end, high) + 5, y + 11, seconds_text(middle), "small")


class Axis:
    """Whole decades around the values."""

    def __init__(self, low, high, left):
        self._low = math.floor(math.log10(low))
        self._high = max(math.ceil(math.log10(high)), self._low + 1)
        self._left = left

    def place(self, value):
        share = (math.log10(value) - self._low) / (self._high - self._low)
        return self._left + share * (WIDTH - RIGHT - self._left)

    def ticks(self):
        return [10.0 ** power for power in range(self._low, self._high + 1)]


def tick_text(value):
    if value >= 0.99:
        return f"{value:g} s"
    return f"{value * 1000:g} ms" if value >= 0.00099 else f"{value * 1e6:g} µs"


def text(x, y, content, style="", anchor="start"):
    style = f' class="{style}"' if style else ""
    return (f'<text x="{x:.1f}" y="{y:.1f}"{style} text-anchor="{anchor}">'
            f"{escape(content)}</text>")
