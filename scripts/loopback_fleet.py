"""Runs a fleet's nodes and gateway on loopback, with all files below one directory, for trials, tests and
measurements."""
import base64
import contextlib
import http.client
import os
import secrets
import shutil
import subprocess
import sys
import urllib.error
import urllib.parse
import urllib.request
from pathlib import Path

from loopback import free_port, wait_for

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "fleet"))
from fleet import Node, load_units, queries, read_units, statements, write_configuration, write_passwords  # noqa: E402


def make_certificate(directory, name):
    subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
                    "-subj", f"/CN={name}", "-addext", f"subjectAltName=IP:{name}",
                    "-keyout", directory / "tls.key", "-out", directory / "tls.crt"], check=True, capture_output=True)


def run(command, directory):
    """Starts a child process that is killed when this process exits for any reason."""
    with open(directory / "out", "ab") as out:
        return subprocess.Popen(["setpriv", "--pdeathsig", "TERM", *command], cwd=directory, stdout=out, stderr=out,
                                stdin=subprocess.DEVNULL)


class Engine:
    """An engine node with all its files in one directory, below that of its fleet."""

    def __init__(self, directory):
        self.directory = directory
        self.native, self.http = free_port(), free_port()
        self.node = Node(directory.name, "127.0.0.1", self.native, self.http, directory / "data")
        self.process = None

    def start(self):
        place, setup = self.directory, self.directory.parent / "nodes" / self.node.name
        (place / "config.d").mkdir(parents=True, exist_ok=True)
        shutil.copy(setup / "engine.xml", place / "config.d/fleet.xml")
        shutil.copy(setup / "users.xml", place)
        shutil.copy(setup / "node_dictionary.xml", place)
        settings = {"http_port": self.http, "tcp_port": self.native, "path": f"{place}/data/",
                    "users_config": "users.xml", "dictionaries_config": "*_dictionary.xml",
                    "mark_cache_size": 100000000, "timezone": "UTC",
                    "logger": "<level>warning</level><console>1</console>"}
        (place / "config.xml").write_text(
            "<yandex>" + "".join(f"<{tag}>{value}</{tag}>" for tag, value in settings.items()) + "</yandex>")
        for path in place.glob("data/data/fleet/lines/*/current_batch.txt"):
            path.unlink()       # 18.16 crashes if it names a file that was delivered before a kill
        self.process = run(["clickhouse-server", "--config-file=config.xml"], place)

    def make_tables(self):
        for statement in statements((self.directory.parent / "nodes" / self.node.name / "schema.sql").read_text()):
            self.sql(statement)

    def sql(self, text, **settings):
        """Runs a statement as the administrator; raises urllib.error.HTTPError if it fails."""
        url = f"http://127.0.0.1:{self.http}/?" + urllib.parse.urlencode(settings)
        with urllib.request.urlopen(url, text.encode(), timeout=60) as answer:
            return answer.read().decode(errors="surrogateescape")

    def ready(self):
        if self.process.poll() is not None:
            raise RuntimeError((self.directory / "out").read_text()[-2000:])
        try:
            return self.sql("SELECT 1") == "1\n"
        except OSError:
            return False

    def kill(self):
        self.process.kill()
        self.process.wait()


@contextlib.contextmanager
def running_fleet(directory, **options):
    """A running Fleet with these options. It stops at the end of the block, or with this process."""
    fleet = Fleet(directory, **options)
    try:
        fleet.start()
        yield fleet
    finally:
        fleet.stop()


class Fleet:
    """units: the text of units.csv. Without it, no unit is expected, and all units share the user "unit"."""

    def __init__(self, directory, shards=2, replicas=1, rate=10000, timeout=10, units=None, connections=4000):
        self.directory = Path(directory)
        self.directory.mkdir(parents=True, exist_ok=True)
        self.nodes = [Engine(self.directory / f"node{number}") for number in range(shards * replicas)]
        nodes = [engine.node for engine in self.nodes]
        self.queries = queries(nodes, replicas)
        self.http, self.https = free_port(), free_port()
        self.url = f"http://127.0.0.1:{self.http}"
        self.gateway, self.connections = None, connections
        self.keys = [secrets.token_hex(16)]
        write_configuration(self.directory, nodes, [f"127.0.0.1:{self.http}", f"127.0.0.1:{self.https} ssl"],
                            self.keys, replicas, rate=rate, timeout=timeout)
        if units is not None:
            (self.directory / "units.csv").write_text(units)
        self.units = read_units(self.directory / "units.csv")
        self.passwords = write_passwords(self.directory / "gateway", [serial for serial, *_ in self.units])
        make_certificate(self.directory / "gateway", "127.0.0.1")

    def elastic_url(self, scheme="http", user="unit"):
        port = self.https if scheme == "https" else self.http
        return f"{scheme}://{user}:{self.passwords[user]}@127.0.0.1:{port}/ingest"

    def start(self):
        for engine in self.nodes:
            engine.start()
        for engine in self.nodes:
            wait_for(engine.ready, 60, "the engine")
        for engine in self.nodes:
            engine.make_tables()
            load_units(engine.node, self.keys, self.units)
        self.start_gateway()

    def start_gateway(self):
        place = self.directory
        temporary = "".join(f"{kind}_temp_path {place}/tmp_{kind};" for kind in
                            ("client_body", "proxy", "fastcgi", "uwsgi", "scgi"))
        user = "user root;" if os.geteuid() == 0 else ""
        (place / "nginx.conf").write_text(
            f"daemon off; pid {place}/nginx.pid; error_log {place}/gateway.log; worker_processes auto; {user}\n"
            f"worker_rlimit_nofile 8192; events {{ worker_connections {self.connections}; }}\n"
            f"http {{ include /etc/nginx/mime.types; {temporary} include {place}/gateway/gateway.conf; }}\n")
        path = os.environ["PATH"] + ":/usr/sbin"
        self.gateway = run([shutil.which("nginx", path=path), "-p", place, "-c", place / "nginx.conf"], place)
        wait_for(lambda: self.gateway.poll() is not None or self.request("/")[0] == 401, 20, "the gateway")
        if self.gateway.poll() is not None:
            raise RuntimeError((place / "out").read_text())

    def count(self, table):
        return int(self.nodes[0].sql(f"SELECT count() FROM fleet.{table}"))

    def request(self, path, user=None, password=None, body=None):
        """(status, body) of a request to the gateway, as this user if given; status 0 without an answer."""
        request = urllib.request.Request(self.url + path, data=body)
        if user:
            word = f"{user}:{password or self.passwords.get(user)}"
            request.add_header("Authorization", "Basic " + base64.b64encode(word.encode()).decode())
        try:
            with urllib.request.urlopen(request, timeout=60) as answer:
                return answer.status, answer.read()
        except urllib.error.HTTPError as error:
            return error.code, error.read()
        except (OSError, http.client.HTTPException) as error:
            return 0, str(error).encode()

    def query(self, query, /, **parameters):
        """(status, body) of one of the queries as a viewer."""
        words = {key: value.encode().hex() if isinstance(value, str) else value for key, value in parameters.items()}
        return self.request(f"/query/{query}?" + urllib.parse.urlencode(words), "viewer")

    def stop(self):
        """Does not wait for deliveries: spool files stay in the directory."""
        for process in (self.gateway, *(engine.process for engine in self.nodes)):
            if process:
                process.terminate() if process is self.gateway else process.kill()
                process.wait()
