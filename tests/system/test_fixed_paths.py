"""Defaults and the log file, whose paths are fixed; with mounts that only the daemon sees."""
import os
import shutil
import subprocess

import pytest

from conftest import HEADERS, PCAP_HEADER, VOXSTAT, line, pcap_record, report, voice_record

USER = [] if os.geteuid() == 0 else ["--user"]
LAUNCH = ["unshare", *USER, *(["--map-root-user"] if USER else []), "--mount", "--net", "sh", "-c",
          'mount --bind $0/home /home && mount --bind $0/etc /etc && mount --bind $0/log /var/log && ip link set lo up '
          '&& exec "$@"']
SUMMARY = "QoS_Stat_Sessions_Summary.txt"


def test_defaults(start, tmp_path):
    """The configuration sets only the name and the level of the log. The ports are in a separate network namespace."""
    for name in ("home/build/zkhome", "etc/zk-T/activation", "log/current", "run"):
        (tmp_path / name).mkdir(parents=True)
    if subprocess.run([*LAUNCH, tmp_path, "true"], capture_output=True).returncode != 0:
        pytest.skip("the machine allows no name spaces of one's own, or has no iproute2")
    (tmp_path / "etc/zk-T/activation/sn").write_text("serial: 4711\n")
    shutil.copy(VOXSTAT, tmp_path / "run/voxstat")  # the original may be below /home
    daemon = start(tmp_path / "run", launch=[*LAUNCH, tmp_path, "sh", "-c", "exec ./voxstat"], port=49999,
                   qos_port=None, qos_stat_dir=None, sn_file_path=None, log__file="d", log__default=2)
    enter = ["nsenter", f"--target={daemon.process.pid}", *USER, "--net", "--preserve-credentials", "bash", "-c"]
    daemon.send_to = lambda port, data: subprocess.run([*enter, f"cat >/dev/udp/127.0.0.1/{port}"], check=True,
                                                       input=data.encode() if isinstance(data, str) else data)
    daemon.stat = tmp_path / "home/build/zkhome/QoS"
    daemon.send(report() + "\nkey", report("QOS_EOS_NEAREND"))
    daemon.send_voice(voice_record(b"rtp"))
    daemon.stop()
    assert daemon.output() == "Initialized logging. File name: /var/log/current/d.log\n"
    daemon.output = (tmp_path / "log/current/d.log").read_text
    said = daemon.log()
    assert said[0] == "[WARN] Empty URL value for WebClient. HTTP reporting is unavailable."
    assert {"[INFO] Serial Number: 4711", "[WARN] ignoring unknown key: key"} < set(said)
    assert said[-1] == "[INFO] Terminating SimpleLogger thread..."
    assert daemon.text() == HEADERS["QoS_Stat.txt"] + line(SERIAL_NUM="4711")
    assert daemon.text(SUMMARY) == HEADERS[SUMMARY] + line("QOS_EOS_NEAREND", SERIAL_NUM="4711")
    assert daemon.dump() == PCAP_HEADER + pcap_record(voice_record(b"rtp"))
