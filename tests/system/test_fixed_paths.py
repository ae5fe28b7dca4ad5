"""Defaults and the log file, whose paths are fixed: below mounts that only the daemon sees."""
import os
import shutil
import subprocess

import pytest

from conftest import HEADERS, PCAP_HEADER, VOXSTAT, line, pcap_record, report, voice_record

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


def launch(place, mounts, *options):
    return [*NAMESPACE, *options, "sh", "-c", f'{mounts}; shift; exec $0/run/voxstat "$@"', place]


def test_defaults(start, place):
    """An empty configuration file. The ports are in a network of the daemon's own."""
    (place / "etc/zk-T/activation/sn").write_text("serial: 4711\n")
    mounts = "mount --bind $0/home /home; mount --bind $0/etc /etc; ip link set lo up"
    daemon = start(place / "run", launch=launch(place, mounts, "--net"), port=49999, qos_port=None, qos_stat_dir=None,
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


def test_log_directory_that_is_missing(start, place):
    (place / "log/current").rmdir()
    (place / "log/current").touch()
    daemon = start(place / "run", launch=launch(place, "mount --bind $0/log /var/log"), log__file="d", log__default=2)
    daemon.logged(f"Failed to open {LOG}")
    (place / "log/current").unlink()
    (place / "log/current").mkdir()
    daemon.send(report())
    daemon.stop()
    assert daemon.output().startswith(f"Initialized logging. File name: {LOG}\n")
    assert daemon.log(text=(place / "log/current/d.log").read_text())[-2:] == ["[INFO] Terminating application...",
                                                     "[INFO] Terminating SimpleLogger thread..."]
