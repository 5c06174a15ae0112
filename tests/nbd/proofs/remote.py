#!/usr/bin/python3
"""A machine on disks of other servers: a qcow2 file by qemu-nbd, and nbdkit with TLS. Protected work leaves the qcow2
file's disk as it was; a client's FUA reaches the remote server as a flush; a server's failing writes are errors and the
machine goes on; a read's runs are under way together. (Servers that die under load are the disk's own test's.)"""
import os
import sys

import image
import proof
from machine import MIB, VOLUME, Machine
from proof import require, run, say, wait_until

SIZE, SWAP = 256 * MIB, 64 * MIB


def on_qcow2(given, build):
    raw, qcow2, socket = (given.scratch / name for name in ("user.raw", "user.qcow2", "qemu.sock"))
    Machine(given, build, "--size", str(SIZE), "--layout", "mbr", name="made").image.rename(raw)
    run("qemu-img", "convert", "-O", "qcow2", raw, qcow2)
    remote = given.start("qemu-nbd", "-t", "-f", "qcow2", "--socket", socket, qcow2)
    wait_until(socket.exists, "the remote server is ready")
    pc = Machine(given, build, "--disk", f"nbd+unix:///?socket={socket}", name="qcow2")
    done = run(pc.kvrhost, "create", given.scratch / "other", "--disk", f"nbd+unix:///?socket={socket}", check=False)
    require(done.returncode != 0 and str(pc.folder) in done.stdout, f"another machine on it: {done.stdout}")
    pc.serve()
    pc.protect(str(SWAP))
    run("qemu-img", "convert", "-U", "-O", "raw", qcow2, raw)
    allowed = image.storage(raw, SWAP, given.scratch)
    fixed = image.Fixed(raw, given.scratch, allowed)
    place = 140 * MIB  # off the file system's own tables
    run("qemu-io", "-f", "raw", "-c", f"write -P 3 {place} 8M", "-c", "flush", "-c", f"read -P 3 {place} 8M", pc.uri())
    pc.reboot()
    pc.stop()
    proof.end_process(remote)
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
    given.start("nbdkit", "--foreground", "--pidfile", pidfile, "--ipaddr", "127.0.0.1", "--port", port, "--tls=require",
                f"--tls-certificates={pki}", "--filter=log", "--filter=error", "file", disk, f"logfile={log}",
                "error-pwrite=EIO", "error-pwrite-rate=100%", f"error-pwrite-file={given.scratch}/fails")
    wait_until(pidfile.exists, "the remote server is ready")
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
    (given.scratch / "fails").touch()
    done = run("qemu-io", "-f", "raw", "-c", f"write -P 7 {180 * MIB} 64k", pc.uri(), check=False)
    require(done.returncode != 0, "a failing write succeeds")
    (given.scratch / "fails").unlink()
    run("qemu-io", "-f", "raw", "-c", f"read -P 6 {180 * MIB} 64k", "-c", f"write -P 8 {180 * MIB} 64k", pc.uri())
    pc.stop()
    run("qemu-io", "-f", "raw", "-c", f"read -P 8 {180 * MIB} 64k", disk)


def under_way(log):
    """The most reads that the server of this log had begun and not ended."""
    now = most = 0
    for line in log.read_text().splitlines():
        now += (" Read " in line) - ("...Read " in line)
        most = max(most, now)
    return most


def in_pieces(given, build):
    """A range that was written in pieces, in an order of their own, lies as scattered on a slow disk."""
    log, socket, pidfile = (given.scratch / name for name in ("slow.log", "slow.sock", "slow.pid"))
    disk = Machine(given, build, "--size", str(SIZE), name="of the slow").image
    given.start("nbdkit", "--foreground", "--pidfile", pidfile, "--unix", socket, "--filter=log", "--filter=delay", "file",
                disk, f"logfile={log}", "rdelay=2ms")
    wait_until(pidfile.exists, "the remote server is ready")
    pc = Machine(given, build, "--disk", f"nbd+unix:///?socket={socket}", name="slow")
    pc.serve()
    pc.protect(str(SWAP))
    places = {180 * MIB + 4096 * piece: piece % 250 + 1 for piece in ((37 * i) % 64 for i in range(64))}
    run("qemu-io", "-f", "raw", *(word for at, byte in places.items() for word in ("-c", f"write -P {byte} {at} 4k")), pc.uri())
    log.write_text("")
    run("qemu-io", "-f", "raw", "-c", f"read {180 * MIB} 256k", pc.uri())
    require(under_way(log) >= 4, f"at most {under_way(log)} runs of a read are under way at once")
    run("qemu-io", "-f", "raw", *(word for at, byte in places.items() for word in ("-c", f"read -P {byte} {at} 4k")), pc.uri())
    pc.stop()


def body(given):
    proof.need_program("qemu-nbd", "qemu-io", "qemu-img", "openssl", "nbdkit")
    os.environ["XDG_STATE_HOME"] = str(given.scratch / "state")
    say("qcow2 by qemu-nbd")
    on_qcow2(given, sys.argv[1])
    say("nbdkit with TLS")
    with_tls(given, sys.argv[1])
    say("a slow server")
    in_pieces(given, sys.argv[1])


proof.main(body, seconds=90)
