"""Defaults and the log file, whose paths are fixed: below mounts that only the daemon sees."""
import os
import re
import shutil
import subprocess

import pytest

from conftest import HEADERS, PCAP_HEADER, VOXSTAT, line, pcap_record, report, voice_record, wait_for

NAMESPACE = ["unshare", *([] if os.geteuid() == 0 else ["--user", "--map-root-user"]), "--mount"]
LOG = "/var/log/current/d.log"


@pytest.fixture
def place(tmp_path):
    """A directory in which home, etc and log stand for /home, /etc and /var/log."""
    if subprocess.run([*NAMESPACE, "--net", "sh", "-c", "mount --bind /tmp /home && ip link set lo up"],
                      capture_output=True).returncode != 0:
        pytest.skip("the machine allows no name spaces of one's own, or has no iproute2")
    for name in ("home/build/zkhome", "etc/zk-T/activation", "log/current", "run"):
        (tmp_path / name).mkdir(parents=True)
    shutil.copy(VOXSTAT, tmp_path / "run/voxstat")  # its own place may be below /home
    return tmp_path


def launch(place, options=(), mounts="mount --bind $0/log /var/log"):
    return [*NAMESPACE, *options, "sh", "-c", f'{mounts}; shift; exec $0/run/voxstat "$@"', place]


def log_text(place):
    path = place / LOG.replace("/var/", "")
    return path.read_text() if path.exists() else ""


def test_defaults(start, place):
    """An empty configuration file. The ports are in a network of the daemon's own."""
    (place / "etc/zk-T/activation/sn").write_text("serial: 4711\n")
    mounts = "mount --bind $0/home /home; mount --bind $0/etc /etc; ip link set lo up"
    daemon = start(place / "run", launch=launch(place, ["--net"], mounts), port=49999, qos_port=None, qos_stat_dir=None,
                   sn_file_path=None)
    enter = ["nsenter", f"--target={daemon.process.pid}", "--net", *NAMESPACE[1:2], "--preserve-credentials", "bash"]
    daemon.send_to = lambda port, data: subprocess.run([*enter, "-c", f"cat >/dev/udp/127.0.0.1/{port}"], check=True,
                                                       input=data.encode() if isinstance(data, str) else data)
    daemon.stat = place / "home/build/zkhome/QoS"
    daemon.send(report() + "\nkey", report("QOS_EOS_NEAREND"))
    daemon.send_voice(voice_record(b"rtp"))
    daemon.stop()
    assert daemon.log() == ["[WARN] Empty URL value for WebClient. HTTP reporting is unavailable.",
                            "[WARN] ignoring unknown key: key"]
    assert daemon.text() == HEADERS["QoS_Stat.txt"] + line(SERIAL_NUM="4711")
    name = "QoS_Stat_Sessions_Summary.txt"
    assert daemon.text(name) == HEADERS[name] + line("QOS_EOS_NEAREND", SERIAL_NUM="4711")
    assert daemon.dump() == PCAP_HEADER + pcap_record(voice_record(b"rtp"))


@pytest.mark.parametrize("below", [0, 1])
def test_log_file(start, place, below):
    """The first write into a file of 20 MiB is its last, and one archive is kept."""
    current = place / "log/current"
    with open(current / "d.log", "wb") as live:
        live.truncate(20971520 - below)
    for day in (1, 2):
        (current / f"d_2020-01-0{day}_00-00-00.log").touch()
        os.utime(current / f"d_2020-01-0{day}_00-00-00.log", (day, day))
    daemon = start(place / "run", launch=launch(place), log__file="d", log__default=0, log__http=0)
    daemon.send(report("QOS"))      # the one message at this level
    found = "d.log d_2020-01-02_00-00-00.log" if below else r"d_(?!2020)[-_\d]{19}.log"
    wait_for(lambda: re.fullmatch(found, " ".join(sorted(os.listdir(current)))))
    written = current / sorted(os.listdir(current))[0]
    wait_for(lambda: written.read_text()[20971520 - below:].endswith("_log_string event for QoS packet...\n"))
    daemon.stop()


def test_log_overflow(start, place):
    """Every message of a flood is written, or counted as lost."""
    daemon = start(place / "run", launch=launch(place), log__file="d", log__network=4)
    sent = 0
    while "OVERFLOW" not in log_text(place):
        daemon.send(*["x" * 1000] * 20)     # three messages each
        sent += 20
        wait_for(daemon.drained)
    daemon.stop()
    entries = daemon.log(text=log_text(place))
    lost = [int(entry.split()[-2].removesuffix("messages")) for entry in entries if "OVERFLOW" in entry]
    notes = [f"[WARN] LOG FILE WRITE OVERFLOW: {count}messages lost" for count in lost]
    assert [entry for entry in entries if "OVERFLOW" in entry] == notes
    assert len(entries) - len(notes) + sum(lost) == 3 * sent + 6    # two messages for each port, two warnings


def test_log_directory_that_is_missing(start, place):
    (place / "log/current").rmdir()
    (place / "log/current").touch()
    daemon = start(place / "run", launch=launch(place), log__file="d", log__default=2)
    daemon.logged(f"Failed to open {LOG}")
    (place / "log/current").unlink()
    (place / "log/current").mkdir()
    daemon.send(report())
    daemon.stop()
    assert daemon.output().startswith(f"Initialized logging. File name: {LOG}\n")
    assert daemon.log(text=log_text(place))[-2:] == ["[INFO] Terminating application...",
                                                     "[INFO] Terminating SimpleLogger thread..."]
