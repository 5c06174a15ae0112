"""A hosted machine under proof: made, served and controlled with the project's own two tools."""
import json
import os
import pathlib
import select
import signal

from proof import Failed, require, run, say, wait_until

MIB = 1 << 20
VOLUME = "HarddiskVolume1"


class Machine:
    """`tools` is the folder of the build; the machine is served from serve() to stop(), kill() or the proof's
    end."""

    def __init__(self, proof, build, *create, name="pc", env=None, plugin=None):
        self.kvrhost = pathlib.Path(build) / "tool/kvrhost"
        self.kvrctl = pathlib.Path(build) / "tool/kvrctl"
        self.folder = proof.scratch / name
        self._pidfile = proof.scratch / (name + ".pid")
        self._proof, self._env, self._plugin = proof, env, plugin  # a plugin of another build, which nbdkit serves itself
        self._server = None  # a descriptor of the process: a process id may come to mean another one
        # A disk of its own, unless the machine takes one in place.
        self.image = pathlib.Path(create[1]) if create[0] == "--disk" else self.folder / "disk0.img"
        # A disk that a proof has taken out of another machine still bears its mark.
        run(self.kvrhost, "adopt" if create[0] == "--disk" else "create", self.folder, *create)
        proof.at_end(self._end)

    def uri(self, export="disk0"):
        return f"nbd+unix:///{export}?socket={self.folder}/nbd.sock"

    # ---- power -----------------------------------------------------------------------------------------
    def serve(self):
        if self._plugin:
            (self.folder / "nbd.sock").unlink(missing_ok=True)  # of a server that was killed
            process = self._proof.start("nbdkit", "--foreground", "--unix", self.folder / "nbd.sock", self._plugin,
                                        f"machine={self.folder}", output=self.folder.parent / "nbdkit", env=self._env)
            self._server = os.pidfd_open(process.pid)
            wait_until(lambda: (self.folder / "control.sock").exists() or not self.lives(), "the machine is served", 60)
            return
        self._pidfile.unlink(missing_ok=True)
        run(self.kvrhost, "serve", self.folder, "--background", "--", "--pidfile", self._pidfile, env=self._env)
        self._server = os.pidfd_open(self.pid)

    @property
    def pid(self):
        return int(self._pidfile.read_text())

    def reboot(self):
        run(self.kvrhost, "reboot", self.folder)

    def stop(self):
        run(self.kvrhost, "stop", self.folder)
        if self._plugin or "ASAN_OPTIONS" in (self._env or {}):
            self._end_sanitized()
        self._gone()

    def _end_sanitized(self):
        """With the sanitizer's library nbdkit may hang in its exit handlers once requests were cut off, whatever the
        plugin; its memory plugin does. By then the machine is off and the plugin has said so."""
        wait_until(lambda: self.log().rstrip().endswith("server: ends") or not self.lives(), "the plugin ends", 30)
        if not select.select([self._server], [], [], 1)[0]:
            say("the sanitizer's library keeps nbdkit from ending; it is killed")
            signal.pidfd_send_signal(self._server, signal.SIGKILL)

    def kill(self):
        """A power cut."""
        signal.pidfd_send_signal(self._server, signal.SIGKILL)
        self._gone()

    def lives(self):
        return self._server is not None and not select.select([self._server], [], [], 0)[0]

    def _gone(self):
        if not select.select([self._server], [], [], 30)[0]:
            raise Failed("the server does not end")
        os.close(self._server)
        self._server = None

    def _end(self):
        if self.lives():
            signal.pidfd_send_signal(self._server, signal.SIGTERM)
            if not select.select([self._server], [], [], 30)[0]:
                say("the server does not end when asked to")
                signal.pidfd_send_signal(self._server, signal.SIGKILL)

    def log(self):
        return (self.folder / "log").read_text(errors="replace")

    # ---- control ---------------------------------------------------------------------------------------
    def ctl(self, *words, **options):
        return run(self.kvrctl, "--machine", self.folder, *words, **options)

    def protect(self, swap, at_boot="discard", volume=VOLUME):
        """Makes storage on the volume and protects it from the boot on that this ends with."""
        wait_until(lambda: not self._in_use(volume), "the last client is gone")
        self.ctl("swap", "make", volume, swap)
        self.ctl("protect", volume, "--at-boot", at_boot)
        self.ctl("enable")
        self.reboot()
        self.require_protected(volume)

    def _in_use(self, volume):
        """A client's process may be gone a moment before the server has noticed."""
        records = json.loads(self.ctl("volumes", "--json").stdout)
        return any(record["inUseBy"] for record in records if record["name"].endswith("\\" + volume))

    def status(self, volume=VOLUME):
        """The volume's record in the driver's own report."""
        for record in json.loads(self.ctl("status", "--json").stdout)["volumes"]:
            if record["name"].endswith("\\" + volume):
                return record
        raise Failed(f"the driver does not report {volume}")

    def require_protected(self, volume=VOLUME):
        record = self.status(volume)
        require(record["protected"] and record["swap"]["status"] == "ready", f"not protected: {record}")
