"""The drives that are compared: each shows the directory of a server as a mount."""

import os
import re
import socket
import subprocess
import time
from contextlib import ExitStack, contextmanager

READY_SECONDS = 20
END_SECONDS = 60


class Failure(Exception):
    """Something that ends the comparison, with a text for the user."""


class Udisk:
    """udisk-mount over udisk-host."""

    name = "udisk-mount"

    def __init__(self, programs, *options):
        self._programs = programs
        self._options = ["-o", ",".join(options)] if options else []
        for program in ("udisk-host", "udisk-mount", "slow-link"):
            require(os.path.join(programs, program))

    def version(self):
        return " ".join([self.name, *self._options])

    @contextmanager
    def mounted(self, directory, mount_point, scratch, delay_ms):
        """Shows `directory` at `mount_point`; ends with everything written."""
        served = os.path.join(scratch, "host.sock")
        reached = served
        with ExitStack() as stack:
            host = stack.enter_context(
                running([self._program("udisk-host"), "serve", "--socket", served,
                         "--log-level", "off", directory]))
            wait_until(lambda: os.path.exists(served), host, "udisk-host")
            if delay_ms:
                reached = os.path.join(scratch, "slow.sock")
                relay = stack.enter_context(
                    running([self._program("slow-link"), "--delay", str(delay_ms),
                             "--listen", reached, "--connect", served]))
                wait_until(lambda: os.path.exists(reached), relay, "slow-link")
            stack.enter_context(
                mount([self._program("udisk-mount"), "-f", *self._options, reached,
                       mount_point], mount_point))
            yield

    def _program(self, name):
        return os.path.join(self._programs, name)


class Sshfs:
    """sshfs in passive mode: its own client and server without the encryption."""

    name = "sshfs"
    SERVERS = ("/usr/lib/openssh/sftp-server", "/usr/libexec/openssh/sftp-server",
               "/usr/lib/ssh/sftp-server")

    def __init__(self, programs, *options):
        self._options = ["passive", *options]
        self._slow_link = os.path.join(programs, "slow-link")
        require(self._slow_link)
        self._server = next((path for path in self.SERVERS if os.path.exists(path)), None)
        if self._server is None:
            raise Failure("sftp-server is not there; please run `scripts/setup.sh drives`")

    def version(self):
        try:
            text = subprocess.run(["sshfs", "--version"], capture_output=True, text=True).stdout
        except FileNotFoundError:
            raise Failure("sshfs is not there; please run `scripts/setup.sh drives`") from None
        found = re.search(r"SSHFS version (\S+)", text)
        version = [found[1]] if found else []
        return " ".join([self.name, *version, *self._options[1:]])

    @contextmanager
    def mounted(self, directory, mount_point, scratch, delay_ms):
        del scratch
        near, far = socket.socketpair()
        with ExitStack() as stack:
            if delay_ms:
                left = far
                right, far = socket.socketpair()
                with left, right:
                    ends = [left.fileno(), right.fileno()]
                    stack.enter_context(
                        running([self._slow_link, "--delay", str(delay_ms), "--between",
                                 *map(str, ends)], pass_fds=ends))
            with far:
                stack.enter_context(running([self._server], stdin=far, stdout=far))
            with near:
                stack.enter_context(
                    mount(["sshfs", "-f", "-o", ",".join(self._options), f":{directory}",
                           mount_point], mount_point, stdin=near, stdout=near))
            yield


def require(program):
    if not os.access(program, os.X_OK):
        raise Failure(f"{program} is not there; `make bench-drives` builds it")


def is_mounted(path):
    """Does not touch the mount itself, whose server may be gone."""
    path = os.path.realpath(os.path.dirname(path)) + "/" + os.path.basename(path)
    with open("/proc/self/mounts", encoding="utf-8") as table:
        return any(line.split(" ")[1].replace("\\040", " ") == path for line in table)


def wait_until(ready, process, what):
    end = time.monotonic() + READY_SECONDS
    while not ready():
        if process.poll() is not None:
            raise Failure(f"{what} ended at once (exit code {process.returncode})")
        if time.monotonic() > end:
            raise Failure(f"{what} is not ready after {READY_SECONDS} s")
        time.sleep(0.005)


@contextmanager
def running(command, **streams):
    """A server that is ended in the end. A process group of its own keeps Ctrl-C from
    ending it before what uses it is unmounted."""
    process = subprocess.Popen(command, start_new_session=True, **streams)
    try:
        yield process
    finally:
        end(process)


def end(process):
    process.terminate()
    try:
        process.wait(END_SECONDS)
    except subprocess.TimeoutExpired:
        process.kill()
        process.wait()


@contextmanager
def mount(command, mount_point, **streams):
    """The process of a mount, which ends by being unmounted."""
    name = os.path.basename(command[0])
    process = subprocess.Popen(command, start_new_session=True, **streams)
    try:
        wait_until(lambda: is_mounted(mount_point), process, name)
        yield
        unmount(mount_point)
        if process.wait(END_SECONDS) != 0:
            raise Failure(f"{name} ended with exit code {process.returncode}")
    except subprocess.TimeoutExpired:
        raise Failure(f"{name} is still running {END_SECONDS} s after unmounting") from None
    finally:
        if process.poll() is None:
            subprocess.run(["fusermount3", "-uz", mount_point], stderr=subprocess.DEVNULL)
            end(process)


def unmount(mount_point):
    """Unmounts; another program may still use the new mount."""
    for attempt in range(50):
        done = subprocess.run(["fusermount3", "-u", mount_point], capture_output=True, text=True)
        if done.returncode == 0:
            return
        time.sleep(0.1)
    raise Failure(done.stderr.strip())
