"""A running udisk-host, and a client that speaks to it in packets."""

import contextlib
import os
import signal
import socket
import struct
import subprocess
import tempfile
import time

# The fields of each command, as struct's letter and a number, a value's name, or a text whose
# length is meant; and texts. In the answer that says that it failed, what begins with ! is -1,
# with ? 0, and with + missing.
FORMS = {
    102: "H:path H:0 path", 103: "I:path I:66 I:420 !i:0 path",
    105: "q:offset i:0 ?I:size I:path I:0 path",
    106: "q:offset ?i:data I:0 I:form H:path H:0 path +data", 107: "Q:7 I:0 H:path H:0 path",
    108: "Q:0 i:0 H:path H:0 path", 109: "q:length I:path !i:0 path", 110: "I:path I:0 !i:0 path",
    111: "!i:0 H:path H:384 path", 112: "I:path i:-1 i:-1 !i:0 path", 113: "I:path I:0 path",
    114: "!i:0 H:path H:493 path", 115: "H:path !h:0 path", 116: "!i:0 H:path H:to path to",
    117: "H:path !h:0 path", 118: "!i:0 H:path H:to path to", 119: "I:path I:0 path",
    120: "I:path I:0 path", 121: "Q:7 ?I:cached H:path ?H:count path +cached", 123: "path",
    200: "H:0 H:path path"}


def eventually(condition, seconds=10):
    end = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > end:
            return False
        time.sleep(0.002)
    return True


def expect(condition, text):
    if not condition:
        raise AssertionError(text)


class Request:
    def __init__(self, cmd, path, **values):
        self.cmd = cmd
        self.values = {"path": path, "offset": 0, "size": 100, "form": 1, "length": 5, **values}
        self.payload, self.failure = self.made(failed=False), self.made(failed=True)

    def made(self, failed):
        made = b""
        for field in FORMS[self.cmd].split():
            mark = field[0] if failed and field[0] in "!?+" else ""
            letter, _, name = field.lstrip("!?+").rpartition(":")
            value = self.values.get(name, name)
            if letter:
                number = len(value) if isinstance(value, bytes) else int(value)
                made += struct.pack("<" + letter, {"!": -1, "?": 0}.get(mark, number))
            elif not mark:
                made += value
        return made


class Host:
    """Serves `directory`. Must be alive at the end of its block, unless `may_be_over`."""

    def __init__(self, programs, directory, *options, environment=None):
        self.work = tempfile.TemporaryDirectory(prefix="udisk-faults-")
        self.socket = f"{self.work.name}/socket"
        self.may_be_over = False
        with open(f"{self.work.name}/log", "wb") as log:
            self.process = subprocess.Popen(
                [f"{programs}/udisk-host", "serve", directory, "--socket", self.socket, *options],
                stdout=subprocess.DEVNULL, stderr=log, env={**os.environ, **(environment or {})})
        self.pid = self.process.pid
        expect(eventually(lambda: "serving" in self.log()), "the host does not start")

    def __enter__(self):
        return self

    def __exit__(self, kind, *_):
        try:
            if kind is None and not self.may_be_over:
                expect(self.process.poll() is None, "the host has died")
                self.process.send_signal(signal.SIGTERM)
                expect(self.process.wait(10) == 0, "the host did not end well")
        finally:
            self.process.kill()
            self.process.wait()
            self.work.cleanup()

    def log(self):
        with open(f"{self.work.name}/log", encoding="utf-8", errors="replace") as log:
            return log.read()

    def descriptors(self):
        return len(os.listdir(f"/proc/{self.pid}/fd"))

    def threads(self):
        """All but the one that writes the log."""
        found = set()
        for name in os.listdir(f"/proc/{self.pid}/task"):
            with contextlib.suppress(OSError):
                with open(f"/proc/{self.pid}/task/{name}/comm", encoding="ascii") as comm:
                    if comm.read() != "udisk-log\n":
                        found.add(int(name))
        return found


class Client:
    def __init__(self, host, greeted=True):
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.settimeout(20)
        self.socket.connect(host.socket)
        self.rest, self.id = b"", 0
        expect(not greeted or (self.take() and self.take()), "no announcement")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.socket.close()

    def send(self, request):
        self.id += 1
        size = 16 + len(request.payload)
        self.socket.sendall(struct.pack("<BBHIII", 0x27, 1, request.cmd, self.id, size, 0)
                            + request.payload)
        return self.id

    def take(self):
        """(request id, payload) of the next answer, or None at the end of the stream."""
        while len(self.rest) < 16 or len(self.rest) < struct.unpack_from("<I", self.rest, 8)[0]:
            try:
                more = self.socket.recv(1 << 20)
            except ConnectionError:
                more = b""
            if not more:
                return None
            self.rest += more
        ident, size = struct.unpack_from("<II", self.rest, 4)
        answer, self.rest = self.rest[16:size], self.rest[size:]
        return ident, answer

    def ask(self, request):
        ident = self.send(request)
        answer = self.take()
        expect(answer is not None and answer[0] == ident, f"no answer to {request.values}")
        return answer[1]

    def succeeds(self, *requests):
        return all([self.ask(request) != request.failure for request in requests])
