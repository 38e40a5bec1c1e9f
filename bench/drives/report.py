"""The results as tables."""

import statistics

from tables import markdown_lines, seconds_text

from .work import DIRECTORIES, FILE_SIZE, WORKS

BIG = ("big_write", "big_read")


def describe(results):
    """One sentence of how it was measured."""
    return (f"{results['files']} files of {FILE_SIZE // 1024} KiB in {DIRECTORIES} directories; "
            f"a big file of {results['mib']} MiB; medians of {results['runs']} "
            f"run{'s' if results['runs'] != 1 else ''}; mounted afresh for each work; "
            f"{', '.join(results['drives'])}")


def median(results, delay, work, drive):
    runs = results["seconds"].get(delay, {}).get(work, {}).get(drive)
    return statistics.median(runs) if runs else None


def link_name(delay):
    return f"{delay} ms delay each way" if delay != "0" else "no delay"


def cell_text(results, work, seconds):
    text = seconds_text(seconds)
    if work in BIG and seconds:
        text += f" ({results['mib'] / seconds:.0f} MiB/s)"
    return text


def rows(results, delay):
    """The heading and the lines of the table of one delay."""
    drives = results["drives"]
    compared = len(drives) >= 2
    yield ["Work", *drives] + ([f"{drives[1]} / {drives[0]}"] if compared else [])
    for work, name in WORKS.items():
        medians = [median(results, delay, work, drive) for drive in drives]
        cells = [name] + [cell_text(results, work, seconds) for seconds in medians]
        if compared:
            cells.append(f"{medians[1] / medians[0]:.3g}" if all(medians) else "-")
        yield cells


def as_markdown(results):
    lines = [describe(results) + "."]
    for delay in results["seconds"]:
        lines += ["", f"With {link_name(delay)}:", "", *markdown_lines(list(rows(results, delay)))]
    return "\n".join(lines)
