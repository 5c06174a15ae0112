"""Clients by libnbd, several at once."""
import sys
import threading
import time

from proof import SKIP_CODE, require, say

try:
    import nbd
except ImportError:
    print("SKIPPED: no module nbd: python3-libnbd is missing", flush=True)
    sys.exit(SKIP_CODE)


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
