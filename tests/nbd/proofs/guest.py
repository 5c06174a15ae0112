#!/usr/bin/python3
"""A Linux guest works on the protected disk as its /dev/vda, is reset together with the machine, and finds the state
that it found at first. Arguments: the build's folder."""
import json
import os
import pathlib
import re
import socket
import sys

import image
import initrd
import proof
from machine import Machine
from proof import Failed, require, run, say, wait_until

BOOT_SECONDS = 120  # of a guest whose processor is emulated

INIT = """busybox mount -t devtmpfs dev /dev
busybox mount -t proc proc /proc
busybox --install -s /bin
export PATH=/bin
{modules}
until [ -e /dev/vda1 ]; do sleep 0.1; done
state() {{
    echo 3 >/proc/sys/vm/drop_caches
    (cd /mnt && find . -type f ! -name 'kvr.*' | sort | xargs md5sum | md5sum | cut -c1-32)
}}
mount -t ext4 /dev/vda1 /mnt || echo "PROOF failed: mount"
echo "PROOF found $(state)"
mkdir -p /mnt/work
for n in 1 2 3 4 5 6 7 8; do
    dd if=/dev/urandom of=/mnt/work/$n bs=64k count=$((n * 4)) 2>/dev/null
done
rm /mnt/of-the-fixed-state/1
echo changed >>/mnt/of-the-fixed-state/2
sync
worked=$(state)
umount /mnt
mount -t ext4 /dev/vda1 /mnt || echo "PROOF failed: second mount"
[ "$worked" = "$(state)" ] && echo "PROOF worked $worked" || echo "PROOF failed: own work is not found again"
sync
echo "PROOF ready"
while true; do sleep 1000; done
"""


def make_fixed_state(pc):
    """Some files on the volume, put there through the file system's own tool."""
    offset, length = image.partition(pc.image)
    scratch = pc.folder.parent / "state"
    (scratch / "of-the-fixed-state").mkdir(parents=True)
    for number in range(1, 6):
        (scratch / "of-the-fixed-state" / str(number)).write_bytes(os.urandom(10000 * number))
    run("mkfs.ext4", "-q", "-F", "-d", scratch, "-E", f"offset={offset}", pc.image, f"{length // 1024}k")


class Guest:
    def __init__(self, given, pc, kernel, ram_disk):
        self._console = given.scratch / "console"
        control = given.scratch / "qmp"
        self._process = given.start(
            "qemu-system-x86_64", "-accel", "tcg", "-m", "256", "-nodefaults", "-display", "none", "-kernel", kernel,
            "-initrd", ram_disk, "-append", initrd.COMMAND_LINE, "-serial", f"file:{self._console}",
            "-qmp", f"unix:{control},server=on,wait=off", "-drive", f"file={pc.uri()},format=raw,if=virtio",
            output=given.scratch / "qemu")
        wait_until(control.exists, "the guest's monitor")
        self._monitor = socket.socket(socket.AF_UNIX)
        self._monitor.connect(str(control))
        self._answers = self._monitor.makefile()
        self._answers.readline()
        self._ask("qmp_capabilities")

    def _ask(self, command):
        self._monitor.sendall(json.dumps({"execute": command}).encode())
        while "return" not in self._answers.readline():
            require(self._process.poll() is None, "the virtual machine ends")

    def reset(self):
        self._ask("system_reset")

    def said(self):
        return re.findall(r"PROOF (.*?)\r?$", self._console.read_text(errors="replace"), re.M)

    def wait_for_boot(self, number):
        """What it said in this boot, when it is ready."""
        try:
            wait_until(lambda: self.said().count("ready") == number or self._process.poll() is not None,
                       f"boot {number} of the guest is ready", BOOT_SECONDS)
        except Failed:
            say("the guest's console: " + self._console.read_text(errors="replace")[-3000:])
            raise
        require(self._process.poll() is None, "the virtual machine ended")
        last = " ".join(self.said()).split("ready")[number - 1]
        require("failed" not in last, f"the guest says: {last}")
        say(f"the guest says:{last}")
        return dict(re.findall(r"(found|worked) ([0-9a-f]{32})", last))


def body(given):
    proof.need_program("qemu-system-x86_64", "mkfs.ext4")
    script = INIT.format(modules=initrd.load_modules())
    kernel, ram_disk = initrd.kernel_and_initrd(pathlib.Path(sys.argv[1]) / "guest", script, given.scratch / "initrd")
    pc = Machine(given, sys.argv[1], "--size", "256M", "--fs", "ext4")
    make_fixed_state(pc)
    pc.serve()
    pc.protect("64M")
    guest = Guest(given, pc, kernel, ram_disk)
    first = guest.wait_for_boot(1)
    require(first["worked"] != first["found"], "the guest's work changes nothing")
    require(pc.status()["swap"]["usedBytes"] > 0, "the guest's work is not redirected")
    for number in (2, 3):
        pc.reboot()
        guest.reset()
        again = guest.wait_for_boot(number)
        require(again["found"] == first["found"], "the guest does not find the fixed state after the reset")


proof.main(body, seconds=3 * BOOT_SECONDS)
