"""A model of the daemon's formats, and the daemon and a web server as fixtures.

The model computes what a report or a voice record should look like in the files. It shares no code with the daemon.
Everything runs on free ports and below a temporary directory that is deleted after the test.
"""
import os
import re
import socket
import struct
import sys
import tempfile
import time
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "scripts"))
from loopback import BUILD, STAMP, VOXSTAT, Daemon, Recorder, free_port, wait_for  # noqa: E402, F401

SANITIZERS = os.environ.get("VOXSTAT_SANITIZE", "")

# An unusual offset, so that a test notices when local time and UTC are mixed up.
os.environ["TZ"] = "TST-5:30"
time.tzset()


def pytest_configure(config):
    config.addinivalue_line("markers", "long: takes more than a few seconds; run by scripts/test --long")


@pytest.fixture
def tmp_path():
    """A directory that is deleted after the test, unlike pytest's own."""
    with tempfile.TemporaryDirectory(prefix="voxstat.") as name:
        yield Path(name)


def expected(name):
    """An expected text, with capitals in place of what differs between runs."""
    return (ROOT / "tests/system/data" / name).read_text()


def sysctl(name):
    return int(Path("/proc/sys", name).read_text())


# --- the formats --------------------------------------------------------------------------------

HEADERS = {
    "QoS_Stat.txt":
        "       Date         Time    TZ      GCID         TID     Type      Far_End_IP  Port Packets "
        "Lost Lost% Jitter   RTT       SSRC    SN RTCP_CNAME\n",
    "QoS_Stat_Sessions_Summary.txt":
        "       Date         Time    TZ      GCID         TID     Type      Far_End_IP  Port  Span "
        "Packets Lost Lost% JTRAvg JTRMax RTTAvg RTTMax First Packet Last  Packet       SSRC    SN "
        "RTCP_CNAME\n",
}
PCAP_HEADER = struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 65535, 1)


def report(event="QOS_NEAREND", **fields):
    """A report datagram: report(RTCP_CNAME="x") has the two lines QOS_EV_TYPE and QOS_EV_RTCP_CNAME."""
    return "\n".join(f"QOS_EV_{key}={value}" for key, value in {"TYPE": event, **fields}.items())


SESSION = ("%(TIME_STAMP)s %(GCID)9.9s %(TID)11.11s %(TYPE)8s %(FAR_END_IP)15.15s %(PORT)5d %(PACKETS)7d "
           "%(LOST_SINCE_LAST_REPORT)4d %(LOST_LOST_SINCE_LAST_REPORT_PERCENT)5.1f %(JITTER_AVG)6d %(RTT_AVG)5d "
           "%(SSRC)10s %(SERIAL_NUM)5.5s %(RTCP_CNAME)s\n")
SUMMARY = ("%(TIME_STAMP)s %(GCID)9.9s %(TID)11.11s %(TYPE)8s %(FAR_END_IP)15.15s %(PORT)5d %(DURATION)5d %(PACKETS)7d "
           "%(LOST)4d %(LOST_PERCENT)5.1f %(JITTER_AVG)6d %(JITTER_MAX)6d %(RTT_AVG)6d %(RTT_MAX)6d %(FIRST_PACKET)s "
           "%(LAST_PACKET)s %(SSRC)10s %(SERIAL_NUM)5.5s %(RTCP_CNAME)s\n")


def line(event="QOS_NEAREND", **fields):
    """The statistics line of such a report, with its line feed; SERIAL_NUM also sets that of the unit."""
    form = SUMMARY if event.startswith("QOS_EOS_") else SESSION
    values = {key: fields.get(key, "") if kind == "s" else float(fields.get(key, 0))
              for key, kind in re.findall(r"\((\w+)\)[\d.]*(\w)", form)}
    values["TYPE"] = "near_end" if event in ("QOS_NEAREND", "QOS_EOS_FAREND") else "far_end"  # opposite in summaries
    values["SERIAL_NUM"] = values["SERIAL_NUM"] or "0"
    for key, look in (("TIME_STAMP", "%Y-%b-%d %H:%M:%S.%%03d %z"), ("FIRST_PACKET", "%H:%M:%S.%%03d"),
                      ("LAST_PACKET", "%H:%M:%S.%%03d")):
        second, microsecond = (int(fields.get(key + part, 0)) for part in ("_SEC", "_USEC"))
        values[key] = time.strftime(look, time.localtime(second)) % (microsecond // 1000)
    return form % values


def batch(lines):
    """The body of a post with these lines."""
    return "[\n" + ",\n".join('{"message": "' + row.rstrip("\n") + '"}' for row in lines) + "\n]"


def voice_record(payload=b"", length=None, source=("192.0.2.10", 5004), target=("198.51.100.10", 5006),
                 seconds=1700000000, microseconds=123456):
    """A voice record as the voice software sends it; length overrides the length of the payload."""
    length = len(payload) if length is None else length
    addresses = socket.inet_aton(source[0]) + socket.inet_aton(target[0])
    return struct.pack(">I8sHHII", length, addresses, source[1], target[1], seconds, microseconds) + payload


def pcap_record(record):
    """The packet in the dump for such a voice record."""
    length, source, target, ports, seconds, microseconds = struct.unpack(">I4s4s4sII", record[:24])
    length = 2023 if length > 2024 else length
    payload = record[24:24 + length] if length <= 1989 else b""
    return (struct.pack("<IIII", seconds, microseconds, 42 + len(payload), 42 + length)
            + b"\xaa" * 6 + b"\xbb" * 6 + b"\x08\x00"
            + struct.pack(">BBHHHBBH4s4s", 0x45, 0, length + 28, 0, 0x4000, 64, 17, 0, source, target)
            + ports + struct.pack(">HH", length + 8, 0) + payload)


# --- the programs -------------------------------------------------------------------------------

@pytest.fixture
def web():
    recorder = Recorder()
    yield recorder
    recorder.close()


@pytest.fixture
def start(tmp_path):
    """start(log__default=2, ...) runs a daemon and returns it when its main loop reads. Several can run at the
    same time, each in its own directory, unless directory=... names that of an earlier one."""
    daemons = []

    def run(directory=None, **options):
        place = directory or tmp_path / str(len(daemons))
        place.mkdir(exist_ok=True)
        daemons.append(Daemon.ready(place, **options))
        return daemons[-1]

    yield run
    for daemon in daemons:
        daemon.kill()
