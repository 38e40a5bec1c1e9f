"""The host, its peer and the bare system calls at the same works, in turns."""

import contextlib
import os
import random
import shutil
import socket
import subprocess
import sys
import tempfile
import time

from tables import sftp_server

from .works import WORKS

KIB, MIB = 1 << 10, 1 << 20
FILES, FILE_SIZE, MANY, BIG_SIZE = 2000, 4 * KIB, 10_000, 256 * MIB  # as in side.h
SEEDS = {"udisk": 0, "peer": 1, "posix": 2}  # the MiB of the big file that a side writes
MEMORY_SECONDS = 0.2


@contextlib.contextmanager
def tree(parent):
    """A directory with the served files in `disk`, on the disk already."""
    directory = tempfile.mkdtemp(prefix="udisk-peers-", dir=parent)
    try:
        disk = os.path.join(directory, "disk")
        contents = random.Random(1)
        for name in ("files", "many"):
            os.makedirs(os.path.join(disk, name))
        for number in range(FILES):
            with open(f"{disk}/files/file{number:04}", "wb") as file:
                file.write(contents.randbytes(FILE_SIZE))
        for number in range(MANY):
            open(f"{disk}/many/name{number}", "wb").close()
        for name in ("big", "written"):
            with open(f"{disk}/{name}", "wb") as file:
                for _ in range(BIG_SIZE // MIB):
                    file.write(contents.randbytes(MIB))
                os.fsync(file.fileno())
        yield directory
    finally:
        shutil.rmtree(directory)


class Side:
    """A server, where there is one, and the client that uses it."""

    def __init__(self, name, options, directory):
        self.name, self._disk = name, os.path.join(directory, "disk")
        self._log = os.path.join(directory, f"{name}.log")
        self.server = self._client = None
        near = socket.socket(socket.AF_UNIX)
        try:
            if name == "udisk":
                path = os.path.join(directory, "host.sock")
                self._serve([os.path.join(options.bin, "udisk-host"), "serve", self._disk,
                             "--socket", path], subprocess.DEVNULL)
                self._connect(near, path)
            elif name == "peer":
                near, far = socket.socketpair()
                with far:
                    self._serve([sftp_server() or sys.exit(
                        "compare-peers: sftp-server is not there; "
                        "please run `scripts/setup.sh drives`"), "-d", self._disk], far)
            os.set_inheritable(near.fileno(), True)
            self._client = subprocess.Popen(
                [os.path.join(options.bin, "udisk_bench_peers"), name, self._disk,
                 str(near.fileno())], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                pass_fds=[near.fileno()], text=True)
        except BaseException:
            self.close()
            raise
        finally:
            near.close()

    def _serve(self, command, stream):
        with open(self._log, "wb") as log:
            self.server = subprocess.Popen(command, stdin=stream, stdout=stream, stderr=log)

    def _connect(self, near, path):
        for _ in range(4000):
            with contextlib.suppress(OSError):
                return near.connect(path)
            if self.server.poll() is not None:
                break
            time.sleep(0.005)
        with open(self._log, encoding="utf-8") as log:
            sys.exit(f"compare-peers: the host cannot be reached; its log:\n{log.read()}")

    def run(self, work, seconds=0.0, items=0):
        """The units done, and the seconds taken."""
        print(work.kind, work.in_flight, work.size, seconds, items, file=self._client.stdin,
              flush=True)
        answer = self._client.stdout.readline().split()
        if not answer:
            sys.exit(f"compare-peers: {self.name}, {work.key}: failed")
        return [float(word) for word in answer]

    def check(self, work):
        """Times of wrong results would mean nothing."""
        self.run(work, items=work.check_items)
        if work.kind not in ("writes", "chunks"):
            return
        distance = 2 * work.size if work.kind == "chunks" else work.size
        with open(f"{self._disk}/big", "rb") as big, open(f"{self._disk}/written", "rb") as file:
            big.seek(SEEDS[self.name] * MIB)
            right = big.read(work.size)
            for offset in range(0, BIG_SIZE, distance):
                file.seek(offset)
                if file.read(work.size) != right:
                    sys.exit(f"compare-peers: {self.name}, {work.key}: the written file is wrong")

    def processor_time(self):
        # The clock of all threads of another process, as clock_getcpuclockid numbers it.
        return time.clock_gettime(~self.server.pid << 3 | 2) if self.server else 0.0

    def memory(self):
        """Resident memory in KiB: now, at most, and without pages of files."""
        with open(f"/proc/{self.server.pid}/status", encoding="utf-8") as status:
            fields = dict(line.split(":", 1) for line in status)
        return [int(fields[name].split()[0]) for name in ("VmRSS", "VmHWM", "RssAnon")]

    def reset_peak(self):
        with open(f"/proc/{self.server.pid}/clear_refs", "w", encoding="utf-8") as file:
            file.write("5")

    def close(self):
        if self._client:
            self._client.stdin.close()
            self._client.stdout.close()
            self._client.wait()
        if self.server:
            self.server.terminate()
            try:
                self.server.wait(5)
            except subprocess.TimeoutExpired:
                self.server.kill()
                self.server.wait()


def measure(options):
    works = [work for work in WORKS if not options.works or work.key in options.works]
    results = {"rounds": options.rounds, "seconds": options.seconds, "works": [], "memory": []}
    with tree(options.directory) as directory:
        with contextlib.ExitStack() as stack:
            sides = [stack.enter_context(contextlib.closing(Side(name, options, directory)))
                     for name in SEEDS]
            for work in works:
                results["works"].append(rates(work, sides, options))
        for work in works:
            results["memory"].append(memory(work, options, directory))
    return results


def rates(work, sides, options):
    print(f"# {work.key}", file=sys.stderr)
    sums = {side.name: {"rates": [], "processor_us": []} for side in sides}
    for side in sides:
        side.check(work)
    for _ in range(options.rounds):
        for side in sides:
            used = side.processor_time()
            units, seconds = side.run(work, options.seconds)
            used = side.processor_time() - used
            sums[side.name]["rates"].append(units / seconds)
            sums[side.name]["processor_us"].append(used * 1e6 / units)
    return {"key": work.key, "sides": sums}


def memory(work, options, directory):
    """With servers of their own, whose memory nothing else has touched."""
    print(f"# memory, {work.key}", file=sys.stderr)
    sides = {}
    for name in ("udisk", "peer"):
        with contextlib.closing(Side(name, options, directory)) as side:
            rest = side.memory()[0]
            side.reset_peak()
            side.run(work, MEMORY_SECONDS)
            _, peak, anonymous = side.memory()
            sides[name] = {"rest_kib": rest, "peak_kib": peak, "after_anonymous_kib": anonymous}
    return {"key": work.key, "sides": sides}
