"""The command line; what starts and stops the daemon, and what must not stop it."""
import signal
import subprocess
from pathlib import Path

import pytest

from conftest import VOXSTAT, Daemon, free_port, report, wait_for

USAGE = "Usage: voxstat [-f <filename>]\nIf filename is missing then default voxstat.cfg is assumed.\n"


CALLS = {   # arguments, and the text before the usage text
    "no default file": ("", "Failed to open config file: voxstat.cfg\n"),
    "no such file": ("-f none", "Failed to open config file: none\n"),
    "no name": ("-f", ""), "no option": ("good.cfg", ""), "capital letter": ("-F good.cfg", ""),
    "one too many": ("-f good.cfg extra", ""),
}


@pytest.mark.parametrize("arguments, reason", CALLS.values(), ids=CALLS)
def test_usage(tmp_path, arguments, reason):
    (tmp_path / "good.cfg").write_text(f"qos_port = {free_port()}\nqos_stat_dir = {tmp_path}/stat\n")
    end = subprocess.run([VOXSTAT, *arguments.split()], cwd=tmp_path, capture_output=True, text=True, timeout=60)
    assert (end.returncode, end.stdout, end.stderr) == (0, reason + USAGE, "")


@pytest.mark.parametrize("descriptors", ["<&- >&- 2>&-", "> >(exec true)"], ids=["closed", "pipe without a reader"])
def test_descriptors_that_lead_nowhere(start, descriptors):
    """Closed by a supervisor, or a pipe without a reader. Only this test names its configuration."""
    daemon = start(launch=["bash", "-c", f'exec "$@" -f ./voxstat.cfg {descriptors}', "bash"], log__default=4)
    daemon.send(report())
    held = {int(link.name): str(link.readlink()) for link in Path(f"/proc/{daemon.process.pid}/fd").iterdir()}
    assert {0, 1, 2} <= held.keys() and "/dev/null" not in [held[number] for number in held if number > 2]
    daemon.stop()
    assert daemon.text().count("\n") == 2


def test_limit_of_the_file_size(start, tmp_path):
    """Like a full disk: the write fails, and the signal that comes with it does not stop the daemon."""
    (tmp_path / "stat").mkdir()
    (tmp_path / "stat/QoS_Stat.txt").write_bytes(b"x" * 100000)
    daemon = start(tmp_path, launch=["prlimit", "--fsize=100000"], log__default=4)
    daemon.send(report())
    daemon.logged("[DEBUG] File too large (27) on writing to file DIR/stat/QoS_Stat.txt")
    daemon.stop()


def test_port_that_is_taken(start, tmp_path):
    second = Daemon(tmp_path, port=start().port)
    second.wait()
    assert second.log() == ["[ERROR] NetReceiver() unable to bind to port: QOS(errno: 98)",
                            "[ERROR] Caught an exception: NetReceiver() fatal error..."]


def test_threads_and_further_signals(start, tmp_path, web):
    (tmp_path / "sn").write_text("number: 5\n")
    daemon = start(tmp_path, elastic_url=web.url, log__default=2)
    assert {path.read_text().strip() for path in Path(f"/proc/{daemon.process.pid}/task").glob("*/comm")} == {
        "voxstat", "QoS_SimpleLogge", "QoS_FileLogger", *(f"QoS_Web_{number}" for number in range(5))}
    web.speaks.clear()
    for workers in (1, 2):      # the stop waits for the answers to both
        daemon.send(*[report()] * 99)   # more than the size of a batch
        wait_for(lambda: len(web.requests) == workers)
    for number in (signal.SIGTERM, signal.SIGINT, signal.SIGTERM):
        daemon.process.send_signal(number)
        daemon.logged("Terminating FileLogger thread...")
    assert daemon.process.poll() is None
    web.speaks.set()
    daemon.wait()
    entries = daemon.log()
    assert len(entries) == len(set(entries)) and entries[0] == "[INFO] Serial Number is not defined."
