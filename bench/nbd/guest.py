"""A virtual machine's boot to its prompt: a Linux on the measured disk, whose start reads files of many sizes and
writes logs, under qemu with the image itself, with an overlay of qemu's format and with Kvr's server."""
import hashlib
import os
import random
import re
import subprocess
import sys
import time
import servers
from load import Figure, MIB
from sessions import PROOFS, Task, run, timed

sys.path.append(str(PROOFS))
import initrd  # pylint: disable=wrong-import-position

BOOT_SECONDS = 120
FILES = 1500

# The first process: it finds the disk and goes on with what lies there.
INIT = """busybox mount -t devtmpfs dev /dev
busybox mount -t proc proc /proc
busybox --install -s /bin
export PATH=/bin
{modules}
until [ -e /dev/vda1 ]; do sleep 0.02; done
read up idle </proc/uptime
echo "BENCH mounts at $up"
mount -t ext4 /dev/vda1 /mnt || echo "BENCH failed"
. /mnt/start
"""
# The system's own start, and then a look at all of it.
START = """cd /mnt
find system -type f | xargs cat >/dev/null
mkdir -p log
for n in $(seq 40); do
    dd if=/dev/zero of=log/$n bs=16k count=4 2>/dev/null
    [ $((n % 10)) = 0 ] && sync
done
read up idle </proc/uptime
echo "BENCH prompt at $up"
echo "BENCH prompt"
echo 3 >/proc/sys/vm/drop_caches
echo "BENCH digest $(find system -type f | sort | xargs cat | md5sum | cut -c1-32)"
echo "BENCH end"
while true; do sleep 1000; done
"""


class RawDisk(servers.Server):
    """No server: the emulator reads and writes the image."""
    name, label, pid, forgets = "file", "raw image (floor)", None, False

    def fresh(self):
        pass

    def drive(self):
        return f"file={self.image},format=raw"


class OverlayDisk(servers.Qcow2):
    """No server: an overlay that the emulator makes of the image."""
    label, pid = "qcow2 overlay", None

    def fresh(self):
        self.command()  # makes it anew

    def drive(self):
        return f"file={self.folder / 'overlay.qcow2'},format=qcow2"


class FileDisk(servers.File):
    """The image by nbdkit's file plugin."""
    name, label = "nbdkit", "nbdkit file"


def drive(server):
    own = getattr(server, "drive", None)
    return (own() if own else f"file={server.uri},format=raw") + ",if=virtio"


class Guests:
    tasks = [Task("boot", "from power on to the prompt"), Task("system", "of it, from the disk's mount on")]

    def __init__(self, build, folder):
        self.folder = folder
        self.kernel, self.ram_disk = initrd.kernel_and_initrd(
            build / "guest", INIT.format(modules=initrd.load_modules()), folder / "initrd")
        self.digest = None
        self.accelerator = self.find_accelerator()
        print("qemu's processor: " + " ".join(self.accelerator))

    def find_accelerator(self):
        """Hardware's where a kernel says anything with it."""
        fast = ["-accel", "kvm", "-cpu", "host,arch-capabilities=off"]
        console = self.folder / "console"
        probe = self.emulator([*fast, "-serial", f"file:{console}"])
        end = time.monotonic() + 5
        while probe.poll() is None and time.monotonic() < end and not (console.exists() and console.read_bytes()):
            time.sleep(0.1)
        probe.kill()
        probe.wait()
        return fast if console.exists() and console.read_bytes() else ["-accel", "tcg", "-cpu", "max"]

    def emulator(self, options):
        return subprocess.Popen(
            ["qemu-system-x86_64", "-m", "512", "-nodefaults", "-display", "none", "-kernel", str(self.kernel),
             "-initrd", str(self.ram_disk), "-append", initrd.COMMAND_LINE, *options],
            stdin=subprocess.DEVNULL, stderr=subprocess.DEVNULL, cwd=self.folder,
            env=dict(os.environ, TMPDIR=str(self.folder)))

    def install(self, image, start, size):
        """Puts the system on the volume by the file system's own tool."""
        dice = random.Random(23)
        scratch = self.folder / "system"
        (scratch / "system").mkdir(parents=True)
        content = {}
        for number in range(FILES):
            data = dice.randbytes(min(int(dice.lognormvariate(9.7, 1.2)), MIB))
            content[f"system/{number:05}"] = data
            (scratch / f"system/{number:05}").write_bytes(data)
        self.digest = hashlib.md5(b"".join(content[name] for name in sorted(content))).hexdigest()
        (scratch / "start").write_text(START)
        run("mkfs.ext4", "-q", "-F", "-d", scratch, "-E", f"offset={start}", image, f"{size // 1024}k")

    def session(self, server):
        console = self.folder / "console"
        console.write_text("")
        process = None

        def said(what):
            return re.search(rf"BENCH {what}\r?$", console.read_text(errors="replace"), re.M)

        def wait_for(what):
            end = time.monotonic() + BOOT_SECONDS
            while not said(what):
                if process.poll() is not None or time.monotonic() > end or said("failed"):
                    raise RuntimeError(f"{server.label}: the guest: {console.read_text(errors='replace')[-2000:]}")
                time.sleep(0.005)

        def boot():
            nonlocal process
            process = self.emulator([*self.accelerator, "-serial", f"file:{console}", "-drive", drive(server)])
            wait_for("prompt")

        try:
            figure = timed(server, boot)
            wait_for("end")
        finally:
            if process:
                process.terminate()
                process.wait(30)
        if not said(f"digest {self.digest}"):
            raise RuntimeError(f"{server.label}: the guest has read something else: {console.read_text()[-300:]}")
        # By the guest's own clock.
        mounted, prompt = (float(said(rf"{what} ([0-9.]+)").group(1)) for what in ("mounts at", "prompt at"))
        rate = 1 / max(prompt - mounted, 0.01)
        return {"boot": figure, "system": Figure(rate, rate, figure.server_cpu)}
