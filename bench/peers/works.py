"""What is measured."""

from typing import NamedTuple, Optional

KIB, MIB = 1 << 10, 1 << 20


class Work(NamedTuple):
    key: str
    title: str
    kind: str  # as the client calls it
    unit: str  # of rates and processor times
    in_flight: int
    size: int  # of a piece, in bytes
    check_items: int  # until everything was touched once
    peer_goal: Optional[float]  # the least ratio to the peer's rate
    limit_goal: Optional[float]  # and to that of the bare calls


WORKS = (
    Work("attributes-1", "attribute query, one in flight", "attributes", "query", 1, 0, 2000,
         1.0, None),
    Work("attributes-32", "attribute query, 32 in flight", "attributes", "query", 32, 0, 2000,
         3, None),
    Work("file-1", "whole 4 KiB file, one in flight", "files", "file", 1, 0, 2000, 2.5, None),
    Work("file-32", "whole 4 KiB file, 32 in flight", "files", "file", 32, 0, 2000, 5, None),
    Work("batch-1", "batch of 32 files, one in flight", "batches", "file", 1, 0, 2000, None, 0.6),
    Work("batch-4", "batch of 32 files, 4 in flight", "batches", "file", 4, 0, 2000, None, 0.6),
    Work("read-64k", "64 KiB reads, 8 in flight", "reads", "MiB", 8, 64 * KIB, 4096, 2, None),
    Work("read-1m", "1 MiB reads, 4 in flight", "reads", "MiB", 4, MIB, 256, 2, 0.5),
    Work("write-64k", "64 KiB writes, 8 in flight", "writes", "MiB", 8, 64 * KIB, 4096, 2, None),
    Work("write-chunks", "batch writes of 4 KiB chunks", "chunks", "MiB", 1, 4 * KIB, 32768,
         2, None),
    Work("listing", "listing of 2,000 entries", "listings", "listing", 1, 0, 1, 3, 0.8),
    Work("unchanged", "unchanged check of 10,000 entries", "unchanged", "check", 1, 0, 1,
         None, 1 / 1.5),
)
