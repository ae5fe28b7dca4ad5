#!/usr/bin/env python3
"""Writes the configuration of a fleet's nodes and gateway, and loads the list of expected units.

    fleet.py DIRECTORY NODE...      first run; later runs keep all settings that are not given again
    fleet.py --units DIRECTORY      after a change of DIRECTORY/units.csv

A node is NAME, ADDRESS or NAME=ADDRESS. docs/fleet.md says where to install the files.
"""
import argparse
import base64
import collections
import csv
import hashlib
import ipaddress
import json
import os
import re
import secrets
import shutil
import socket
import sys
import urllib.error
import urllib.parse
import urllib.request
from pathlib import Path

HERE = Path(__file__).resolve().parent
# The pattern of a parameter's value, and its form in the statement.
KINDS = {"UInt32": (r"\d{1,10}", "%s"), "Float64": (r"\d{1,6}(?:\.\d{1,9})?", "%s"),
         "String": (r"(?:[0-9A-Fa-f]{2}){0,1023}", "unhex('%s')")}
PARAMETER = re.compile(r"\{(\w+):(\w+)\}")
SERIAL = re.compile(r"[A-Za-z0-9_-]{1,32}")     # also a user name, a file name and part of a URL
SN_LENGTH = 5       # characters of it in a line
DATA = "/var/lib/clickhouse"

DIRECT = urllib.request.build_opener(urllib.request.ProxyHandler({}))       # a proxy would see the key

Node = collections.namedtuple("Node", "name address native http data", defaults=(9000, 8123, DATA))


def statements(text):
    return [part for part in re.sub(r"(?m)^--.*\n?", "", text).split(";\n") if part.strip()]


def one_statement(text):
    return " ".join(statements(text)[0].split())


COMMON = {path.stem: one_statement(path.read_text()) for path in HERE.glob("queries/common/*.sql")}


def expand(text, values):
    """Replaces each @name@ by its value, also within values."""
    return re.sub(r"@(\w+)@", lambda match: expand(str(values[match[1]]), values), text)


def queries(nodes, replicas, places="queries/*.sql"):
    """{name: statement} for a fleet of these nodes."""
    shards = [nodes[first:first + replicas] for first in range(0, len(nodes), replicas)]
    values = {**COMMON, "SHARDS": len(shards),
              "NODES": "[%s]" % ", ".join("[%s]" % ", ".join(f"'{node.name}'" for node in shard) for shard in shards)}
    return {path.stem: expand(one_statement(path.read_text()), values) for path in sorted(HERE.glob(places))}


def in_url(host):
    return f"[{host}]" if ":" in host else host


def listen_host(address):
    """All addresses of the node; ClickHouse does not start with :: on a machine without IPv6."""
    return address if ipaddress.ip_address(address).is_loopback else "::" if ":" in address else "0.0.0.0"


def parse_node(text):
    """A Node. Resolves the name now, so that gateway and nodes can start without DNS."""
    name, _, address = (part.removeprefix("[").removesuffix("]") for part in text.partition("="))
    if not re.fullmatch(r"[A-Za-z0-9:][A-Za-z0-9.:-]*", name):
        sys.exit(f'fleet.py: "{text}" is neither a host name nor an IP address')
    try:
        found = ipaddress.ip_address(address or name)
    except ValueError:
        try:
            found = ipaddress.ip_address(socket.getaddrinfo(address or name, None, type=socket.SOCK_STREAM)[0][4][0])
        except (OSError, UnicodeError) as error:
            sys.exit(f"fleet.py: cannot resolve {address or name} ({error}); specify {name}=ADDRESS")
    return Node(name, str(found).partition("%")[0])


def parse_nodes(texts, replicas):
    nodes = [parse_node(text) for text in texts]
    for what in ("name", "address"):
        for value, times in collections.Counter(getattr(node, what) for node in nodes).items():
            if times > 1:
                sys.exit(f"fleet.py: {times} nodes have the {what} {value}")
    if not nodes:
        sys.exit("fleet.py: the directory has no fleet.json; specify the nodes")
    if len(nodes) % replicas:
        sys.exit(f"fleet.py: the number of nodes ({len(nodes)}) is not a multiple of --replicas ({replicas})")
    return nodes


def read_units(path):
    """[serial, name, site] of each expected unit; empty without the file."""
    if not path.exists():
        return []
    with open(path, encoding="utf-8-sig", newline="") as file:
        reader = csv.reader(file, strict=True)
        if next(reader, None) != ["serial", "name", "site"]:
            sys.exit(f"fleet.py: {path} does not start with the line serial,name,site")
        units, seen = [], {}
        for row in filter(None, reader):
            where = f"fleet.py: {path}, line {reader.line_num}"
            if len(row) != 3 or not SERIAL.fullmatch(row[0]):
                sys.exit(f"{where}: not a serial number (letters, digits, - and _), a name and a site")
            if other := seen.get(row[0][:SN_LENGTH]):
                sys.exit(f"{where}: {row[0]} and {other} have the same first {SN_LENGTH} characters, "
                         "and the store keeps no more")
            seen[row[0][:SN_LENGTH]] = row[0]
            units.append(row)
    return units


def parameter_map(name, kind):
    """The map that checks a request's parameter and gives its form in the statement; empty if it is invalid."""
    pattern, form = KINDS[kind]
    return f'map $arg_{name} $fleet_{name} {{ default "{form % ""}"; "~^{pattern}$" "{form % ("$arg_" + name)}"; }}'


def in_arguments(sql):
    return PARAMETER.sub(r"$fleet_\1", urllib.parse.quote_plus(sql, safe="(),*=/:{}"))


def set_arguments(form, sql):
    """Puts the statement together from pieces, because nginx refuses a word of more than 4 KiB. $args comes last,
    because it contains the parameters until then."""
    pieces = re.findall(r".{1,3000}(?:\+|$)", in_arguments(sql))
    lines = ['$sql ""', *(f'$sql "${{sql}}{piece}"' for piece in pieces), f'$args "default_format={form}&query=$sql"']
    return "\n".join(f"            set {line};" for line in lines)


def query_location(name, sql):
    """The statement is fixed here; nginx inserts the parameters."""
    return (f"        location = /query/{name} {{\n{set_arguments('JSON', sql)}\n"
            "            limit_except GET { deny all; }\n            proxy_pass http://fleet_queries/;\n        }")


def replica(node, key):
    # with a default database no node counts as local, so its own rows also arrive in large blocks
    return (f"<replica><host>{node.address}</host><port>{node.native}</port><user>gateway{key[0]}</user>"
            f"<password>{key[1]}</password><default_database>fleet</default_database></replica>")


def shard_list(nodes, replicas, key):
    return "\n".join("            <shard>" + "\n                ".join(
        replica(node, key) for node in nodes[first:first + replicas]) + "</shard>"
        for first in range(0, len(nodes), replicas))


def add_password(path, user):
    """Prints and returns a new password, unless the file has one."""
    if path.exists():
        return None
    password, salt = secrets.token_hex(16), secrets.token_bytes(8)
    digest = hashlib.sha1(password.encode() + salt).digest() + salt     # long and random, so a fast hash is enough
    path.write_text(f"{user}:{{SSHA}}{base64.b64encode(digest).decode()}\n")
    return password


def write_passwords(gateway, serials):
    """Adds and removes users; returns {user: password} of new ones. Each unit's user has its own file, because nginx
    finds a file faster than a line."""
    (gateway / "units").mkdir(exist_ok=True)
    known = [path.name for path in (gateway / "units").iterdir()]
    for user in known:
        if serials and user != "unit" and user.partition(".")[0] not in serials:
            (gateway / "units" / user).unlink()
    made = {user: add_password(gateway / "units" / user, user)
            for user in serials or ["unit"] if not any(other.partition(".")[0] == user for other in known)}
    made.update({user: add_password(gateway / f"{user}s.htpasswd", user) for user in ("viewer", "monitor")})
    return {user: password for user, password in made.items() if password}


def write_configuration(directory, nodes, listen, keys, replicas=1, home=None, rate=100, timeout=10, ms=1):
    """Writes everything except the passwords to gateway/ and nodes/NAME/. keys: with which the gateway and the nodes
    log in to each other; the last one is used, and earlier ones are still accepted. home: path of gateway/ on the
    gateway. ms: milliseconds in the unit of jitter and round-trip time, for the metrics; viewers of the page select
    their own."""
    gateway = directory / "gateway"
    current = len(keys), keys[-1]
    sql = queries(nodes, replicas)
    parameters = sorted({found for text in sql.values() for found in PARAMETER.findall(text)})
    servers = "\n".join(f"    server {in_url(node.address)}:{node.http} max_fails=1 fail_timeout=@FAIL@s;"
                        for node in nodes)
    common = {
        "KEY": current[1], "GENERATION": current[0], "HOME": home or gateway, "RATE": rate, "TIMEOUT": timeout,
        "SHARDS": shard_list(nodes, replicas, current),
        "NODES": shard_list(nodes, 1, current),
        "INGEST": servers.replace("@FAIL@", "5"), "QUERY_NODES": servers.replace("@FAIL@", "30"),
        "LISTEN": "\n".join(f"    listen {address};" for address in listen),
        "PARAMETERS": "\n".join(parameter_map(name, kind) for name, kind in parameters),
        "METRICS": set_arguments("TabSeparatedRaw", queries(nodes, replicas, "metrics.sql")["metrics"].replace(
            "{ms:Float64}", str(ms))),
        "QUERIES": "\n".join(query_location(name, text) for name, text in sql.items()),
    }

    def write(target, name, **values):
        target.mkdir(parents=True, exist_ok=True)
        (target / name).write_text(expand((HERE / name).read_text(), {**common, **values}))

    write(gateway, "gateway.conf")
    users = (HERE / "users.xml").read_text()
    pair = re.search("(?s)        <!-- For each key. -->\n(.*?)(?=    </users>)", users)
    for node in nodes:
        place = directory / "nodes" / node.name
        write(place, "engine.xml", LISTEN_HOST=listen_host(node.address))
        write(place, "node_dictionary.xml", NAME=node.name, DATA=node.data)
        (place / "users.xml").write_text(users.replace(pair[0], "".join(
            expand(pair[1], {"KEY": key, "GENERATION": number}) for number, key in enumerate(keys, 1) if key)))
        shutil.copyfile(HERE / "schema.sql", place / "schema.sql")
    (gateway / "page").mkdir(exist_ok=True)
    for path in (HERE / "index.html", *HERE.glob("*.js")):
        shutil.copyfile(path, gateway / "page" / path.name)


def node_sql(node, key, number, text, body=b""):
    """Runs a statement; raises OSError if the node fails."""
    url = f"http://{in_url(node.address)}:{node.http}/?" + urllib.parse.urlencode({"query": text})
    head = {"X-ClickHouse-User": f"gateway{number}", "X-ClickHouse-Key": key}
    with DIRECT.open(urllib.request.Request(url, body, head), timeout=30) as answer:
        answer.read()


def load_units(node, keys, units):
    """Replaces the node's list of units."""
    rows = "".join("\t".join(re.sub(r"[\\\t\n]", lambda found: {"\\": r"\\", "\t": r"\t", "\n": r"\n"}[found[0]], word)
                             for word in (serial[:SN_LENGTH], name, site)) + "\n" for serial, name, site in units)
    for text in ("DROP TABLE IF EXISTS fleet.units_new", "DROP TABLE IF EXISTS fleet.units_old",
                 "CREATE TABLE fleet.units_new AS fleet.units",
                 *(["INSERT INTO fleet.units_new FORMAT TabSeparated"] if rows else []),
                 "RENAME TABLE fleet.units TO fleet.units_old, fleet.units_new TO fleet.units",
                 "DROP TABLE fleet.units_old"):
        node_sql(node, keys[-1], len(keys), text, rows.encode() if text.startswith("INSERT") else b"")


def load_on_all(nodes, keys, units):
    """Returns True if every node has loaded them."""
    failed = 0
    for node in nodes:
        try:
            load_units(node, keys, units)
        except OSError as error:
            answer = error.read().decode(errors="replace") if isinstance(error, urllib.error.HTTPError) else ""
            print(f"fleet.py: {node.name} did not accept the list of units: {error} {answer}".rstrip(), file=sys.stderr)
            failed += 1
    print(f"Expected units: {len(units)}. Nodes that have the list: {len(nodes) - failed} of {len(nodes)}.")
    return not failed


def parse_arguments():
    parser = argparse.ArgumentParser(description="Writes the configuration of a fleet's nodes and gateway.")
    parser.add_argument("--home", help="path of DIRECTORY/gateway on the gateway's machine, if different")
    parser.add_argument("--rate", type=int, help="maximum batches per second from one user and address (100)")
    parser.add_argument("--replicas", type=int, help="number of nodes in each shard (1)")
    parser.add_argument("--ms", type=float,
                        help="for /metrics: milliseconds in one unit of jitter and round-trip time (1)")
    parser.add_argument("--units", action="store_true", help="also load units.csv into all nodes")
    parser.add_argument("--rotate", metavar="UNIT", help="also add a second password for this unit")
    parser.add_argument("--new-key", action="store_true",
                        help="add a key with which the gateway and the nodes log in to each other; old keys stay valid")
    parser.add_argument("--only-new-key", action="store_true", help="remove all keys except the newest")
    parser.add_argument("directory", metavar="DIRECTORY", type=Path,
                        help="where the files are written; contains units.csv, if you list the expected units")
    parser.add_argument("node", metavar="NODE", nargs="*",
                        help="NAME, ADDRESS or NAME=ADDRESS; name the replicas of a shard one after another. "
                             "Without nodes and options, those of the previous run are used.")
    return parser.parse_intermixed_args()


def main():
    options = parse_arguments()
    directory, path = options.directory.resolve(), options.directory / "fleet.json"
    state = {"nodes": [], "rate": 100, "replicas": 1, "ms": 1, "home": None, "keys": [secrets.token_hex(16)]}
    if path.exists():
        state.update(json.loads(path.read_text()))
    state.update({name: given for name in ("rate", "replicas", "ms", "home")
                  if (given := getattr(options, name)) is not None})
    if min(state["rate"], state["replicas"], state["ms"]) <= 0:
        sys.exit("fleet.py: --rate, --replicas and --ms need a number greater than 0")
    state["nodes"] = options.node or state["nodes"]
    if options.new_key:
        state["keys"].append(secrets.token_hex(16))
    if options.only_new_key:
        state["keys"] = [""] * (len(state["keys"]) - 1) + state["keys"][-1:]
    nodes, units = parse_nodes(state["nodes"], state["replicas"]), read_units(options.directory / "units.csv")
    serials = [serial for serial, *_ in units]
    if options.rotate and options.rotate not in (serials or ["unit"]):
        sys.exit(f"fleet.py: there is no unit {options.rotate}")
    os.umask(0o027)
    write_configuration(directory, nodes, ["443 ssl", "[::]:443 ssl"], state["keys"], state["replicas"], state["home"],
                        state["rate"], ms=state["ms"])
    path.write_text(json.dumps(state, indent=4) + "\n")
    gateway = directory / "gateway"
    passwords = write_passwords(gateway, serials)
    if options.rotate:
        user = next(name for number in range(2, 1000)
                    if not (gateway / "units" / (name := f"{options.rotate}.{number}")).exists())
        passwords[user] = add_password(gateway / "units" / user, user)
    for user, password in passwords.items():
        print(f"password of {user}: {password}")
    if options.units and not load_on_all(nodes, state["keys"], units):
        sys.exit(1)


if __name__ == "__main__":
    try:
        main()
    except (OSError, UnicodeError, csv.Error) as error:
        sys.exit(f"fleet.py: {error}")
