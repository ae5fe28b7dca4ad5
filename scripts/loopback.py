"""Runs the daemon on loopback, with a web server for its posts; for tests, benchmarks and trial runs.

Tests, benchmarks and commands share this module, so it needs only Python. Each of them adds this directory to its path.
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

# Below the ephemeral ports. A process never gets the same port twice, because it may open a port late.
_PORTS = itertools.cycle(random.sample(range(10000, 32000, 2), 11000))


def free_port():
    """Returns a port that is free, for UDP and TCP, together with the next one."""
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
    """Returns the value of the condition as soon as it is true. Raises TimeoutError after this many seconds."""
    deadline = time.monotonic() + seconds
    while not (result := condition()):
        if time.monotonic() > deadline:
            raise TimeoutError(f"timeout after {seconds} s: {what}")
        time.sleep(0.01)
    return result


class Recorder(ThreadingHTTPServer):
    """A web server that records every request. Its answers can be changed at any time."""

    daemon_threads, block_on_close = True, False
    status = 200
    closing = False     # closes connections without an answer

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
        self.speaks = threading.Event()     # while it is cleared, requests get no answer
        self.speaks.set()
        threading.Thread(target=self.serve_forever, args=(0.05,), daemon=True).start()

    def handle_error(self, *_):     # the daemon was killed
        pass

    def lines(self):
        """All statistics lines that were posted, each with a line feed as in the files."""
        return [item["message"] + "\n" for _, _, body in list(self.requests) for item in json.loads(body)]

    def close(self):
        self.speaks.set()
        self.shutdown()
        self.server_close()


STAMP = re.compile(r"^[A-Z][a-z]{2}-\d\d \d\d:\d\d:\d\d\.\d{3} {2,3}(\[[A-Z]+\]) \[0x[0-9a-f]{1,6}\]", re.M)


class Daemon:
    """One run of the daemon, with its statistics in directory/stat and its output in directory/out.

    Settings are keyword arguments with "__" for the point in a key: log__default=2. None leaves a key out. launch is a
    command that runs the program, such as ["env", "TZ=UTC"].
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
            # If a test is killed, its daemon is killed too.
            self.process = subprocess.Popen(["setpriv", "--pdeathsig", "KILL", *launch, program or VOXSTAT],
                                            cwd=directory, stdin=subprocess.DEVNULL, stdout=out, stderr=err)

    # Starting and stopping.

    @classmethod
    def ready(cls, directory, **options):
        """Returns a daemon whose main loop reads. Uses other ports if another program has taken these."""
        for _ in range(20):
            daemon = cls(directory, **options)
            if daemon.wait_ready():
                return daemon
            if "unable to bind" not in daemon.output():
                break
        raise RuntimeError("the daemon did not start:\n" + daemon.output())

    def sockets(self):
        """(bytes waiting, datagrams dropped) of the report and the voice socket; fewer items until both are open."""
        process = Path(f"/proc/{self.process.pid}")
        try:
            held = {os.readlink(fd) for fd in process.glob("fd/*")}
            rows = [row.split() for row in (process / "net/udp").read_text().splitlines()[1:]]
        except OSError:     # it has just exited, or closed one of its files
            return []
        return [(int(row[4].split(":")[1], 16), int(row[12])) for port in (self.port, self.port + 1) for row in rows
                if row[1].endswith(f":{port:04X}") and f"socket:[{row[9]}]" in held]

    def drained(self):
        """True if the daemon has processed every datagram that was sent to it and its main loop waits."""
        state = Path(f"/proc/{self.process.pid}/task/{self.process.pid}/stat").read_text().rpartition(") ")[2][0]
        return state == "S" and [waiting for waiting, _ in self.sockets()] == [0, 0]

    def wait_ready(self):
        """Waits until the main loop reads. Returns False if the daemon has exited instead."""
        wait_for(lambda: len(self.sockets()) == 2 or self.process.poll() is not None, 60, "for its ports")
        if self.process.poll() is not None:
            return False
        self.send_voice(b"")        # visible only in the queue
        wait_for(self.drained, 60, "for the main loop")
        return True

    def stop(self, number=signal.SIGTERM):
        """Waits until all datagrams are read, and stops the daemon. It must exit with status 0 and an empty stderr."""
        wait_for(self.drained, 30, "for the last datagram to be read")
        self.process.send_signal(number)
        try:
            self.process.wait(10)
        except subprocess.TimeoutExpired:
            self.process.send_signal(number)    # the first one arrived between the check of the flag and the wait
        self.wait()

    def wait(self, seconds=60):
        """Waits until it exits without a signal, with status 0 and an empty stderr."""
        assert self.process.wait(seconds) == 0, self.output()
        assert (self.directory / "err").read_text() == ""

    def kill(self):
        self.process.kill()
        self.process.wait()

    # Sending to the daemon.

    def send_to(self, port, data):
        with socket.socket(type=socket.SOCK_DGRAM) as sender:
            sender.sendto(data.encode() if isinstance(data, str) else data, ("127.0.0.1", port))

    def send(self, *reports):
        for text in reports:
            self.send_to(self.port, text)

    def send_voice(self, *records):
        """Sends these records in one datagram."""
        self.send_to(self.port + 1, b"".join(records))

    # Reading its output and files.

    def output(self):
        return (self.directory / "out").read_text(errors="replace")

    def log(self):
        """The log as a list of "[INFO] text", without empty lines and the message about an interrupted select().
        DIR, QOS and VOICE replace the directory and the ports. Text without a time belongs to the message before it."""
        text = self.output()
        for value, name in ((self.directory, "DIR"), (self.port, "QOS"), (self.port + 1, "VOICE")):
            text = re.sub(rf"(?<!\d){value}(?!\d)", name, text)
        entries = STAMP.sub("\0\\1", re.sub("\n+", "\n", text)).split("\0")
        return [entry.strip("\n") for entry in entries if entry and "NetReceiver select() failed" not in entry]

    def logged(self, entry, seconds=30):
        """Waits until the log contains this text."""
        wait_for(lambda: entry in "\n".join(self.log()), seconds, f"for {entry!r}")

    def read(self, name):
        """The contents of a file in the statistics directory; empty if it does not exist."""
        path = self.stat / name
        return path.read_bytes() if path.exists() else b""

    def text(self, name="QoS_Stat.txt"):
        return self.read(name).decode()

    def dump(self):
        return self.read("RTP_Streams_No_Voice.pcap")
