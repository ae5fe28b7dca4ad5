#!/usr/bin/env python3
"""The store of a fleet: writes its configuration, and runs engine nodes and gateway on loopback.

    fleet.py [--home DIR] [--rate N] DIRECTORY NODE...

writes below DIRECTORY all that the nodes and the gateway of a real fleet need; docs/fleet.md tells what
goes where. Trials and tests use running_fleet.
"""
import argparse
import base64
import contextlib
import hashlib
import http.client
import itertools
import os
import random
import re
import secrets
import shutil
import socket
import subprocess
import time
import urllib.error
import urllib.parse
import urllib.request
from pathlib import Path

HERE = Path(__file__).resolve().parent
QUERIES = {path.stem: path.read_text() for path in sorted(HERE.glob("queries/*.sql"))}
# What a parameter may look like, and how it then stands in the statement.
KINDS = {"UInt32": (r"\d{1,10}", "%s"), "Float64": (r"\d{1,6}(?:\.\d{1,9})?", "%s"),
         "String": (r"(?:[0-9A-Fa-f]{2}){0,1023}", "unhex('%s')")}
PARAMETER = re.compile(r"\{(\w+):(\w+)\}")


def statements(text):
    return [part for part in re.sub(r"(?m)^--.*\n?", "", text).split(";\n") if part.strip()]


def parameter_map(name, kind):
    """A parameter of a request that has passed its test, as it stands in the statement; any other as an empty one."""
    pattern, form = KINDS[kind]
    return f'map $arg_{name} $fleet_{name} {{ default "{form % ""}"; "~^{pattern}$" "{form % ("$arg_" + name)}"; }}'


def query_location(name, text):
    """The statement is fixed here; nginx puts in the parameters."""
    sql = urllib.parse.quote_plus(" ".join(statements(text)[0].split()), safe="(),*=/:{}")
    sql = PARAMETER.sub(r"$fleet_\1", sql)
    return (f"        location = /query/{name} {{\n            set $args \"default_format=JSON&query={sql}\";\n"
            "            limit_except GET { deny all; }\n            proxy_pass http://fleet_engine/;\n        }")


def password_line(user, password):
    salt = secrets.token_bytes(8)       # the password is long and random, so a fast hash does
    digest = hashlib.sha1(password.encode() + salt).digest() + salt
    return f"{user}:{{SSHA}}{base64.b64encode(digest).decode()}\n"


def write_configuration(directory, nodes, listen, passwords, home=None, engine_listen="127.0.0.1", rate=100,
                        timeout=10):
    """nodes: (host, native port, HTTP port) of each; home: where the gateway will find the directory. The key, by
    which gateway and nodes know each other, stays the same when the directory is written again."""
    directory.mkdir(parents=True, exist_ok=True)
    users = directory / "users.xml"
    key = re.search("<password>(.+)</password>", users.read_text())[1] if users.exists() else secrets.token_hex(16)
    parameters = sorted({found for text in QUERIES.values() for found in PARAMETER.findall(text)})
    values = {
        "KEY": key, "ENGINE_LISTEN": engine_listen, "HOME": home or directory, "RATE": rate, "TIMEOUT": timeout,
        "SHARDS": "\n".join(
            # with a database of its own no node counts as local, so that its rows, too, come in large blocks
            f"            <shard><replica><host>{host}</host><port>{port}</port><user>gateway</user>"
            f"<password>{key}</password><default_database>fleet</default_database></replica></shard>"
            for host, port, _ in nodes),
        "UPSTREAMS": "\n".join(f"    server {host}:{port} max_fails=1 fail_timeout=5s;" for host, _, port in nodes),
        "LISTEN": "\n".join(f"    listen {address};" for address in listen),
        "PARAMETERS": "\n".join(parameter_map(name, kind) for name, kind in parameters),
        "QUERIES": "\n".join(query_location(name, text) for name, text in QUERIES.items()),
    }
    for name in ("engine.xml", "users.xml", "gateway.conf"):
        text = re.sub(r"@(\w+)@", lambda match: str(values[match[1]]), (HERE / name).read_text())
        (directory / name).write_text(text)
    for user, password in passwords.items():
        (directory / f"{user}s.htpasswd").write_text(password_line(user, password))
    (directory / "page").mkdir(exist_ok=True)
    for name in ("index.html", "fleet.js"):
        shutil.copy(HERE / name, directory / "page")
    shutil.copy(HERE / "schema.sql", directory)


def make_certificate(directory, name):
    subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
                    "-subj", f"/CN={name}", "-addext", f"subjectAltName=IP:{name}",
                    "-keyout", directory / "tls.key", "-out", directory / "tls.crt"], check=True, capture_output=True)


# Below the range that the kernel gives to clients. A fleet gets none twice, though it opens them late.
PORTS = itertools.cycle(random.sample(range(10000, 32000, 2), 11000))


def free_port():
    """Free with the port above it, for datagrams too."""
    for port in PORTS:
        try:
            for kind in (socket.SOCK_STREAM, socket.SOCK_DGRAM):
                with socket.socket(type=kind) as one, socket.socket(type=kind) as two:
                    one.bind(("", port))
                    two.bind(("", port + 1))
            return port
        except OSError:
            continue


def wait_for(condition, seconds, what):
    deadline = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > deadline:
            raise RuntimeError(f"waited {seconds} s in vain for {what}")
        time.sleep(0.02)


def run(command, directory):
    """A child that ends with this process, however that ends."""
    with open(directory / "out", "ab") as out:
        return subprocess.Popen(["setpriv", "--pdeathsig", "TERM", *command], cwd=directory, stdout=out, stderr=out,
                                stdin=subprocess.DEVNULL)


class Shard:
    """An engine node on loopback with all its files in one directory."""

    def __init__(self, directory):
        self.directory = directory
        self.native, self.http = free_port(), free_port()
        self.process = None

    def start(self):
        place = self.directory
        (place / "config.d").mkdir(parents=True, exist_ok=True)
        shutil.copy(place.parent / "engine.xml", place / "config.d/fleet.xml")
        shutil.copy(place.parent / "users.xml", place / "users.xml")
        settings = {"http_port": self.http, "tcp_port": self.native, "path": f"{place}/data/",
                    "users_config": "users.xml", "mark_cache_size": 100000000, "timezone": "UTC",
                    "logger": "<level>warning</level><console>1</console>"}
        (place / "config.xml").write_text(
            "<yandex>" + "".join(f"<{tag}>{value}</{tag}>" for tag, value in settings.items()) + "</yandex>")
        self.process = run(["clickhouse-server", "--config-file=config.xml"], place)

    def sql(self, text, **settings):
        """As the administrator; raises urllib.error.HTTPError if the engine refuses it."""
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
    """A Fleet with these options that is up; it ends with the block, or with this process."""
    fleet = Fleet(directory, **options)
    try:
        fleet.start()
        yield fleet
    finally:
        fleet.stop()


class Fleet:
    """Shards and gateway on loopback below a directory."""

    def __init__(self, directory, shards=2, rate=10000, timeout=10):
        self.directory = Path(directory)
        self.passwords = {"unit": secrets.token_hex(8), "viewer": secrets.token_hex(8)}
        self.shards = [Shard(self.directory / f"shard{number}") for number in range(shards)]
        self.http, self.https = free_port(), free_port()
        self.url = f"http://127.0.0.1:{self.http}"
        self.gateway = None
        write_configuration(self.directory, [("127.0.0.1", shard.native, shard.http) for shard in self.shards],
                            [f"127.0.0.1:{self.http}", f"127.0.0.1:{self.https} ssl"], self.passwords, rate=rate,
                            timeout=timeout)
        make_certificate(self.directory, "127.0.0.1")

    def elastic_url(self, scheme="http"):
        port = self.https if scheme == "https" else self.http
        return f"{scheme}://unit:{self.passwords['unit']}@127.0.0.1:{port}/ingest"

    def start(self):
        for shard in self.shards:
            shard.start()
        for shard in self.shards:
            wait_for(shard.ready, 60, "the engine")
            for statement in statements((self.directory / "schema.sql").read_text()):
                shard.sql(statement)
        self.start_gateway()

    def start_gateway(self):
        place = self.directory
        temporary = "".join(f"{kind}_temp_path {place}/tmp_{kind};" for kind in
                            ("client_body", "proxy", "fastcgi", "uwsgi", "scgi"))
        user = "user root;" if os.geteuid() == 0 else ""
        (place / "nginx.conf").write_text(
            f"daemon off; pid {place}/nginx.pid; error_log {place}/gateway.log; worker_processes auto; {user}\n"
            "worker_rlimit_nofile 8192; events { worker_connections 4000; }\n"
            f"http {{ include /etc/nginx/mime.types; {temporary} include {place}/gateway.conf; }}\n")
        path = os.environ["PATH"] + ":/usr/sbin"
        self.gateway = run([shutil.which("nginx", path=path), "-p", place, "-c", place / "nginx.conf"], place)
        wait_for(lambda: self.gateway.poll() is not None or self.request("/")[0] == 401, 20, "the gateway")
        if self.gateway.poll() is not None:
            raise RuntimeError((place / "out").read_text())

    def count(self, table):
        return int(self.shards[0].sql(f"SELECT count() FROM fleet.{table}"))

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
        """At once: what was not delivered stays in the directory."""
        for process in (self.gateway, *(shard.process for shard in self.shards)):
            if process:
                process.terminate() if process is self.gateway else process.kill()
                process.wait()


def main():
    parser = argparse.ArgumentParser(description="Writes the configuration of a fleet's nodes and gateway.")
    parser.add_argument("--home", default="/etc/nginx/fleet", help="where the gateway will find the directory")
    parser.add_argument("--rate", type=int, default=100, help="batches a second from one address (100)")
    parser.add_argument("directory", type=Path)
    parser.add_argument("node", nargs="+", help="host name of an engine node, which is a shard each")
    options = parser.parse_args()
    os.umask(0o077)
    passwords = {user: secrets.token_hex(16) for user in ("unit", "viewer")
                 if not (options.directory / f"{user}s.htpasswd").exists()}
    write_configuration(options.directory, [(node, 9000, 8123) for node in options.node],
                        ["443 ssl", "[::]:443 ssl"], passwords, options.home, "::", options.rate)
    for user, password in passwords.items():
        print(f"{user}'s password: {password}")


if __name__ == "__main__":
    main()
