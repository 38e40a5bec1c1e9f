"""The results as bars over a logarithmic axis, as SVG."""

import math
from html import escape

from .report import describe, link_name, median, seconds_text
from .work import WORKS

WIDTH = 900
LABELS = 200  # of the left column
RIGHT = 80
BAR = 13
GAP = 12
TOP = 96
PANEL_HEAD = 34
PANEL_FOOT = 44
COLOURS = ("#2563a8", "#d9822b", "#5a9e6f", "#8a6bb0")
STYLE = ("text{font-family:sans-serif;font-size:13px;fill:#222}"
         ".title{font-size:18px;font-weight:bold}.panel{font-size:14px;font-weight:bold}"
         ".small{font-size:11px;fill:#555}.grid{stroke:#ddd}.axis{stroke:#888}"
         ".spread{stroke:#222}")


def draw(results):
    """The text of the picture."""
    values = [value for of_delay in results["seconds"].values() for of_work in of_delay.values()
              for runs in of_work.values() for value in runs]
    axis = Axis(min(values), max(values))
    drives = results["drives"]
    group = BAR * len(drives) + GAP
    panel = PANEL_HEAD + group * len(WORKS) + PANEL_FOOT
    height = TOP + panel * len(results["seconds"])
    parts = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{WIDTH}" height="{height}" '
             f'viewBox="0 0 {WIDTH} {height}">', f"<style>{STYLE}</style>",
             f'<rect width="{WIDTH}" height="{height}" fill="#fff"/>',
             text(20, 30, "The same work on each drive: time taken, shorter is better", "title"),
             text(20, 50, describe(results), "small")]
    for index, drive in enumerate(drives):
        x = 20 + 160 * index
        parts.append(f'<rect x="{x}" y="64" width="14" height="14" fill="{COLOURS[index]}"/>')
        parts.append(text(x + 20, 76, drive))
    parts.append(text(20 + 160 * len(drives), 76, "bar: median; line: fastest to slowest run",
                      "small"))
    for number, delay in enumerate(results["seconds"]):
        parts += draw_panel(results, delay, TOP + panel * number, group, axis)
    parts.append("</svg>")
    return "\n".join(parts) + "\n"


def draw_panel(results, delay, top, group, axis):
    yield text(20, top + 20, link_name(delay), "panel")
    first = top + PANEL_HEAD
    last = first + group * len(WORKS)
    for tick in axis.ticks():
        x = axis.place(tick)
        yield f'<line class="grid" x1="{x:.1f}" y1="{first - 6}" x2="{x:.1f}" y2="{last}"/>'
        yield text(x, last + 16, tick_text(tick), "small", "middle")
    yield f'<line class="axis" x1="{LABELS}" y1="{last}" x2="{WIDTH - RIGHT}" y2="{last}"/>'
    yield text((LABELS + WIDTH - RIGHT) / 2, last + 32, "time, logarithmic", "small", "middle")
    for row, (work, name) in enumerate(WORKS.items()):
        y = first + group * row
        yield text(LABELS - 10, y + group / 2 - 2, name, anchor="end")
        for index, drive in enumerate(results["drives"]):
            yield from draw_bar(results, delay, work, drive, y + BAR * index, axis,
                                COLOURS[index])


def draw_bar(results, delay, work, drive, y, axis, colour):
    middle = median(results, delay, work, drive)
    if middle is None:
        yield text(LABELS + 6, y + 11, "failed", "small")
        return
    end = axis.place(middle)
    yield (f'<rect x="{LABELS}" y="{y}" width="{end - LABELS:.1f}" height="{BAR - 1}" '
           f'fill="{colour}"/>')
    runs = results["seconds"][delay][work][drive]
    low, high = axis.place(min(runs)), axis.place(max(runs))
    if high - low > 1:
        line = y + (BAR - 1) / 2
        yield f'<line class="spread" x1="{low:.1f}" y1="{line}" x2="{high:.1f}" y2="{line}"/>'
    yield text(max(end, high) + 5, y + 11, seconds_text(middle), "small")


class Axis:
    """Whole decades around the values."""

    def __init__(self, low, high):
        self._low = math.floor(math.log10(low))
        self._high = max(math.ceil(math.log10(high)), self._low + 1)

    def place(self, value):
        share = (math.log10(value) - self._low) / (self._high - self._low)
        return LABELS + share * (WIDTH - RIGHT - LABELS)

    def ticks(self):
        return [10.0 ** power for power in range(self._low, self._high + 1)]


def tick_text(value):
    return f"{value:g} s" if value >= 1 else f"{value * 1000:g} ms"


def text(x, y, content, style="", anchor="start"):
    style = f' class="{style}"' if style else ""
    return (f'<text x="{x:.1f}" y="{y:.1f}"{style} text-anchor="{anchor}">'
            f"{escape(content)}</text>")
