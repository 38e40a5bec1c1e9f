"""Every system call and every allocation of a host's threads fails once."""

import collections
import contextlib
import functools
import mmap
import os
import re
import shutil
import signal
import struct
import subprocess

from served import Host, Client, Request, eventually, expect

# A `close` that is made to fail closes nothing, so that the host could not be right; a `brk` fails
# by returning the old end, and an error would be taken for an address; the others
# are how threads wait and end, and how memory goes back.
UNTOUCHED = {"close", "brk", "futex", "sched_yield", "clock_nanosleep", "madvise", "exit", "munmap",
             "rt_sigprocmask", "rt_sigreturn", "restart_syscall", "set_robust_list", "rseq"}
ERRORS = {name: ["ENOMEM"] for name in ("mmap", "mprotect", "mremap")}
ERRORS |= {name: ["EIO", "EINTR"] for name in ("openat2", "pread64", "pwrite64", "fsync", "ftruncate",
                                               "sendto", "recvmsg")}
ERRORS |= {"openat": ["EIO", "EMFILE"], "clone": ["EAGAIN"], "clone3": ["EAGAIN"]}
SAME = "served all the same"
ROLES = ("outbox", "connection", "data")


class Disk:
    def __init__(self, root):
        self.root = root
        self.put("fixed/still", *"012345")
        os.symlink("5", f"{root}/fixed/still/link")
        with open(f"{root}/large", "wb") as large:
            large.write(os.urandom(300000))

    def put(self, directory, *names):
        os.makedirs(f"{self.root}/{directory}")
        for name in names:
            with open(f"{self.root}/{directory}/{name}", "w", encoding="utf-8") as file:
                file.write(f"contents of {name}")

    def lay_out(self):
        shutil.rmtree(f"{self.root}/own", ignore_errors=True)
        self.put("own", *"abcdefghij")
        os.mkdir(f"{self.root}/own/empty")

    def state(self):
        found = {}
        for directory, inner, files in os.walk(f"{self.root}/own"):
            for path in (os.path.join(directory, name) for name in inner + files):
                found[path] = [os.stat(path).st_mode]
                if not os.path.isdir(path):
                    with open(path, "rb") as file:
                        found[path].append(file.read())
        return found


def requests(cached):
    """One of every command at least; each that changes something has names of its own."""
    still, chunks = b"/fixed/still", b"".join(struct.pack("<qI", n, 3) + b"abc" for n in (0, 10, 20))
    batch = b"".join(Request(105, still + name).payload for name in (b"/1", b"/2", b"/link"))
    return [Request(107, still)] + [Request(cmd, path) for cmd, path in (
        (102, still + b"/1"), (102, b"/none"), (103, b"/own/new"), (103, b"/own/more/new"),
        (105, still + b"/link"), (105, b"/none"), (108, b"/x"), (109, b"/own/a"), (110, b"/own/b"),
        (111, b"/own/c"), (112, b"/own/d"), (113, b"/x"), (114, b"/own/made/too"),
        (115, b"/own/empty"), (117, b"/own/e"), (119, b"/x"), (120, b"/own/f"))] + [
            Request(105, b"/large", offset=100, size=200000), Request(200, b"E:"),
            Request(106, b"/own/g", data=b"x" * 5000), Request(106, b"/own/h", data=chunks, form=0),
            Request(116, b"/own/i", to=b"/own/linked"), Request(118, b"/own/j", to=b"/own/n"),
            Request(123, struct.pack("<I", 3) + batch), Request(121, still, cached=b"\xff", count=1),
            Request(121, still, cached=cached, count=9)]  # no answer: nothing has changed


class Sweep:
    def __init__(self, programs, work):
        self.work, self.disk = work, Disk(f"{work}/disk")
        self.verdicts = collections.Counter()
        with open(f"{work}/control", "wb+") as file:
            file.write(struct.pack("<qqq", 0, -1, 0))
            file.flush()
            self.shared = mmap.mmap(file.fileno(), 24)
        library = os.path.abspath(f"{programs}/../lib/failing_allocator.so")
        self.host = Host(programs, f"{work}/disk", environment={
            "FAILING_ALLOCATOR": f"{work}/control", "LD_PRELOAD": library})
        self.base, self.idle = self.host.descriptors(), self.host.threads()
        with Client(self.host) as client:
            self.requests = requests(client.ask(Request(107, b"/fixed/still"))[28:])
        for _ in range(3):  # the last finds every access time as it stays
            self.disk.lay_out()
            self.expected = self.converse()
            self.after = self.disk.state()
        expect(len(self.expected) == len(self.requests) - 2 + 1, "not all requests are answered")

    @contextlib.contextmanager
    def failing_call(self, name, error, nth, thread, opening):
        """The nth call of a name fails in a thread (or, when opening, in each of the host's)."""
        trace = f"{self.work}/strace"
        inject = [f"-einject={name}:error={error}:when={nth}"] if error else []
        strace = subprocess.Popen(["strace", "-p", str(thread), f"-etrace={name}", "-o", trace,
                                   *inject, *["-f"] * opening], stderr=subprocess.PIPE)
        expect(b"attached" in strace.stderr.readline(), "strace cannot attach")
        try:
            yield
        finally:
            strace.send_signal(signal.SIGINT)
            strace.communicate()
            with open(trace, encoding="utf-8", errors="replace") as file:
                text = file.read()
            self.happened = "(INJECTED)" in text
            self.names = set(re.findall(r"^(?:\d+ +)?(\w+)\(", text, re.M)) - UNTOUCHED

    @contextlib.contextmanager
    def failing_allocation(self, nth, thread, _):
        self.shared[0:16] = struct.pack("<qq", thread, nth - 1)
        try:
            yield
        finally:
            self.happened = struct.unpack_from("<q", self.shared, 8)[0] < 0
            self.shared[8:16] = struct.pack("<q", -1)

    def thread(self, role):
        """The threads of a connection are numbered in the order of their start."""
        expect(eventually(lambda: len(self.host.threads() - self.idle) == len(ROLES)), "unknown threads")
        return sorted(self.host.threads() - self.idle)[ROLES.index(role)]

    def converse(self, role=None, fault=None):
        """All requests to a new connection: {request: answer}; None when it is sent away."""
        with contextlib.ExitStack() as stack:
            if role == "opening":
                stack.enter_context(fault(self.host.pid, True))
            client = stack.enter_context(Client(self.host, greeted=False))
            answers = None
            if client.take() and client.take():
                if role in ROLES:
                    stack.enter_context(fault(self.thread(role), False))
                answers = self.answers(client)
            client.socket.close()
        expect(eventually(lambda: self.host.threads() == self.idle), "a thread stays")
        return answers

    def answers(self, client):
        with contextlib.suppress(ConnectionError):
            for request in self.requests + [Request(119, b"/last")] * 2:
                client.send(request)
        found = {}
        while (answer := client.take()) is not None and answer[0] <= len(self.requests):
            ident, payload = answer
            expect(ident not in found, f"two answers to request {ident}")
            cmd = self.requests[ident - 1].cmd
            if cmd == 103 and payload[12:16] != b"\xff" * 4:  # which descriptor it was
                payload = payload[:12] + payload[16:]
            found[ident] = payload[:26] if cmd == 113 else payload  # free blocks come and go
        found["all"] = answer is not None
        return found

    def classify(self, answers):
        """At most one request is served differently, and then it fails or is not answered."""
        if answers is None:
            return "the client was refused"
        different = {i for i in range(1, len(self.requests) + 1)
                     if answers.get(i) != self.expected.get(i)}
        expect(len(different) <= 1 or not answers["all"], f"several differ: {different}")
        for ident in different & answers.keys():
            expect(self.is_failure(ident, self.requests[ident - 1], answers[ident]),
                   f"a wrong answer to request {ident}: {answers[ident][:60]}")
        state, payloads = self.disk.state(), [self.requests[i - 1].payload for i in different]
        for path in {*self.after, *state}:
            name = os.path.relpath(path, self.disk.root).encode()
            expect(state.get(path) == self.after.get(path) or any(name in p for p in payloads),
                   f"{path} is not what its answer says")
        if not answers["all"]:
            return "the connection ended"
        return (SAME if not different else
                "answered as failed" if different & answers.keys() else "not answered")

    def is_failure(self, ident, request, answer):
        if request.cmd == 123:  # some files exist, some do not
            return answer[:4] == request.payload[:4] and len(answer) < len(self.expected[ident])
        if bytes(120) in answer:  # an entry whose attributes could not be read
            return request.cmd in (107, 121) and len(answer) == len(self.expected[1])
        if request.cmd == 113:  # zeros for what could not be found out
            return answer[:10] == self.expected[ident][:10]
        return answer == request.failure

    def fail_each(self, role, *fault):
        """Until no nth call is left to fail; then all must be as it was."""
        self.happened, nth = True, 0
        while self.happened:
            nth += 1
            self.disk.lay_out()
            try:
                answers = self.converse(role, functools.partial(*fault, nth))
                verdict = self.classify(answers) if self.happened else SAME
                expect("EINTR" not in fault or role == "opening" or verdict == SAME, verdict)
            except (AssertionError, OSError) as problem:
                raise AssertionError(f"{role}, {fault[1:]} {nth}: {problem}") from problem
            self.verdicts[role, verdict] += self.happened
        self.disk.lay_out()
        expect(self.converse() == self.expected, f"after {fault[1:]} the service does not go on")
        expect(eventually(lambda: self.host.descriptors() == self.base),
               f"after {fault[1:]} {self.host.descriptors()} descriptors, not {self.base}")

    def system_calls(self):
        for role in (*ROLES, "opening"):
            self.fail_each(role, self.failing_call, "all", None)
            for name in sorted(self.names):
                for error in ERRORS.get(name, ["EIO"]):
                    self.fail_each(role, self.failing_call, name, error)

    def allocations(self):
        before = struct.unpack_from("<q", self.shared, 16)[0]
        for role in ROLES:
            self.fail_each(role, self.failing_allocation)
        kept = struct.unpack_from("<q", self.shared, 16)[0] - before
        expect(kept < 30, f"{kept} allocations were not freed")


def run(programs, work, what):
    sweep = Sweep(programs, work)
    with sweep.host:
        getattr(sweep, what)()
    for (role, verdict), count in sorted(sweep.verdicts.items()):
        print(f"  {role:10}  {count:5}  {verdict}")
