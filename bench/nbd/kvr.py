"""Kvr's server: a machine with a protected volume and one that is not, on one disk."""
import json
import struct
import subprocess
import servers

SECTOR = 512


def volume_starts(image):
    """Where the partitions of a GPT disk begin, in bytes."""
    with open(image, "rb") as file:
        table = file.read(34 * SECTOR)
    entries = (table[at:at + 128] for at in range(2 * SECTOR, len(table), 128))
    return [struct.unpack_from("<Q", entry, 32)[0] * SECTOR for entry in entries if any(entry[:16])]


class Kvr(servers.Server):
    """A protected volume: a boot of its machine throws away what was written before."""
    name, label, volume = "kvr", "Kvr, protected", 0

    def __init__(self, machine):
        super().__init__(machine.folder, machine.image)
        self.machine = machine
        self.start = machine.volume_starts[self.volume]

    def fresh(self):
        self.machine.restart()

    def stop(self):
        self.machine.stop()

    def check(self, written):
        """Fails unless the swap holds what was written: only then a protected volume was measured."""
        used = self.machine.swap_used(self.volume)
        if used != written:
            raise RuntimeError(f"{self.label}: {used} bytes are redirected, {written} were written")

    @property
    def pid(self):
        return self.machine.server.pid

    @property
    def uri(self):
        return self.machine.server.uri


class KvrBefore(Kvr):
    """Another build."""
    name, label = "kvr-before", "Kvr, protected, before"


class KvrOpen(Kvr):
    """A volume of the same machine that is not protected."""
    name, label, volume = "kvr-open", "Kvr, unprotected", 1

    def check(self, written):
        super().check(0)


class Nbdkit(servers.Server):
    """nbdkit with the plugin."""
    name = "nbd"

    def __init__(self, folder, image, plugin):
        super().__init__(folder, image)
        self.plugin = plugin

    def command(self):
        return ["nbdkit", "-f", "-U", str(self.socket), str(self.plugin), f"machine={self.folder}"]

    def listens_last(self):
        return self.folder / "control.sock"


class Machine:
    """A machine of two volumes, the first of them with storage and protected."""

    def __init__(self, build, folder, plan):
        self.folder = folder
        self.kvrhost = build / "tool" / "kvrhost"
        self.kvrctl = build / "tool" / "kvrctl"
        self.run(self.kvrhost, "create", str(folder), "--size", str(2 * plan.volume), "--volumes", "2")
        self.image = folder / "disk0.img"
        self.volume_starts = volume_starts(self.image)
        self.server = Nbdkit(folder, self.image, build / "nbd" / "nbdkit-kvr-plugin.so")
        self.plan = plan

    def servers(self):
        return [KvrOpen(self), Kvr(self)]

    def protect(self):
        """Makes the storage and protects the first volume from the next boot on."""
        self.restart()
        self.control("swap", "make", "HarddiskVolume1", str(self.plan.swap))
        self.control("protect", "HarddiskVolume1", "--at-boot", "discard")
        self.stop()

    def restart(self):
        """Two boots: the one that throws a map away has held it in memory."""
        self.server.fresh()
        self.server.fresh()

    def stop(self):
        self.server.stop()

    def swap_used(self, volume):
        """Bytes of swap in use by the machine's volume of that index."""
        name = f"\\Device\\HarddiskVolume{volume + 1}"
        status = json.loads(self.control("status", "--json"))
        return next(each["swap"]["usedBytes"] for each in status["volumes"] if each["name"] == name)

    def control(self, *words):
        return self.run(self.kvrctl, "--machine", str(self.folder), *words)

    @staticmethod
    def run(program, *words):
        """What the program printed; an exception, with its complaint, when it failed."""
        done = subprocess.run([str(program), *words], capture_output=True, text=True, timeout=120)
        if done.returncode != 0:
            raise RuntimeError(f"{program.name} {' '.join(words)}: {done.stderr}")
        return done.stdout
