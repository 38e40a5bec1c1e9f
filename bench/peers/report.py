"""The measurements of the peers as tables."""

from statistics import median

from tables import seconds_text

from .works import WORKS

BY_KEY = {work.key: work for work in WORKS}
HOST, PEER, LIMIT = "udisk", "peer", "posix"
NAMES = {HOST: "udisk-host", PEER: "sftp-server", LIMIT: "POSIX calls"}


def describe(results):
    return (f"Medians of {results['rounds']} rounds of {results['seconds']:g} s, in turns; "
            f"{results['machine']['cores']} processors"
            f"{', kept awake' if results.get('awake') else ''}; everything in the page cache")


def sections(results):
    """Headings and tables."""
    works = results["works"]
    yield "Done in a second, and as ratios to what the peer and the bare calls do:", list(rate_rows(works))
    yield "Processor time of the server:", list(processor_rows(works))
    yield "Memory of the server, resident, in MiB:", list(memory_rows(results["memory"]))


def rate_rows(works):
    yield ["Work", "udisk-host", "sftp-server", "POSIX calls", "x peer", "at least", "x limit",
           "at least"]
    for work in works:
        of = BY_KEY[work["key"]]
        rates = {side: median(sums["rates"]) for side, sums in work["sides"].items()}
        yield [of.title, *(rate_text(rates[side], of.unit) for side in (HOST, PEER, LIMIT)),
               *against(rates[HOST] / rates[PEER], of.peer_goal),
               *against(rates[HOST] / rates[LIMIT], of.limit_goal)]


def against(ratio, goal):
    if goal is None:
        return f"{ratio:.2f}", ""
    return f"{ratio:.2f}", f"{goal:.2g}: {'met' if ratio >= goal else 'missed'}"


def rate_text(rate, unit):
    return f"{rate:,.0f} MiB" if unit == "MiB" else f"{rate:,.0f}"


def processor_rows(works):
    yield ["Work", "for each", "udisk-host", "sftp-server", "x peer", "less than 1"]
    for work in works:
        host, peer = (median(work["sides"][side]["processor_us"]) for side in (HOST, PEER))
        of = BY_KEY[work["key"]]
        yield [of.title, of.unit, seconds_text(host / 1e6),
               seconds_text(peer / 1e6), f"{host / peer:.2f}",
               "met" if host < peer else "missed"]


def memory_rows(works):
    yield ["Work", *(f"{NAMES[side]}: {when}" for side in (HOST, PEER)
                     for when in ("at rest", "most", "heap and stacks after"))]
    for work in works:
        cells = [BY_KEY[work["key"]].title]
        for side in (HOST, PEER):
            of = work["sides"][side]
            cells += [f"{of[key] / 1024:.1f}"
                      for key in ("rest_kib", "peak_kib", "after_anonymous_kib")]
        yield cells
