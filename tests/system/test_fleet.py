"""The fleet's store: two nodes and the gateway on loopback, with real daemons."""
import base64
import csv
import json
import re
import shutil
import subprocess
import sys
import time
import urllib.request
from pathlib import Path

import pytest
from conftest import BUILD, ROOT, batch, expected, line, report, wait_for

sys.path.insert(0, str(ROOT / "fleet"))
from loopback_fleet import running_fleet  # noqa: E402, F401

pytestmark = pytest.mark.skipif(not all(Path("/usr/sbin", name).exists() for name in ("clickhouse-server", "nginx")),
                                reason="no clickhouse-server or no nginx")


@pytest.fixture
def fleet(tmp_path, request):
    """Parametrised indirectly by other options of Fleet."""
    with running_fleet(tmp_path / "fleet", **getattr(request, "param", {})) as store:
        yield store
        for log in [store.directory / "gateway.log", *store.directory.glob("node*/out")]:
            print(f"{log.parent.name}/{log.name}: {log.read_text(errors='replace')[-2000:]}")


def post(fleet, *lines):
    return fleet.request("/ingest", "unit", body=batch(lines).encode())[0]


def names(fleet):
    return fleet.nodes[0].sql("SELECT name FROM fleet.reports").split()


def stored_lines(fleet):
    """The rows of the store, as the lines from which they were made."""
    columns = {"TIME_STAMP_SEC": "toUInt32(time)", "TIME_STAMP_USEC": "ms * 1000", "GCID": "gcid", "TID": "tid",
               "FAR_END_IP": "far_end", "PORT": "port", "PACKETS": "packets", "LOST_SINCE_LAST_REPORT": "lost",
               "LOST_LOST_SINCE_LAST_REPORT_PERCENT": "loss", "JITTER_AVG": "jitter", "RTT_AVG": "rtt", "SSRC": "ssrc",
               "SERIAL_NUM": "sn", "RTCP_CNAME": "name"}
    select = f"SELECT zone, type, {', '.join(columns.values())} FROM fleet.reports FORMAT TSVRaw"
    for row in fleet.nodes[1].sql(select).split("\n")[:-1]:
        zone, end, *values = row.split("\t", 15)
        assert zone == "330"
        yield line("QOS_" + end.upper().replace("_", ""), **dict(zip(columns, values)))


HOSTILE = ["back\\slash at the end\\", 'quo"te', '"quoted"', "it's", '"},', '"}', "tab\there", "\x01\x1b[31m", "a, b",
           "<img src=x onerror=alert(1)>", "'; DROP TABLE fleet.reports_shard; --", "  blanks  ", "", "\udcff\udcfe",
           "grün"]
LOST = [{"RTCP_CNAME": "carriage\rreturn"}, {"RTCP_CNAME": "at the end\r"},     # counts as the end of the line
        {"LOST_LOST_SINCE_LAST_REPORT_PERCENT": "nan"}]


@pytest.mark.parametrize("fleet", [{"timeout": 60}], indirect=True)    # a slow answer must not lose a batch
def test_every_report_of_twenty_units(fleet, start):
    """Each row is stored once and is equal to the line in the unit's own file. A malformed report loses only its own
    row. A service report is stored as a heartbeat, not as a report."""
    units = [start(serial=f"U{number:02d}-long", elastic_url=fleet.elastic_url()) for number in range(20)]
    traffic = [subprocess.Popen([BUILD / "tools/voxstat-sim", "--port", str(unit.port), "--calls", "3", "--speed",
                                 "100", "--seed", str(number)], stdout=subprocess.PIPE, text=True)
               for number, unit in enumerate(units)]
    odd = [{"RTCP_CNAME": name} for name in HOSTILE] + LOST
    # an impossible loss is stored as 100 %
    odd.append({"PORT": 123456, "PACKETS": 2000000000, "LOST_SINCE_LAST_REPORT": -12345, "JITTER_AVG": 9999999,
                "LOST_LOST_SINCE_LAST_REPORT_PERCENT": 12345, "SSRC": "longer123456", "TIME_STAMP_SEC": 0})
    units[0].send(*(report(**fields).encode("utf-8", "surrogateescape") for fields in odd))
    sent = sum(int(re.search(r"(\d+) session reports", run.communicate()[0])[1]) for run in traffic)
    wait_for(lambda: all(unit.drained() for unit in units), 60, "for the last datagrams")
    dropped = sum(unit.sockets()[0][1] for unit in units)       # by the kernel of a busy machine
    assert dropped < sent / 10
    total = sent + len(HOSTILE) + 1 - dropped
    wait_for(lambda: fleet.count("reports") >= total, 60, f"for all {total} reports")
    assert fleet.count("heartbeats") == 0
    subprocess.run([BUILD / "tools/check/voxstat-check", "-f", units[9].directory / "voxstat.cfg", "--post"])
    wait_for(lambda: fleet.count("heartbeats"), 60, "for the heartbeat")
    assert fleet.nodes[0].sql("SELECT DISTINCT sn FROM fleet.heartbeats") == "U09-l\n"
    written = []
    for unit in units:
        unit.stop()
        rows = unit.read("QoS_Stat.txt").decode("utf-8", "surrogateescape").split("\n")[1:-1]
        written += [row.replace(" 12345.0 ", " 100.0 ") + "\n" for row in rows
                    if "\r" not in row and "  nan " not in row]
    assert sorted(stored_lines(fleet)) == sorted(written)
    assert 0 < fleet.count("reports_shard") < fleet.count("reports")     # both shards have some


ACCESS = [  # path, user, body: status
    ("/ingest", "viewer", b"[\n]", 403), ("/ingest", None, b"[\n]", 401), ("/ingest", "unit", None, 403),
    ("/ingest", "unit", b"x" * 140000, 413), ("/ingest?query=DROP+DATABASE+fleet&user=default", "unit", b"[\n]", 200),
    ("/query/trend?from=0&to=9", "unit", None, 401), ("/query/trend?from=0&to=9", None, None, 401),
    ("/query/trend?from=0&to=9", "viewer", b"x", 403), ("/query/trend?from=0&to=9)+OR+(1", "viewer", None, 400),
    ("/query/call?from=0&to=9&sn=')&name=&gcid=", "viewer", None, 200), ("/", "unit", None, 401),
    ("/units/unit", "viewer", None, 404), ("/?query=SELECT+1", "viewer", b"DROP DATABASE fleet", 405),
]


@pytest.mark.parametrize("fleet", [{"rate": 1}], indirect=True)
def test_access(fleet):
    assert len(list(fleet.directory.glob("node*/data/data/fleet/lines/gateway*"))) == 4     # of each node for each
    for path, user, body, status in ACCESS:
        assert (path, user, fleet.request(path, user, body=body)[0]) == (path, user, status)
    assert fleet.request("/ingest", "unit", "wrong", b"[\n]")[0] == 401
    key = re.search("<password>(.+)</password>", (fleet.directory / "nodes/node0/users.xml").read_text())[1]
    for statement in ("DROP DATABASE fleet", "INSERT INTO fleet.reports_shard (sn) VALUES ('x')", "SET readonly = 0"):
        with pytest.raises(OSError):
            fleet.nodes[0].sql(statement, user="viewer1", password=key)
    assert fleet.count("reports") == 0
    fleet.nodes[0].kill()
    assert {post(fleet) for _ in range(20)} == {200}      # by the other node
    assert [post(fleet) for _ in range(250)][-1] == 429


def call(name, gcid="3-1", sn="A", event="QOS_NEAREND", seconds=None, loss=0, jitter=0, rtt=0):
    return line(event, RTCP_CNAME=name, GCID=gcid, SERIAL_NUM=sn, TIME_STAMP_SEC=seconds or int(time.time()),
                LOST_LOST_SINCE_LAST_REPORT_PERCENT=loss, JITTER_AVG=jitter, RTT_AVG=rtt)


def test_queries(fleet):
    now = int(time.time())
    post(fleet, *(call("one", gcid=f"4-{number}") for number in range(100)), call("two", gcid="3-2"),
         call("one", loss=1, seconds=now), call("one", event="QOS_FAREND", loss=1, seconds=now - 9),
         call("one", sn="B", rtt=400, jitter=20), call("bad", sn="C", gcid="3-9", loss=15),
         call("bad", sn="C", gcid="3-9", loss=5), call("bad", sn="C", gcid="3-9", seconds=now - 4000),
         call("clock", sn="D", seconds=9, loss=2))
    wait_for(lambda: fleet.count("reports") == 108, 30, "for the rows")
    fleet.nodes[0].sql("INSERT INTO fleet.heartbeats_shard VALUES " + ", ".join(
        f"({now - age}, '{sn}')" for sn, age in (("B", 10), ("F", 700), ("G", 90000))))

    def rows(query, columns, **parameters):
        status, answer = fleet.query(query, **{"from": now - 3600, "to": now + 3600, **parameters})
        assert status == 200, answer
        return [tuple(round(row[column], 2) if isinstance(row[column], float) else row[column]
                      for column in columns.split()) for row in json.loads(answer)["data"]]

    # By hand: R is 93.2 without impairment, 80.5 at a delay of 240 ms, and 89.6, 86.2, 77.4 and 57.7 at 1, 2, 5 and
    # 15 % of loss. The tests of voxstat-plot use the same table of further figures.
    with open(ROOT / "tests/system/data/speech_quality.csv") as table:
        figures = list(csv.DictReader(table))
    post(fleet, *(call(row["call"], gcid=row["call"], sn="Q", seconds=now - 5000, loss=row["loss_percent"],
                       jitter=row["jitter_ms"], rtt=row["round_trip_ms"]) for row in figures))
    wait_for(lambda: fleet.count("reports") == 108 + len(figures), 30, "for the figures")
    rated = rows("worst_calls", "rtcp_name mos_min", unit="Q", ms=1, **{"from": now - 6000})
    assert sorted(rated) == sorted((row["call"], round(float(row["mos"]), 2)) for row in figures)

    worst = rows("worst_calls", "call rtcp_name reports loss_max jitter_max mos_min severity", ms=1)
    assert len(worst) == 100 and worst[:4] == [
        ("3-9", "bad", 2, 15, 0, 2.98, 15), ("3-1", "clock", 1, 2, 0, 4.23, 2),
        ("3-1", "one", 1, 0, 20, 4.04, 1.33), ("3-1", "one", 2, 1, 0, 4.33, 1)]
    assert rows("worst_calls", "jitter_max mos_min severity", ms=0.5)[3] == (20, 4.35, 0.67)
    for text in ("BAD", "3-9"):
        assert rows("search", "unit call", find=text, ms=1) == [("C", "3-9")]
    units = rows("units", "unit reports loss_mean", ms=1)
    assert units[0] == ("C", 2, 10) and sorted(unit for unit, *_ in units) == ["A", "B", "C", "D"]
    silent = {"columns": "unit last_heartbeat silent expected", "since": 0, "after": 600, "to": now + 5}
    assert rows("silent", **silent) == [("F", now - 700, 1, 1)]
    for engine in set(fleet.nodes):
        engine.sql("INSERT INTO fleet.units VALUES "
                   "('A', 'Aachen', 'west'), ('E', 'Essen', 'west'), ('C', 'Cottbus', 'east')")
    assert rows("silent", **silent)[:2] == [("F", now - 700, 1, 0), ("E", 0, 1, 1)]
    assert sorted(rows("silent", **silent)[2:]) == [("B", now - 10, 0, 0), ("D", 0, 0, 0)]
    assert rows("silent", site="west", **silent) == [("E", 0, 1, 1)]
    assert rows("expected", "unit unit_name site")[0] == ("C", "Cottbus", "east")
    assert rows("sites", "site units reports loss_mean", ms=1)[0] == ("east", 1, 2, 10)
    assert rows("reporting", "units calls reports expected") == [(5, 105, 107, 3)]
    assert rows("reporting", "units calls reports expected", site="west") == [(1, 102, 103, 2)]
    trend = rows("trend", "t reports", step=600, ms=0.5)
    assert sum(reports for _, reports in trend) == 107 and all(step % 600 == 0 for step, _ in trend)
    assert rows("trend", "reports loss_mean mos_mean", step=86400, ms=1, unit="D") == [(1, 2, 4.23)]
    assert rows("call", "t type", sn="A", gcid="3-1", tid="") == [(now, "near_end"), (now - 9, "far_end")]
    assert rows("shards", "shard total up") == [(0, 2, 1), (1, 2, 1)]
    for user, other in (("A", "B"), ("A", "B"), ("F", "C")):
        fleet.nodes[0].sql(f"INSERT INTO fleet.incoming VALUES ('|{user} ::1 {other}')")
    wait_for(lambda: fleet.count("foreign") == 3, 30, "for the foreign batches")
    assert sorted(rows("foreign", "user address unit batches")) == [("A", "::1", "B", 2), ("F", "::1", "C", 1)]
    assert rows("foreign", "user", site="east") == [("F",)]


REFUSED = [  # units.csv, nodes, message of fleet.py
    ("", ["a<b=::1"], "neither a host name"), ("", ["fe80::1%<x>"], "neither a host name"),
    ("", ["a=::1", "a=::2"], "the name a"), ("", ["127.0.0.1", "b=127.0.0.1"], "the address 127.0.0.1"),
    ("", ["n.invalid"], "cannot resolve n.invalid"), ("serial,site\n", ["::1"], "does not start"),
    ("serial,name,site\n1 2,,\n", ["::1"], "line 2: not a serial"),
    ("serial,name,site\n123456,,\n123457,,\n", ["::1"], "line 3: 123457 and 123456 have the same first 5 characters"),
    ("serial,name,site\n1,a,\n1,b,\n", ["::1"], "line 3: 1 and 1 have the same"),
    ('serial,name,site\n1,"a\n', ["::1"], "fleet.py: unexpected end of data"), ("", [], "specify the nodes"),
    ("", ["--rotate=../40731", "::1"], "no unit ../40731"), ("", ["--replicas=0", "::1"], "a number greater than 0"),
]


def test_set_up(tmp_path):
    def set_up(*words, units="", directory="kept"):
        place = tmp_path / directory
        place.mkdir(exist_ok=True)
        (place / "units.csv").write_text(units or "serial,name,site\n40731,,\n40732,,\n")
        told = subprocess.run([ROOT / "fleet/fleet.py", place, *words], capture_output=True, text=True)
        return told.returncode, told.stdout + told.stderr

    for number, (units, nodes, message) in enumerate(REFUSED):
        status, told = set_up(*nodes, units=units, directory=str(number))
        assert status == 1 and message in told, (units, nodes, told)
        assert not (tmp_path / str(number) / "gateway").exists()
    status, told = set_up("--replicas=2", "--rate=7", "a=10.0.0.1", "[fd00::2]")
    assert status == 0 and [row.split(":")[0] for row in told.splitlines()] == [
        f"password of {user}" for user in ("40731", "40732", "viewer", "monitor")]
    before = {path: path.read_text() for path in tmp_path.glob("kept/**/*") if path.is_file()}
    assert set_up() == (0, "")
    assert before == {path: path.read_text() for path in tmp_path.glob("kept/**/*") if path.is_file()}
    gateway = (tmp_path / "kept/gateway/gateway.conf").read_text()
    assert "server [fd00::2]:8123 " in gateway and "rate=7r/s" in gateway
    engines = {path.parent.name: path.read_text() for path in tmp_path.glob("kept/nodes/*/engine.xml")}
    assert "<host>fd00::2</host>" in engines["a"] and ">0.0.0.0</listen_host>" in engines["a"]
    assert ">::</listen_host>" in engines["fd00::2"]
    set_up("--rotate=40731", units="serial,name,site\n40731,,\n")
    assert sorted(path.name for path in tmp_path.glob("kept/gateway/units/*")) == ["40731", "40731.2"]
    set_up(*(f"clickhouse{number}.example.com=10.0.0.{number}" for number in range(1, 100)), directory="many")
    words = (tmp_path / "many/gateway/gateway.conf").read_text().split()
    assert max(map(len, words)) < 4096      # nginx refuses longer ones
    assert not any(path.stat().st_mode & 0o007 for path in tmp_path.glob("kept/gateway/**/*.*") if path.is_file())


UNITS = 'serial,name,site\nU1,one,"K""ö\\ln\nx"\nU2-long,two,Bonn\nU9,nine,Bonn\n'


@pytest.mark.parametrize("fleet", [{"units": UNITS, "shards": 1}], indirect=True)
def test_metrics(fleet):
    """Prometheus can read the metrics, even with special characters in a site's name. Impossible values are limited."""
    rows = [call("x", sn="U1", jitter=-2147483648), call("x", sn="U1", loss=1e300, rtt=2147483647),
            call("x", sn="U2-lo", jitter=12), call("x", sn="U3", loss=-7)]
    wide = [line(SERIAL_NUM="U9", PORT=123456, PACKETS=2000000000, SSRC="longer123456", RTCP_CNAME="U2 U2",
                 TIME_STAMP_SEC=time.time() - 9000)]
    for user, posted in (("U2-long", batch(rows[2:3])), ("U9", batch(wide)), ("U1", batch(rows[:2] + rows[3:])),
                         ("U2-long", batch(wide)), ("U2-long", "[\n|U1 10.0.0.1 U9\n]")):
        assert fleet.request("/ingest", user, body=posted.encode())[0] == 200
    wait_for(lambda: fleet.count("foreign") == 3 and fleet.count("reports") == 6, 30, "for the rows")
    assert fleet.nodes[0].sql("SELECT user, address, sn FROM fleet.foreign ORDER BY user, sn") == (
        "U1\t127.0.0.1\tU3\nU2-long\t127.0.0.1\t\nU2-long\t127.0.0.1\tU9\n")
    figures = "SELECT loss, jitter, rtt FROM fleet.reports WHERE name = 'x' ORDER BY rtt, jitter DESC"
    assert fleet.nodes[0].sql(figures) == (
        "0\t12\t0\n0\t0\t0\n0\t0\t0\n100\t0\t10000000\n")
    wait_for(lambda: fleet.request("/metrics", "monitor")[0] == 200, 30, "for the node's dictionary")
    for path, user in (("/", "viewer"), ("/query/shards", "viewer"), ("/metrics", "monitor")):
        login = base64.b64encode(f"{user}:{fleet.passwords[user]}".encode()).decode()
        request = urllib.request.Request(fleet.url + path, headers={"Authorization": f"Basic {login}"})
        with urllib.request.urlopen(request, timeout=60) as answer:
            assert "ClickHouse" not in str(answer.headers), path      # one of its headers has the node's host name
    text = fleet.request("/metrics", "monitor")[1].decode()
    for sample in ("units_expected 3", "units_heard 3", "units_silent 1", "units_unexpected 1", "reports 4", "calls 3",
                   "bad_calls 1", "foreign_batches 3", 'site_loss_percent{site="K\\"ö\\\\ln\\nx"} 50',
                   'site_loss_percent{site="Bonn"} 0', 'node_up{node="node0"} 1', 'node_spool_files{node="node0"} 0'):
        assert f"\nvoxstat_fleet_{sample}\n" in text
    free = float(re.search(r'node_free_bytes\{node="node0"\} (\S+)', text)[1])
    assert abs(free - shutil.disk_usage(fleet.directory).free) < 1e9
    if not shutil.which("promtool"):
        pytest.skip("no promtool")
    for words, given in ((["check", "metrics"], text), (["test", "rules", fleet.directory / "test.yml"], "")):
        shutil.copy(ROOT / "fleet/alerts.yml", fleet.directory)
        (fleet.directory / "test.yml").write_text(expected("fleet_alerts_test.yml"))
        told = subprocess.run(["promtool", *words], input=given, capture_output=True, text=True)
        assert told.returncode == 0, told


def test_over_tls(fleet, start):
    """A unit trusts the machine's store of certificates, here in a mount namespace."""
    launch = ["unshare", "-rm", "sh", "-c", 'mount --bind "$0" /etc/ssl/certs/ca-certificates.crt && exec "$@"',
              fleet.directory / "gateway/tls.crt"]
    if subprocess.run([*launch, "true"], capture_output=True).returncode != 0:
        pytest.skip("no mount namespace, or no ca-certificates")
    trusting, stranger = (start(launch=words, log__http=2, elastic_url=fleet.elastic_url("https"))
                          for words in (launch, ()))
    trusting.send(report(RTCP_CNAME="trusted"))
    stranger.send(report(RTCP_CNAME="stranger"))
    stranger.logged("curl_easy_perform failed: 60")
    wait_for(lambda: names(fleet) == ["trusted"], 30, "for the row")
