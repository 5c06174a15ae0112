"""Clients by libnbd, several at once, and by raw sockets, which break off."""
import contextlib
import random
import socket
import struct
import sys
import threading
import time

from machine import MIB
from proof import SKIP_CODE, require, say

try:
    import nbd
except ImportError:
    print("SKIPPED: no module nbd: python3-libnbd is missing", flush=True)
    sys.exit(SKIP_CODE)

IN_FLIGHT = 16
REQUEST, READ, WRITE = 0x25609513, 0, 1


def connect(uri):
    client = nbd.NBD()
    client.set_strict_mode(0)  # the requests' faults are the server's to find
    client.connect_uri(uri)
    return client


def write(client, data, at, flags=0):
    return client.aio_pwrite(nbd.Buffer.from_bytearray(bytearray(data)), at, flags=flags)


def wait_for(client, cookies):
    """Each of these requests has been answered with success."""
    for cookie in cookies:
        while not client.aio_command_completed(cookie):
            client.poll(-1)


def require_whole_sectors(client, offset, length):
    """Each sector of the range is of one colour: no write was cut inside of it."""
    for start in range(offset, offset + length, MIB):
        data = client.pread(MIB, start)
        for sector in range(0, MIB, 512):
            require(len(set(data[sector:sector + 512])) == 1, f"the sector at {start + sector} is torn")


class Breaker:
    """Works on a stretch of an export by whole sectors, each write of one colour, and is gone with its requests in flight,
    in the middle of one or behind bytes that are none; at times it does not even greet."""

    def __init__(self, pc, export, offset, length, seed):
        self.path, self.export, self.offset, self.length = str(pc.folder / "nbd.sock"), export.encode(), offset, length
        self.dice = random.Random(seed)

    def _arrived(self):
        raw = socket.socket(socket.AF_UNIX)
        raw.settimeout(30)
        raw.connect(self.path)
        return raw

    def _connected(self):
        raw = self._arrived()
        go = struct.pack(">I", len(self.export)) + self.export + struct.pack(">H", 0)
        raw.sendall(struct.pack(">IQII", 3, 0x49484156454F5054, 7, len(go)) + go)
        told = b""
        while b"\0\3\xe8\x89\4\x55\x65\xa9\0\0\0\7\0\0\0\1" not in told:  # the end of the negotiation
            more = raw.recv(4096)
            require(more, "the server hangs up on a new client")
            told += more
        return raw

    def _request(self, number):
        kind, length = self.dice.choice((READ, WRITE)), self.dice.choice((512, 4096, 16384, 65536))
        start = self.offset + self.dice.randrange((self.length - length) // 512) * 512
        head = struct.pack(">IHHQQI", REQUEST, 0, kind, number, start, length)
        return head + (bytes([self.dice.randrange(1, 256)]) * length if kind == WRITE else b"")

    def _ask(self, raw):
        """All requests at once; the client is gone before the answers are read."""
        rest = self.dice.choice((b"", b"", self._request(77)[:self.dice.choice((9, 28, 300))], b"\x01" * 28))
        raw.settimeout(self.dice.choice((0.0005, 0.002, 0.01)))
        with contextlib.suppress(TimeoutError, ConnectionError):
            raw.sendall(b"".join(self._request(number) for number in range(IN_FLIGHT)) + rest)
            if self.dice.random() < 0.5:
                raw.recv(self.dice.choice((1, 16, 5000, 200000)))

    def _talk_nonsense(self):
        with self._arrived() as raw, contextlib.suppress(TimeoutError, ConnectionError):
            greeting = self.dice.choice((b"", struct.pack(">I", 3)))
            raw.sendall(greeting + self.dice.randbytes(self.dice.randrange(1, 4000)))
            raw.settimeout(0.01)
            raw.recv(4096)

    def step(self):
        if self.dice.random() < 0.1:
            self._talk_nonsense()
            return
        with self._connected() as raw:
            self._ask(raw)


def all_at_once(workers, seconds):
    """Each worker takes step after step in a thread of its own; returns what failed."""
    until, failures = time.monotonic() + seconds, []

    def work(worker):
        steps = 0
        try:
            while time.monotonic() < until and not failures:
                worker.step()
                steps += 1
        except Exception as error:  # noqa: BLE001: told by the main thread
            failures.append(f"{type(worker).__name__}: {type(error).__name__}: {error}")
        say(f"{type(worker).__name__}: {steps} steps")

    threads = [threading.Thread(target=work, args=(worker,), daemon=True) for worker in workers]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join(seconds + 60)
        require(not thread.is_alive(), "a request is not answered")
    return "; ".join(failures)


def sanitizer_reports(scratch):
    """What a sanitizer with `log_path` at sanitizer_log() wrote."""
    return "".join(report.read_text()[:6000] for report in sorted(scratch.glob("sanitizer*")))


def sanitizer_log(scratch):
    return f"log_path={scratch}/sanitizer"
