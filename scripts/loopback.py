"""The daemon on loopback and a web server for its posts, for Python programs: tests, benchmarks, trials.

It lies beside the commands because all of these share it, and none of them should need another. Each puts this
directory on its path. It needs nothing but Python.
"""
import itertools
import json
import os
import random
import re
import signal
import socket
import subprocess
import threading
import time
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from pathlib import Path

BUILD = Path(os.environ.get("VOXSTAT_BUILD", Path(__file__).resolve().parents[1] / "build/debug"))
VOXSTAT = BUILD / "voxstat"

# Below the range that the kernel gives to clients. No process gets a port twice, though it may open it late.
_PORTS = itertools.cycle(random.sample(range(10000, 32000, 2), 11000))


def free_port():
    """A port that nobody has now, nor the one above it, for datagrams and for connections."""
    for port in _PORTS:
        try:
            for kind in (socket.SOCK_STREAM, socket.SOCK_DGRAM):
                with socket.socket(type=kind) as one, socket.socket(type=kind) as two:
                    one.bind(("", port))
                    two.bind(("", port + 1))
            return port
        except OSError:
            continue


def wait_for(condition, seconds=30, what=""):
    """Returns what the condition gives as soon as it is true; raises TimeoutError after that many seconds."""
    deadline = time.monotonic() + seconds
    while not (result := condition()):
        if time.monotonic() > deadline:
            raise TimeoutError(f"waited {seconds} s in vain: {what}")
        time.sleep(0.01)
    return result


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

    @classmethod
    def ready(cls, directory, **options):
        """One whose main loop reads; on other ports when somebody has taken these meanwhile."""
        for _ in range(20):
            daemon = cls(directory, **options)
            if daemon.wait_ready():
                return daemon
            if "unable to bind" not in daemon.output():
                break
        raise RuntimeError("the daemon does not start:\n" + daemon.output())

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
