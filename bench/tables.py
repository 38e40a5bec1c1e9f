"""Results for people and for programs: what the comparisons share."""

import argparse
import json
import os
import platform

SFTP_SERVERS = ("/usr/lib/openssh/sftp-server", "/usr/libexec/openssh/sftp-server",
                "/usr/lib/ssh/sftp-server")


def sftp_server():
    return next((path for path in SFTP_SERVERS if os.path.exists(path)), None)


def some_of(names):
    """The type of an argument that lists some of these."""
    def parse(text):
        if not set(text.split(",")) <= set(names):
            raise argparse.ArgumentTypeError(f"'{text}' is not a list of {', '.join(names)}")
        return text.split(",")
    return parse


def machine():
    return {"cores": os.cpu_count(), "system": platform.platform()}


def seconds_text(seconds):
    if seconds is None:
        return "-"
    if seconds < 0.0000995:
        return f"{seconds * 1e6:.3g} µs"
    if seconds < 0.000995:
        return f"{seconds * 1e6:.0f} µs"
    if seconds < 0.0995:
        return f"{seconds * 1000:.3g} ms"
    return f"{seconds:.3g} s" if seconds < 999.5 else f"{seconds:.0f} s"


def markdown_lines(table):
    heading, *rows = table
    yield "| " + " | ".join(heading) + " |"
    yield "| --- |" + " ---: |" * (len(heading) - 1)
    for row in rows:
        yield "| " + " | ".join(row) + " |"


def save(results, path):
    with open(path, "w", encoding="utf-8") as file:
        json.dump(results, file, indent=1)
        file.write("\n")
