"""What is measured: the work of ordinary programs on a mount."""

import filecmp
import os
import random
import shutil
import subprocess
import time

from .mounts import Failure, is_mounted

MIB = 1 << 20
DIRECTORIES = 20
FILE_SIZE = 4096
PAUSE_SECONDS = 2

# In the order of the report: the key, and its title.
WORKS = {
    "tree_write": "write a tree",
    "tree_read": "read a tree",
    "find": "find",
    "find_again": "find, again at once",
    "find_later": f"find, again {PAUSE_SECONDS} s later",
    "ls": "ls -l of one directory",
    "big_write": "write a big file",
    "big_read": "read a big file",
}


class Bench:
    """Runs all works once over one drive, each on a fresh mount, so that the caches of the
    kernel and the drive are empty."""

    def __init__(self, directory, scratch, files, mib, limit):
        self._files, self._limit, self._scratch = files, limit, scratch
        self._served, self._mount, self._tree, self._big = (
            os.path.join(directory, name) for name in ("served", "mnt", "tree", "big"))
        os.mkdir(self._mount)
        contents = random.Random(1)
        for number in range(files):
            parent = os.path.join(self._tree, f"dir{number % DIRECTORIES:02}")
            os.makedirs(parent, exist_ok=True)
            with open(os.path.join(parent, f"file{number:05}"), "wb") as file:
                file.write(contents.randbytes(FILE_SIZE))
        with open(self._big, "wb") as file:
            for _ in range(mib):
                file.write(contents.randbytes(MIB))
        os.sync()

    def run(self, drive, delay_ms, report):
        """The seconds of each work by its key."""
        times = {}

        def record(key, *command):
            times[key] = self._time(command)
            report(WORKS[key], times[key])

        def mounted():
            return drive.mounted(self._served, self._mount, self._scratch, delay_ms)

        os.mkdir(self._served)
        tree, big = os.path.join(self._mount, "tree"), os.path.join(self._mount, "big")
        copy = os.path.join(self._scratch, "copy")
        find = ("find", tree, "-type", "f", "-size", "+0")
        try:
            with mounted():
                record("tree_write", "cp", "-r", self._tree, tree)
            self._check_tree(os.path.join(self._served, "tree"))
            with mounted():
                record("tree_read", "cp", "-r", tree, copy)
            self._check_tree(copy)
            with mounted():
                record("find", *find)
                record("find_again", *find)
                time.sleep(PAUSE_SECONDS)
                record("find_later", *find)
            with mounted():
                record("ls", "ls", "-l", os.path.join(tree, "dir00"))
            with mounted():
                record("big_write", "dd", f"if={self._big}", f"of={big}", "bs=1M", "conv=fsync")
            if not filecmp.cmp(self._big, os.path.join(self._served, "big"), shallow=False):
                raise Failure("the big file differs from its source")
            with mounted():
                record("big_read", "dd", f"if={big}", "of=/dev/null", "bs=1M")
        finally:
            if not is_mounted(self._mount):
                shutil.rmtree(self._served)
                shutil.rmtree(copy, ignore_errors=True)
        return times

    def _time(self, command):
        start = time.perf_counter()
        try:
            done = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                  stderr=subprocess.PIPE, text=True, timeout=self._limit)
        except subprocess.TimeoutExpired:
            raise Failure(f"`{command[0]}` took more than {self._limit} s") from None
        seconds = time.perf_counter() - start
        if done.returncode != 0:
            raise Failure(f"`{' '.join(command)}` failed:\n{done.stderr.strip()[:2000]}")
        return seconds

    def _check_tree(self, tree):
        """Times of wrong results would mean nothing."""
        compared = 0
        for parent, _, files in os.walk(self._tree):
            copy = os.path.join(tree, os.path.relpath(parent, self._tree))
            same, differing, lost = filecmp.cmpfiles(parent, copy, files, shallow=False)
            if differing or lost:
                raise Failure(f"{copy} differs from its source: {(differing + lost)[:5]}")
            compared += len(same)
        if compared != self._files:
            raise Failure(f"{compared} files of {self._files} were compared")
