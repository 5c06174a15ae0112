"""A machine's volume as a mounted file system: nbdfuse makes a file of the export, a loop device or ntfs-3g mounts
the file."""
import contextlib
import os
import subprocess

from proof import Skipped, end_process, need_program, require, run, wait_until


def need(kind):
    need_program("nbdfuse", "fusermount3", *(["e2fsck"] if kind == "ext4" else ["ntfs-3g", "ntfsresize", "ntfsfix"]))
    try:
        os.close(os.open("/dev/fuse", os.O_RDWR))
    except OSError as error:
        raise Skipped(f"no FUSE: /dev/fuse: {error.strerror}") from error
    if kind == "ext4" and (os.geteuid() != 0 or run("losetup", "--find", check=False).returncode != 0):
        raise Skipped("no loop devices: only root may mount, and losetup has to find one")


def _unmount(program, place, process=None):
    """Others on the system look into new mounts for a moment; they are waited for."""
    wait_until(lambda: run(*program, place, check=False).returncode == 0, f"{place} is unmounted", 15)
    if process is not None:
        process.wait(30)


@contextlib.contextmanager
def exported(given, uri):
    """A file that is the export, as long as this lasts."""
    place = given.scratch / "export"
    place.mkdir(exist_ok=True)
    process = subprocess.Popen(["nbdfuse", place / "volume", uri], stdin=subprocess.DEVNULL)
    try:
        wait_until(lambda: os.path.ismount(place) or process.poll() is not None, "nbdfuse mounts")
        require(process.poll() is None, f"nbdfuse does not serve {uri}")
        yield place / "volume"
    finally:
        if process.poll() is None:
            _unmount(["fusermount3", "-u"], place, process)


@contextlib.contextmanager
def mounted(given, kind, file, read_only=False):
    """The folder where the file system in `file` is mounted, as long as this lasts; then all of it is written."""
    place = given.scratch / "mounted"
    place.mkdir(exist_ok=True)
    access = "ro" if read_only else "rw"
    process = None
    if kind == "ext4":
        run("mount", "-t", "ext4", "-o", f"loop,{access}", file, place)
    else:
        process = subprocess.Popen(["ntfs-3g", "-o", f"no_detach,{access}", file, place], stdin=subprocess.DEVNULL)
        wait_until(lambda: os.path.ismount(place) or process.poll() is not None, "ntfs-3g mounts")
        require(process.poll() is None, "ntfs-3g does not mount the volume")
    try:
        yield place
    finally:
        _unmount(["umount"], place, process)
        if process is not None:
            end_process(process)


def check(kind, file):
    """What the file system's own tools say of it."""
    if kind == "ext4":
        run("e2fsck", "-f", "-n", file)
        return
    told = run("ntfsresize", "--info", "--force", "--no-progress-bar", file).stdout
    require("You might resize at" in told or "You could resize" in told or "is full" in told, told)
    told = run("ntfsfix", "--no-action", file).stdout
    require("processed successfully" in told, told)
