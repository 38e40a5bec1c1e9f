"""The drives that are compared: each shows the directory of a server as a mount."""

import os
import re
import socket
import subprocess
import time
from contextlib import ExitStack, contextmanager

from tables import sftp_server

READY_SECONDS = 20
END_SECONDS = 60


class Failure(Exception):
    """Ends the comparison, with a text for the user."""


class Udisk:
    """udisk-mount over udisk-host."""

    def __init__(self, programs, *options):
        self._host, self._mount, self._slow_link = (
            require(os.path.join(programs, name)) for name in ("udisk-host", "udisk-mount", "slow-link"))
        self._options = ["-o", ",".join(options)] if options else []

    def version(self):
        return " ".join(["udisk-mount", *self._options])

    @contextmanager
    def mounted(self, directory, mount_point, scratch, delay_ms):
        """Shows `directory` at `mount_point`; ends with everything written."""
        served, slow = (os.path.join(scratch, name) for name in ("host.sock", "slow.sock"))
        with ExitStack() as stack:
            def listen(path, *command):
                process = stack.enter_context(running(command))
                wait_until(lambda: os.path.exists(path), process)

            listen(served, self._host, "serve", "--socket", served, "--log-level", "off", directory)
            if delay_ms:
                listen(slow, self._slow_link, "--delay", str(delay_ms), "--listen", slow,
                       "--connect", served)
            stack.enter_context(mount([self._mount, "-f", *self._options,
                                       slow if delay_ms else served, mount_point], mount_point))
            yield


class Sshfs:
    """sshfs in passive mode: its own client and server without the encryption."""

    def __init__(self, programs, *options):
        self._options = ["passive", *options]
        self._slow_link = require(os.path.join(programs, "slow-link"))
        self._server = sftp_server() or missing("sftp-server")

    def version(self):
        try:
            text = subprocess.run(["sshfs", "--version"], capture_output=True, text=True).stdout
        except FileNotFoundError:
            missing("sshfs")
        return " ".join(["sshfs", *re.findall(r"SSHFS version (\S+)", text), *self._options[1:]])

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


def missing(program):
    raise Failure(f"{program} is not there; please run `scripts/setup.sh drives`")


def require(program):
    if not os.access(program, os.X_OK):
        raise Failure(f"{program} is not there; `make bench-drives` builds it")
    return program


def is_mounted(path):
    """Does not touch the mount itself, whose server may be gone."""
    path = os.path.realpath(os.path.dirname(path)) + "/" + os.path.basename(path)
    with open("/proc/self/mounts", encoding="utf-8") as table:
        return any(line.split(" ")[1].replace("\\040", " ") == path for line in table)


def wait_until(ready, process):
    end_of_wait = time.monotonic() + READY_SECONDS
    while not ready():
        if process.poll() is not None or time.monotonic() > end_of_wait:
            raise Failure(f"{process.args[0]} is not ready (exit code {process.returncode})")
        time.sleep(0.005)


@contextmanager
def running(command, **streams):
    """A server that is ended in the end. A process group of its own keeps Ctrl-C from
    ending it before its drive is unmounted."""
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
    process = subprocess.Popen(command, start_new_session=True, **streams)
    try:
        wait_until(lambda: is_mounted(mount_point), process)
        yield
        unmount(mount_point)
        if process.wait(END_SECONDS) != 0:
            raise Failure(f"{command[0]} ended with exit code {process.returncode}")
    except subprocess.TimeoutExpired:
        raise Failure(f"{command[0]} runs {END_SECONDS} s after unmounting") from None
    finally:
        if process.poll() is None:
            subprocess.run(["fusermount3", "-uz", mount_point], stderr=subprocess.DEVNULL)
            end(process)


def unmount(mount_point):
    """Unmounts; another program may still use the new mount for a moment."""
    for _ in range(50):
        done = subprocess.run(["fusermount3", "-u", mount_point], capture_output=True, text=True)
        if done.returncode == 0:
            return
        time.sleep(0.1)
    raise Failure(done.stderr.strip())
