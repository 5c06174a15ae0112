"""Kvr's server: a machine with a protected volume and one that is not, on one disk."""
import json
import struct
import subprocess
import servers

SECTOR = 512


def partitions(image):
    """Where the partitions of a GPT disk begin and how long they are, in bytes."""
    with open(image, "rb") as file:
        table = file.read(34 * SECTOR)
    entries = (table[at:at + 128] for at in range(2 * SECTOR, len(table), 128))
    ends = [struct.unpack_from("<QQ", entry, 32) for entry in entries if any(entry[:16])]
    return [(first * SECTOR, (last + 1 - first) * SECTOR) for first, last in ends]


class Kvr(servers.Server):
    """A protected volume: a boot of its machine throws away what was written before."""
    name, label, volume = "kvr", "Kvr, protected", 0

    def __init__(self, machine):
        super().__init__(machine.folder, machine.image)
        self.machine = machine
        self.start = machine.partitions[self.volume][0]

    def fresh(self):
        self.machine.restart()

    def stop(self):
        self.machine.stop()

    def check(self, written):
        """Fails unless the swap holds what was written: only then a protected volume was measured."""
        used = self.machine.swap_used(self.volume)
        if used != written:
            raise RuntimeError(f"{self.label}: {used} bytes are redirected, {written} were written")

    def check_session(self):
        if self.machine.swap_used(self.volume) == 0:
            raise RuntimeError(f"{self.label}: nothing is redirected")

    @property
    def pid(self):
        return self.machine.server.pid

    @property
    def listens_on(self):
        return self.machine.server.socket


class KvrBefore(Kvr):
    """Another build."""
    name, label = "kvr-before", "Kvr, protected, before"


class KvrOpen(Kvr):
    """A volume of the same machine that is not protected."""
    name, label, volume, forgets = "kvr-open", "Kvr, unprotected", 1, False

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
    """A machine of volumes of one size, the first of them with storage and protected."""

    def __init__(self, build, folder, plan, fs="ntfs", volumes=2):
        self.folder = folder
        self.kvrhost = build / "tool" / "kvrhost"
        self.kvrctl = build / "tool" / "kvrctl"
        self.run(self.kvrhost, "create", str(folder), "--size", str(volumes * plan.volume), "--volumes",
                 str(volumes), "--fs", fs)
        self.image = folder / "disk0.img"
        self.partitions = partitions(self.image)
        self.server = Nbdkit(folder, self.image, build / "nbd" / "nbdkit-kvr-plugin.so")
        self.plan = plan

    def servers(self):
        return [KvrOpen(self), Kvr(self)]

    def protect(self):
        """Makes the storage and protects the first volume from the next boot on."""
        self.restart()
        self.make_storage()
        self.protect_first()
        self.stop()

    def make_storage(self):
        self.control("swap", "make", "HarddiskVolume1", str(self.plan.swap))

    def protect_first(self, at_boot="discard"):
        self.control("protect", "HarddiskVolume1", "--at-boot", at_boot)

    def restart(self):
        """Two boots: the one that throws a map away has held it in memory."""
        self.server.fresh()
        self.server.fresh()

    def stop(self):
        self.server.stop()

    def swap(self, volume):
        """What the driver reports of the storage of the machine's volume of that index."""
        name = f"\\Device\\HarddiskVolume{volume + 1}"
        status = json.loads(self.control("status", "--json"))
        return next(each["swap"] for each in status["volumes"] if each["name"] == name)

    def swap_used(self, volume):
        """Bytes of swap in use by the machine's volume of that index."""
        return self.swap(volume)["usedBytes"]

    def control(self, *words):
        return self.run(self.kvrctl, "--machine", str(self.folder), *words)

    @staticmethod
    def run(program, *words):
        """What the program printed; an exception, with its complaint, when it failed."""
        done = subprocess.run([str(program), *words], capture_output=True, text=True, timeout=600)
        if done.returncode != 0:
            raise RuntimeError(f"{program.name} {' '.join(words)}: {done.stderr}")
        return done.stdout
