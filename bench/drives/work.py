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


class Source:
    """What is written to the drives: a tree of small files and a big one."""

    def __init__(self, directory, files, mib):
        self.files = files
        self.bytes = mib * MIB
        self.tree = os.path.join(directory, "tree")
        self.big = os.path.join(directory, "big")
        contents = random.Random(1)
        for number in range(files):
            parent = os.path.join(self.tree, f"dir{number % DIRECTORIES:02}")
            os.makedirs(parent, exist_ok=True)
            with open(os.path.join(parent, f"file{number:05}"), "wb") as file:
                file.write(contents.randbytes(FILE_SIZE))
        with open(self.big, "wb") as file:
            for _ in range(mib):
                file.write(contents.randbytes(MIB))
        os.sync()


class Bench:
    """Runs all works once over one drive, each on a mount that was made afresh,
    so that the kernel and the drive know nothing yet."""

    def __init__(self, directory, scratch, source, limit):
        self._source = source
        self._limit = limit
        self._served = os.path.join(directory, "served")
        self._mount_point = os.path.join(directory, "mnt")
        self._scratch = scratch
        os.mkdir(self._mount_point)

    def run(self, drive, delay_ms, report):
        """The seconds of each work by its key."""
        times = {}

        def record(key, seconds):
            times[key] = seconds
            report(WORKS[key], seconds)

        def mounted():
            return drive.mounted(self._served, self._mount_point, self._scratch, delay_ms)

        os.mkdir(self._served)
        mount = self._mount_point
        tree = os.path.join(mount, "tree")
        big = os.path.join(mount, "big")
        copy = os.path.join(self._scratch, "copy")
        try:
            with mounted():
                record("tree_write", self._time("cp", "-r", self._source.tree, tree))
            self._check_tree(os.path.join(self._served, "tree"))
            with mounted():
                record("tree_read", self._time("cp", "-r", tree, copy))
            self._check_tree(copy)
            find = ("find", tree, "-type", "f", "-size", "+0")
            with mounted():
                record("find", self._time(*find))
                record("find_again", self._time(*find))
                time.sleep(PAUSE_SECONDS)
                record("find_later", self._time(*find))
            with mounted():
                record("ls", self._time("ls", "-l", os.path.join(tree, "dir00")))
            with mounted():
                record("big_write", self._time("dd", f"if={self._source.big}", f"of={big}",
                                               "bs=1M", "conv=fsync"))
            self._check_file(os.path.join(self._served, "big"))
            with mounted():
                record("big_read", self._time("dd", f"if={big}", "of=/dev/null", "bs=1M"))
        finally:
            if not is_mounted(mount):
                shutil.rmtree(self._served)
                shutil.rmtree(copy, ignore_errors=True)
        return times

    def _time(self, *command):
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
        for parent, _, files in os.walk(self._source.tree):
            copy = os.path.join(tree, os.path.relpath(parent, self._source.tree))
            _, differing, missing = filecmp.cmpfiles(parent, copy, files, shallow=False)
            if differing or missing:
                raise Failure(f"{copy} differs from what was copied: {(differing + missing)[:5]}")
            compared += len(files)
        if compared != self._source.files:
            raise Failure(f"{compared} files of {self._source.files} were compared")

    def _check_file(self, path):
        if not filecmp.cmp(self._source.big, path, shallow=False):
            raise Failure(f"{path} differs from what was written")
