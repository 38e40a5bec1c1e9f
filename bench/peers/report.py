"""What the measurements of the peers say."""

from statistics import median

from tables import seconds_text

# By key: what it is called, the least ratio to the peer's rate, to the limit's.
WORKS = {
    "attributes-1": ("attribute query, one in flight", 1.0, None),
    "attributes-32": ("attribute query, 32 in flight", 3, None),
    "file-1": ("whole 4 KiB file, one in flight", 2.5, None),
    "file-32": ("whole 4 KiB file, 32 in flight", 5, None),
    "batch-1": ("batch of 32 files, one in flight", None, 0.6),
    "batch-4": ("batch of 32 files, 4 in flight", None, 0.6),
    "read-64k": ("64 KiB reads, 8 in flight", 2, None),
    "read-1m": ("1 MiB reads, 4 in flight", 2, 0.5),
    "write-64k": ("64 KiB writes, 8 in flight", 2, None),
    "write-chunks": ("batch writes of 4 KiB chunks", 2, None),
    "listing": ("listing of 2,000 entries", 3, 0.8),
    "unchanged": ("unchanged check of 10,000 entries", None, 1 / 1.5),
}
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
        name, peer_goal, limit_goal = WORKS[work["key"]]
        rates = {side: median(sums["rates"]) for side, sums in work["sides"].items()}
        yield [name, *(rate_text(rates[side], work["unit"]) for side in (HOST, PEER, LIMIT)),
               *against(rates[HOST] / rates[PEER], peer_goal),
               *against(rates[HOST] / rates[LIMIT], limit_goal)]


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
        yield [WORKS[work["key"]][0], work["unit"], seconds_text(host / 1e6),
               seconds_text(peer / 1e6), f"{host / peer:.2f}",
               "met" if host < peer else "missed"]


def memory_rows(works):
    yield ["Work", *(f"{NAMES[side]}: {when}" for side in (HOST, PEER)
                     for when in ("at rest", "most", "heap and stacks after"))]
    for work in works:
        cells = [WORKS[work["key"]][0]]
        for side in (HOST, PEER):
            of = work["sides"][side]
            cells += [f"{of[key] / 1024:.1f}"
                      for key in ("rest_kib", "peak_kib", "after_anonymous_kib")]
        yield cells
