"""Disks that are full, write-protected, broken, gone or hanging while they are served."""

import contextlib
import fcntl
import os
import signal
import struct
import subprocess
import threading
import time

from served import Host, Client, Request, eventually, expect

SHUTDOWN, WITHOUT_LOG = 0x8004587D, struct.pack("<I", 2)  # the ext4 ioctl
UNCONFINED = "--sandbox=off"  # what is mounted later is out of a confined host's reach
CHUNK = os.urandom(65536)


def run(*command):
    subprocess.run(command, check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)


class LoopDisk:
    """An ext4 file system in a file, mounted while its block lasts."""

    def __init__(self, work, megabytes):
        self.image, self.path = f"{work}/image", f"{work}/disk"
        os.makedirs(self.path)
        run("truncate", "-s", f"{megabytes}M", self.image)
        run("mkfs.ext4", "-q", "-F", self.image)

    def mount(self):
        run("mount", "-o", "loop", self.image, self.path)

    def unmount(self):
        return subprocess.run(["umount", self.path], check=False,
                              stderr=subprocess.DEVNULL).returncode == 0

    def mount_again(self):
        expect(eventually(self.unmount), "cannot be unmounted")
        self.mount()

    def __enter__(self):
        self.mount()
        return self

    def __exit__(self, *_):
        subprocess.run(["umount", "-l", self.path], check=False, stderr=subprocess.DEVNULL)

    def contents(self, name):
        with open(f"{self.path}/{name}", "rb") as file:
            return file.read()


def changes(name):
    directory, linked, renamed = name + b"-d", name + b"-l", name + b"-r"
    return [Request(103, name), Request(106, name, data=b"new"), Request(109, name),
            Request(110, name), Request(111, name), Request(112, name), Request(114, directory),
            Request(115, directory), Request(116, name, to=linked), Request(118, name, to=renamed),
            Request(117, renamed), Request(117, linked)]


def saved(client, name, data):
    return client.succeeds(Request(103, name), Request(106, name, data=data), Request(110, name))


def full(programs, work):
    with LoopDisk(work, 4) as disk, Host(programs, disk.path) as host, Client(host) as client:
        safe = next(n for n in range(1000) if not saved(client, b"/f%d" % n, CHUNK))
        more = Request(106, b"/f0", data=CHUNK, offset=len(CHUNK))
        expect(not client.succeeds(more), "written to a full disk")
        expect(client.succeeds(Request(117, b"/f1"), more, Request(110, b"/f0")), "still full")
        client.socket.close()
        disk.mount_again()
        expect(disk.contents("f0") == CHUNK * 2, "f0 is not what was told")
        for number in range(2, safe):
            expect(disk.contents(f"f{number}") == CHUNK, f"f{number} is not what was told")
    print(f"  {safe} files of 64 KiB were confirmed and are safe; then writes fail until there "
          "is space again")


def read_only(programs, work):
    with LoopDisk(work, 8) as disk, Host(programs, disk.path) as host, Client(host) as client:
        expect(saved(client, b"/old", b"old"), "not writable")
        run("mount", "-o", "remount,ro", disk.path)
        refused = changes(b"/old") + changes(b"/new")
        expect(not any([client.succeeds(request) for request in refused]), "changed")
        expect(client.ask(Request(105, b"/old"))[-3:] == b"old", "cannot be read")
        run("mount", "-o", "remount,rw", disk.path)
        expect(client.succeeds(*changes(b"/new")), "not writable again")
    print(f"  {len(refused)} changes fail; after the remount they succeed")


def shutdown(programs, work):
    with LoopDisk(work, 32) as disk, Host(programs, disk.path, UNCONFINED) as host:
        with Client(host) as client, open(f"{disk.path}/root", "wb") as root:
            timer = threading.Timer(1, lambda: fcntl.ioctl(root, SHUTDOWN, WITHOUT_LOG))
            timer.start()
            safe = next(n for n in range(100000) if not saved(client, b"/g%d" % n, b"%d" % n))
            timer.join()
            after = changes(b"/after")
            expect(not any([client.succeeds(request) for request in after]), "a success afterwards")
        disk.mount_again()
        for number in range(safe):
            expect(disk.contents(f"g{number}") == b"%d" % number, f"file {number} is lost")
        with Client(host) as client:
            expect(client.succeeds(*after), "not served again")
    print(f"  the {safe} files that were told to be safe before the shutdown are; every change "
          "after it fails; mounted again, the disk is served again")


def unmounted(programs, work):
    with LoopDisk(work, 32) as disk, Host(programs, disk.path, UNCONFINED) as host, Client(host) as client:
        expect(saved(client, b"/file", CHUNK), "not writable")
        stop, good, bad = threading.Event(), [], []
        requests = [Request(105, b"/file", size=65536), Request(107, b"/"), Request(103, b"/new"),
                    Request(106, b"/new", data=b"x"), Request(102, b"/file")]

        def load():
            while not stop.is_set():
                for request in requests:
                    (good if client.succeeds(request) else bad).append(request.cmd)

        def grows(counts):
            before = len(counts)
            return eventually(lambda: len(counts) > before + 500)
        thread = threading.Thread(target=load)
        thread.start()
        try:
            expect(grows(good), "no load")
            attempts = next(n for n in range(1, 10000) if disk.unmount())
            served = len(good)
            expect(grows(bad) and len(good) <= served + 2, "served without the disk")
            expect(os.listdir(disk.path) == [], "written below the mount point")
            disk.mount()
            expect(grows(good), "not served again")
        finally:
            stop.set()
            thread.join()
    print(f"  unmounted at attempt {attempts}; then every request fails and nothing is written to "
          "the directory below; mounted again, the disk is served again")


def stop(process):
    """Stops every thread of it, and waits until they are."""
    process.send_signal(signal.SIGSTOP)
    def states():
        for thread in os.listdir(f"/proc/{process.pid}/task"):
            with open(f"/proc/{process.pid}/task/{thread}/stat", encoding="ascii") as stat:
                yield stat.read().rsplit(")", 1)[1].split()[0]
    expect(eventually(lambda: set(states()) == {"T"}), "it does not stop")


def hanging(programs, work):
    mount = f"{work}/disk/there"
    os.makedirs(mount)
    os.makedirs(f"{work}/far")
    with contextlib.ExitStack() as stack:
        far = stack.enter_context(Host(programs, f"{work}/far"))
        drive = subprocess.Popen([f"{programs}/udisk-mount", "-f", far.socket, mount])
        stack.callback(drive.wait)
        stack.callback(run, "fusermount3", "-u", mount)
        stack.callback(drive.send_signal, signal.SIGCONT)
        expect(eventually(lambda: os.path.ismount(mount)), "no drive")
        host = stack.enter_context(Host(programs, f"{work}/disk"))
        stack.callback(drive.send_signal, signal.SIGCONT)  # before the host is waited for
        client = stack.enter_context(Client(host))
        expect(saved(client, b"/there/file", b"x"), "the drive does not work")
        stop(drive)
        sent = [client.send(Request(*r)) for r in ((102, b"/there/a"), (119, b"/"), (103, b"/there/b"))]
        client.socket.settimeout(3)
        with contextlib.suppress(TimeoutError):
            raise AssertionError(f"an answer while the disk hangs: {client.take()}")
        drive.send_signal(signal.SIGCONT)
        client.socket.settimeout(20)
        expect([client.take()[0] for _ in sent] == sent, "not answered afterwards")
        stop(drive)
        client.send(Request(102, b"/there/c"))
        time.sleep(0.5)
        host.may_be_over = True
        host.process.send_signal(signal.SIGTERM)
        with contextlib.suppress(subprocess.TimeoutExpired):
            raise AssertionError(f"did not wait for the disk: {host.process.wait(3)}")
        host.process.send_signal(signal.SIGTERM)
        code = host.process.wait(5)
    print("  requests wait, in order, and are answered when the disk goes on; the first signal "
          f"waits for the disk, the second ends the host at once with code {code}")


SCENARIOS = {"full": full, "read-only": read_only, "shutdown": shutdown, "unmounted": unmounted,
             "hanging": hanging}


def missing():
    """The reason why these cannot run, or nothing."""
    if os.geteuid() != 0:
        return "only root can mount"
    if not os.path.exists("/dev/loop-control"):
        return "there are no loop devices"
    return None if os.path.exists("/dev/fuse") else "there is no /dev/fuse"
