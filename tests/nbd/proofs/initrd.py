"""What a guest boots from: Debian's kernel for clouds and its static busybox, as packages of this system's own
sources, unpacked and not installed; and an initial RAM disk made of them."""
import gzip
import pathlib
import stat
import subprocess

from proof import Skipped, need_program, run

KERNEL, BUSYBOX = "linux-image-cloud-amd64", "busybox-static"
SCRIPT = "script"
# The kernel can run no scripts before its module for them is there; the shell takes it as an argument.
COMMAND_LINE = f"console=ttyS0 rdinit=/bin/sh -- /{SCRIPT}"
MODULES = ["virtio_ring", "virtio", "virtio_pci_legacy_dev", "virtio_pci_modern_dev", "virtio_pci", "virtio_blk"]


def _dependency(package):
    for line in run("apt-cache", "depends", package).stdout.splitlines():
        if line.strip().startswith("Depends:"):
            return line.split()[1]
    raise Skipped(f"no package {package}")


def _unpacked(package, folder):
    """The package's files, fetched unless an earlier run has left them in `folder`."""
    target = folder / package
    if not target.exists():
        part = folder / (package + ".part")
        part.mkdir(parents=True, exist_ok=True)
        got = subprocess.run(["apt-get", "download", "-qq", package], cwd=part, check=False,
                             stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, timeout=300)
        archives = list(part.glob("*.deb"))
        if got.returncode != 0 or not archives:
            raise Skipped(f"the package {package} cannot be fetched: {got.stdout.strip()[-200:]}")
        run("dpkg-deb", "--extract", archives[0], part)
        archives[0].unlink()
        part.rename(target)
    return target


def _entry(name, mode, data=b""):
    """One file of an archive in the format that the kernel unpacks: "newc"."""
    fields = [0, mode, 0, 0, 1, 0, len(data), 0, 0, 0, 0, len(name) + 1, 0]
    header = b"070701" + b"".join(b"%08X" % field for field in fields) + name.encode() + b"\0"
    return header + bytes(-len(header) % 4) + data + bytes(-len(data) % 4)


def kernel_and_initrd(cache, script, target):
    """Paths of a kernel and of an initial RAM disk, made at `target`, whose first process is the shell script."""
    need_program("apt-get", "apt-cache", "dpkg-deb")
    cache = pathlib.Path(cache)
    linux = _unpacked(_dependency(KERNEL), cache)
    busybox = next(_unpacked(BUSYBOX, cache).glob("**/bin/busybox"))
    archive = b"".join(_entry(name, stat.S_IFDIR | 0o755) for name in ("bin", "dev", "proc", "sys", "mnt", "lib"))
    archive += _entry("dev/console", stat.S_IFCHR | 0o600)
    archive += _entry("bin/busybox", stat.S_IFREG | 0o755, busybox.read_bytes())
    for name in MODULES:
        archive += _entry(f"lib/{name}.ko", stat.S_IFREG | 0o644, next(linux.rglob(f"{name}.ko")).read_bytes())
    archive += _entry("bin/sh", stat.S_IFLNK | 0o777, b"busybox")
    archive += _entry(SCRIPT, stat.S_IFREG | 0o644, script.encode()) + _entry("TRAILER!!!", 0)
    target.write_bytes(gzip.compress(archive, 1))
    return next(linux.glob("boot/vmlinuz-*")), target


def load_modules():
    """The lines of a script that make the disk /dev/vda appear."""
    return "\n".join(f"insmod /lib/{name}.ko" for name in MODULES)
