"""The daemon as its users run it, a web server that notes what is posted, and a model of its formats.

The model computes what a report or a voice record should look like in the files. It shares no code with
the daemon. Everything runs on free ports and below a temporary directory that goes with the test.
"""
import json
import os
import re
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "scripts"))
from loopback import free_port, wait_for  # noqa: E402

BUILD = Path(os.environ.get("VOXSTAT_BUILD", ROOT / "build/debug"))
VOXSTAT = BUILD / "voxstat"
SANITIZERS = os.environ.get("VOXSTAT_SANITIZE", "")

# An offset that no machine has by chance, so that local time cannot be taken for universal time.
os.environ["TZ"] = "TST-5:30"
time.tzset()


def pytest_configure(config):
    config.addinivalue_line("markers", "long: takes more than a few seconds; run by scripts/test --long")


@pytest.fixture
def tmp_path():
    """A directory that is gone after the test, unlike pytest's own."""
    with tempfile.TemporaryDirectory(prefix="voxstat.") as name:
        yield Path(name)


def expected(name):
    """A text that a user reads, with capitals in place of what changes from run to run."""
    return (ROOT / "tests/system/data" / name).read_text()


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
    """The statistics line of such a report, with its line feed; SERIAL_NUM stands for the unit's too."""
    form = SUMMARY if event.startswith("QOS_EOS_") else SESSION
    values = {key: fields.get(key, "") if kind == "s" else float(fields.get(key, 0))
              for key, kind in re.findall(r"\((\w+)\)[\d.]*(\w)", form)}
    values["TYPE"] = "near_end" if event in ("QOS_NEAREND", "QOS_EOS_FAREND") else "far_end"  # a summary names the other
    values["SERIAL_NUM"] = values["SERIAL_NUM"] or "0"
    for key, look in (("TIME_STAMP", "%Y-%b-%d %H:%M:%S.%%03d %z"), ("FIRST_PACKET", "%H:%M:%S.%%03d"),
                      ("LAST_PACKET", "%H:%M:%S.%%03d")):
        second, microsecond = (int(fields.get(key + part, 0)) for part in ("_SEC", "_USEC"))
        values[key] = time.strftime(look, time.localtime(second)) % (microsecond // 1000)
    return form % values


def batch(lines):
    """The body that posts these lines."""
    return "[\n" + ",\n".join('{"message": "' + row.rstrip("\n") + '"}' for row in lines) + "\n]"


def voice_record(payload=b"", length=None, source=("192.0.2.10", 5004), target=("198.51.100.10", 5006),
                 seconds=1700000000, microseconds=123456):
    """A voice record as the telephony unit sends it; another length than the payload's on demand."""
    length = len(payload) if length is None else length
    addresses = socket.inet_aton(source[0]) + socket.inet_aton(target[0])
    return struct.pack(">I8sHHII", length, addresses, source[1], target[1], seconds, microseconds) + payload


def pcap_record(record):
    """What the dump holds of such a voice record."""
    length, source, target, ports, seconds, microseconds = struct.unpack(">I4s4s4sII", record[:24])
    length = 2023 if length > 2024 else length
    payload = record[24:24 + length] if length <= 1989 else b""
    return (struct.pack("<IIII", seconds, microseconds, 42 + len(payload), 42 + length)
            + b"\xaa" * 6 + b"\xbb" * 6 + b"\x08\x00"
            + struct.pack(">BBHHHBBH4s4s", 0x45, 0, length + 28, 0, 0x4000, 64, 17, 0, source, target)
            + ports + struct.pack(">HH", length + 8, 0) + payload)


# --- the web server -----------------------------------------------------------------------------

class Recorder(ThreadingHTTPServer):
    """A web server that notes every request. Its answers can be changed at any time."""

    daemon_threads, block_on_close = True, False
    status = 200
    closing = False     # ends the connection without an answer

    class Handler(BaseHTTPRequestHandler):
        protocol_version = "HTTP/1.1"

        def do_POST(self):
            body = self.rfile.read(int(self.headers["Content-Length"])).decode()
            self.server.requests.append((self.path, self.headers, body))
            self.server.speaks.wait(60)
            if self.server.closing:
                self.close_connection = True
            else:
                self.send_response(self.server.status)
                self.send_header("Content-Length", "2")
                self.end_headers()
                self.wfile.write(b"{}")

        def log_message(self, *_):
            pass

    def __init__(self):
        super().__init__(("127.0.0.1", 0), self.Handler)
        self.url = f"http://127.0.0.1:{self.server_port}/qos"
        self.requests = []              # (path, headers, body)
        self.speaks = threading.Event()     # cleared, it takes requests and is silent
        self.speaks.set()
        threading.Thread(target=self.serve_forever, args=(0.05,), daemon=True).start()

    def handle_error(self, *_):     # the daemon was killed
        pass

    def lines(self):
        """Each statistics line posted, with a line feed as in the files."""
        return [item["message"] + "\n" for _, _, body in list(self.requests) for item in json.loads(body)]

    def close(self):
        self.speaks.set()
        self.shutdown()
        self.server_close()


@pytest.fixture
def web():
    recorder = Recorder()
    yield recorder
    recorder.close()


# --- the daemon ---------------------------------------------------------------------------------

STAMP = re.compile(r"^[A-Z][a-z]{2}-\d\d \d\d:\d\d:\d\d\.\d{3} {2,3}(\[[A-Z]+\]) \[0x[0-9a-f]{1,6}\]", re.M)


class Daemon:
    """One run of the daemon. Its statistics stand in directory/stat, its output in directory/out.

    A setting's "__" stands for the point of its key: log__default=2. None leaves a setting out. The words of launch,
    such as ["env", "TZ=UTC"], come before the program.
    """

    def __init__(self, directory, launch=(), program=None, serial=None, port=None, **settings):
        self.directory = directory
        self.stat = directory / "stat"
        self.port = port or free_port()
        if serial is not None:
            (directory / "sn").write_text(f"serial: {serial}\n")
        settings = {"qos_port": self.port, "qos_stat_dir": self.stat, "sn_file_path": directory / "sn", **settings}
        (directory / "voxstat.cfg").write_text("".join(
            f"{key.replace('__', '.')} = {value}\n" for key, value in settings.items() if value is not None))
        with open(directory / "out", "wb") as out, open(directory / "err", "wb") as err:
            # A test that is killed takes its daemon with it.
            self.process = subprocess.Popen(["setpriv", "--pdeathsig", "KILL", *launch, program or VOXSTAT],
                                            cwd=directory, stdin=subprocess.DEVNULL, stdout=out, stderr=err)

    # Starting and stopping.

    def sockets(self):
        """(bytes waiting, datagrams dropped) of its report and its voice socket; fewer before both are open."""
        process = Path(f"/proc/{self.process.pid}")
        try:
            held = {os.readlink(fd) for fd in process.glob("fd/*")}
            rows = [row.split() for row in (process / "net/udp").read_text().splitlines()[1:]]
        except OSError:     # it has just ended, or closed one of its files
            return []
        return [(int(row[4].split(":")[1], 16), int(row[12])) for port in (self.port, self.port + 1) for row in rows
                if row[1].endswith(f":{port:04X}") and f"socket:[{row[9]}]" in held]

    def drained(self):
        """True when the daemon has done with every datagram that was sent to it, and its main loop waits."""
        state = Path(f"/proc/{self.process.pid}/task/{self.process.pid}/stat").read_text().rpartition(") ")[2][0]
        return state == "S" and [waiting for waiting, _ in self.sockets()] == [0, 0]

    def wait_ready(self):
        """Waits until the main loop reads. False when the daemon has ended instead."""
        wait_for(lambda: len(self.sockets()) == 2 or self.process.poll() is not None, 60, "for its ports")
        if self.process.poll() is not None:
            return False
        self.send_voice(b"")        # leaves no trace but in the queue
        wait_for(self.drained, 60, "for the main loop")
        return True

    def stop(self, number=signal.SIGTERM):
        """Ends it as its users do, all datagrams read. It must follow, with status 0 and nothing on stderr."""
        wait_for(self.drained, 30, "for the last datagram to be read")
        self.process.send_signal(number)
        try:
            self.process.wait(10)
        except subprocess.TimeoutExpired:
            self.process.send_signal(number)    # the first one came between the look at the flag and the wait
        self.wait()

    def wait(self, seconds=60):
        """Waits for an end that needs no signal, with the same demands."""
        assert self.process.wait(seconds) == 0, self.output()
        assert (self.directory / "err").read_text() == ""

    def kill(self):
        self.process.kill()
        self.process.wait()

    # What it is sent.

    def send_to(self, port, data):
        with socket.socket(type=socket.SOCK_DGRAM) as sender:
            sender.sendto(data.encode() if isinstance(data, str) else data, ("127.0.0.1", port))

    def send(self, *reports):
        for text in reports:
            self.send_to(self.port, text)

    def send_voice(self, *records):
        """One datagram of these records."""
        self.send_to(self.port + 1, b"".join(records))

    # What it shows.

    def output(self):
        return (self.directory / "out").read_text(errors="replace")

    def log(self):
        """The log as "[INFO] text", without empty lines and the wait that a stop interrupts or not. DIR, QOS and VOICE
        stand for the directory and the ports. Text without a stamp goes on with the message before it."""
        text = self.output()
        for value, name in ((self.directory, "DIR"), (self.port, "QOS"), (self.port + 1, "VOICE")):
            text = re.sub(rf"(?<!\d){value}(?!\d)", name, text)
        entries = STAMP.sub("\0\\1", re.sub("\n+", "\n", text)).split("\0")
        return [entry.strip("\n") for entry in entries if entry and "NetReceiver select() failed" not in entry]

    def logged(self, entry, seconds=30):
        """Waits until this text stands in the log."""
        wait_for(lambda: entry in "\n".join(self.log()), seconds, f"for {entry!r}")

    def read(self, name):
        """A file of its statistics directory; empty when it is not there."""
        path = self.stat / name
        return path.read_bytes() if path.exists() else b""

    def text(self, name="QoS_Stat.txt"):
        return self.read(name).decode()

    def dump(self):
        return self.read("RTP_Streams_No_Voice.pcap")


@pytest.fixture
def start(tmp_path):
    """start(log__default=2, ...) runs a daemon and returns it when its main loop reads. Several may run at once,
    each in a directory of its own unless directory=... says where an earlier one has been."""
    daemons = []

    def run(directory=None, **options):
        for _ in range(20):
            place = directory or tmp_path / str(len(daemons))
            place.mkdir(exist_ok=True)
            daemon = Daemon(place, **options)
            daemons.append(daemon)
            if daemon.wait_ready():
                return daemon
            if "unable to bind" not in daemon.output():     # else somebody has taken the port meanwhile
                break
        pytest.fail("the daemon does not start:\n" + daemon.output())

    yield run
    for daemon in daemons:
        daemon.kill()
