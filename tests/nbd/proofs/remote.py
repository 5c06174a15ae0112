#!/usr/bin/python3
"""A machine on disks of other servers: a qcow2 file by qemu-nbd, and nbdkit with TLS. Protected work leaves the qcow2
file's disk as it was; the servers are killed and started anew under load and nobody loses a byte; a client's FUA
reaches the remote server as a flush; a server's failing writes are errors and the machine goes on."""
import os
import pathlib
import sys

import image
import proof
from machine import MIB, VOLUME, Machine
from proof import require, run, say, wait_until

SIZE, SWAP = 256 * MIB, 64 * MIB


class Remote:
    """A server on a socket or a port, which can be killed and started anew."""

    def __init__(self, given, ready, *words, output=None):
        self._given, self._ready, self._words, self._output = given, pathlib.Path(ready), words, output
        self.start()

    def start(self):
        self._ready.unlink(missing_ok=True)
        self._process = self._given.start(*self._words, output=self._output)
        wait_until(self._ready.exists, "the remote server is ready", 10)

    def kill(self):
        self._process.kill()
        self._process.wait()


def work_while_it_dies(given, pc, remote, offset):
    """Blocks of known bytes, each flushed, and the same ones again; the server dies under both."""
    commands = []
    for turn in (1, 2):
        for block in range(600):
            commands += ["-c", f"write -q -P {(block * turn) % 250 + turn} {offset + block * 65536} 64k"]
            if block % 50 == 0:
                commands += ["-c", "flush"]
    client = given.start("qemu-io", "-f", "raw", *commands, pc.uri(), output=given.scratch / "client")
    for _ in range(3):
        try:
            client.wait(0.3)
        except proof.subprocess.TimeoutExpired:
            remote.kill()
            remote.start()
    require(client.wait(60) == 0, f"the client failed: {(given.scratch / 'client').read_text()}")
    reads = [word for block in range(600)
             for word in ("-c", f"read -q -P {(block * 2) % 250 + 2} {offset + block * 65536} 64k")]
    run("qemu-io", "-f", "raw", *reads, pc.uri())


def on_qcow2(given, build):
    raw, qcow2, socket = (given.scratch / name for name in ("user.raw", "user.qcow2", "qemu.sock"))
    Machine(given, build, "--size", str(SIZE), "--layout", "mbr", name="made").image.rename(raw)
    run("qemu-img", "convert", "-O", "qcow2", raw, qcow2)
    remote = Remote(given, socket, "qemu-nbd", "-t", "-f", "qcow2", "--socket", socket, qcow2)
    pc = Machine(given, build, "--disk", f"nbd+unix:///?socket={socket}", name="qcow2")
    done = run(pc.kvrhost, "create", given.scratch / "other", "--disk", f"nbd+unix:///?socket={socket}", check=False)
    require(done.returncode != 0 and str(pc.folder) in done.stdout, f"another machine on it: {done.stdout}")
    pc.serve()
    pc.protect(str(SWAP))
    run("qemu-img", "convert", "-U", "-O", "raw", qcow2, raw)
    allowed = image.storage(raw, SWAP, given.scratch)
    fixed = image.Fixed(raw, given.scratch, allowed)
    work_while_it_dies(given, pc, remote, 140 * MIB)  # off the file system's own tables
    pc.reboot()
    pc.stop()
    remote.kill()
    run("qemu-img", "convert", "-O", "raw", qcow2, raw)
    fixed.require_same(raw, "the qcow2 file's disk")
    run("qemu-img", "check", qcow2)


def certificates(folder):
    """An authority of its own and a server's certificate for localhost, as PEM files of the usual names."""
    folder.mkdir()
    new = ["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-days", "2"]
    run(*new, "-subj", "/CN=authority", "-keyout", folder / "ca-key.pem", "-out", folder / "ca-cert.pem")
    run(*new, "-subj", "/CN=localhost", "-addext", "subjectAltName=DNS:localhost", "-CA", folder / "ca-cert.pem",
        "-CAkey", folder / "ca-key.pem", "-keyout", folder / "server-key.pem", "-out", folder / "server-cert.pem")


def with_tls(given, build):
    pki, log, pidfile = (given.scratch / name for name in ("pki", "remote.log", "remote.pid"))
    certificates(pki)
    disk = Machine(given, build, "--size", str(SIZE), name="of the remote").image
    port = str(20000 + os.getpid() % 30000)
    remote = Remote(given, pidfile, "nbdkit", "--foreground", "--pidfile", pidfile, "--ipaddr", "127.0.0.1", "--port",
                    port, "--tls=require", f"--tls-certificates={pki}", "--filter=log", "--filter=error", "file", disk,
                    f"logfile={log}", "error-pwrite=EIO", "error-pwrite-rate=100%",
                    f"error-pwrite-file={given.scratch}/fails")
    uri = f"nbds://localhost:{port}/"
    certificates(given.scratch / "others")
    for wrong in ("", f"?tls-certificates={given.scratch}/others", "?tls-certificates=pki"):
        done = run(build + "/tool/kvrhost", "create", given.scratch / "untrusted", "--disk", uri + wrong, check=False)
        require(done.returncode != 0, f"trusted with '{wrong}'")
    pc = Machine(given, build, "--disk", f"{uri}?tls-certificates={pki}", name="tls")
    pc.serve()
    flushes = lambda: log.read_text().count(" Flush ")  # noqa: E731
    before = flushes()
    run("qemu-io", "-f", "raw", "-c", f"write -P 5 {180 * MIB} 64k", pc.uri())
    without = flushes() - before
    run("qemu-io", "-f", "raw", "-c", f"write -f -P 6 {180 * MIB} 64k", pc.uri())
    require(flushes() > before + without, "FUA flushes nothing")
    work_while_it_dies(given, pc, remote, 200 * MIB)
    (given.scratch / "fails").touch()
    done = run("qemu-io", "-f", "raw", "-c", f"write -P 7 {180 * MIB} 64k", pc.uri(), check=False)
    require(done.returncode != 0, "a failing write succeeds")
    (given.scratch / "fails").unlink()
    run("qemu-io", "-f", "raw", "-c", f"read -P 6 {180 * MIB} 64k", "-c", f"write -P 8 {180 * MIB} 64k", pc.uri())
    pc.stop()
    run("qemu-io", "-f", "raw", "-c", f"read -P 8 {180 * MIB} 64k", disk)


def body(given):
    proof.need_program("qemu-nbd", "qemu-io", "qemu-img", "openssl", "nbdkit")
    os.environ["XDG_STATE_HOME"] = str(given.scratch / "state")
    say("qcow2 by qemu-nbd")
    on_qcow2(given, sys.argv[1])
    say("nbdkit with TLS")
    with_tls(given, sys.argv[1])


proof.main(body, seconds=90)
