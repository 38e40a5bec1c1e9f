"""The results as a picture."""

import bars

from .report import describe, link_name
from .work import WORKS


def draw(results):
    """The text of the picture."""
    drives = results["drives"]
    panels = [(link_name(delay),
               [(name, [works.get(work, {}).get(drive, []) for drive in drives])
                for work, name in WORKS.items()])
              for delay, works in results["seconds"].items()]
    return bars.draw("The same work on each drive: time taken, shorter is better",
                     describe(results), drives, panels)
