"""The servers that are compared. Each serves the same image over a Unix socket of its own.

A server's `fresh` starts it, or starts it anew, so that nothing was written through it; `start` is where the
measured volume begins on what it serves. A server with an overlay forgets what was written; one that
writes to the image keeps it."""
import dataclasses
import os
import pathlib
import socket
import subprocess
import time

START_SECONDS = 20
STOP_SECONDS = 20


class Server:
    """A process that is started with a socket to listen on and ended by its process id."""
    name = ""
    label = ""
    start = 0  # bytes
    forgets = True  # what was written, at a fresh start

    def __init__(self, folder, image):
        self.folder, self.image = folder, image
        self.socket = folder / f"{self.name}.sock"
        self.log = folder / f"{self.name}.log"
        self.process = None

    def command(self):
        raise NotImplementedError

    def listens_last(self):
        """The socket that the server makes when all else is ready."""
        return self.socket

    @property
    def pid(self):
        return self.process.pid

    @property
    def listens_on(self):
        """The socket for clients."""
        return self.socket

    @property
    def uri(self):
        return f"nbd+unix:///?socket={self.listens_on}"

    def fresh(self):
        self.stop()
        # An overlay lies where the image lies.
        environment = dict(os.environ, TMPDIR=str(self.folder))
        with open(self.log, "wb") as log:
            self.process = subprocess.Popen(self.command(), env=environment, stderr=log)
        self.wait_until_it_listens()

    def wait_until_it_listens(self):
        end = time.monotonic() + START_SECONDS
        while True:
            with socket.socket(socket.AF_UNIX) as probe:
                try:
                    return probe.connect(str(self.listens_last()))
                except OSError:
                    if time.monotonic() > end or self.process.poll() is not None:
                        raise RuntimeError(f"{self.label} does not serve: {self.log.read_text()}") from None
            time.sleep(0.02)

    def stop(self):
        if self.process is not None:
            self.process.terminate()
            try:
                self.process.wait(timeout=STOP_SECONDS)
            except subprocess.TimeoutExpired:  # nothing that it holds is needed
                self.process.kill()
                self.process.wait()
            self.process = None
        self.socket.unlink(missing_ok=True)

    def takes(self, case):
        """The requests that it is measured with in this case, or None."""
        return case

    def target(self):
        """What fio reads and writes."""
        return ["--ioengine=nbd", f"--uri={self.uri}"]

    def files(self):
        """Where the data lies that it serves."""
        return [self.image]

    def forget(self):
        """Takes its data out of the host's memory, and nobody else's."""
        for path in filter(os.path.exists, self.files()):  # an overlay may be still to come
            descriptor = os.open(path, os.O_RDONLY)
            os.fsync(descriptor)
            os.posix_fadvise(descriptor, 0, 0, os.POSIX_FADV_DONTNEED)
            os.close(descriptor)

    def check(self, written):
        """Called when so many bytes were written through it since `fresh`, each place counted once."""

    def check_session(self):
        """Called when something was written through it since `fresh`."""

    def memory(self):
        """Resident bytes that are the server's own: its anonymous memory."""
        for line in pathlib.Path(f"/proc/{self.pid}/status").read_text().splitlines():
            if line.startswith("RssAnon:"):
                return int(line.split()[1]) * 1024
        raise RuntimeError("the kernel does not tell a process's memory")


class File(Server):
    """nbdkit's file plugin: the floor."""
    name, label, forgets = "file", "nbdkit file (floor)", False

    def command(self):
        return ["nbdkit", "-f", "-U", str(self.socket), "file", str(self.image)]


class Device(Server):
    """No server: the same file read with nothing between, in random pieces of 4 KiB, 16 at once."""
    name, label, pid = "device", "device, 4 KiB at depth 16", None

    def takes(self, case):
        return dataclasses.replace(case, pattern="randread", block=4096, depth=16) if case.is_read else None

    def target(self):
        return ["--ioengine=libaio", "--direct=1", f"--filename={self.image}"]

    def fresh(self):
        pass


class Cow(Server):
    """nbdkit's copy-on-write filter with its own block size, 64 KiB."""
    name, label = "cow", "nbdkit cow, 64 KiB"
    options = []

    def command(self):
        return ["nbdkit", "-f", "-U", str(self.socket), "--filter=cow", "file", str(self.image), *self.options]


class Cow4k(Cow):
    name, label = "cow4k", "nbdkit cow, 4 KiB"
    options = ["cow-block-size=4096"]


class Qcow2(Server):
    """qemu-nbd with an overlay of qemu's format, with the settings that both come with."""
    name, label = "qcow2", "qemu-nbd qcow2"

    def files(self):
        return [self.image, self.folder / "overlay.qcow2"]

    def command(self):
        overlay = self.folder / "overlay.qcow2"
        overlay.unlink(missing_ok=True)
        subprocess.run(["qemu-img", "create", "-q", "-f", "qcow2", "-b", str(self.image), "-F", "raw", str(overlay)],
                       check=True)
        return ["qemu-nbd", "-f", "qcow2", "-t", "-e", "16", "-k", str(self.socket), str(overlay)]
