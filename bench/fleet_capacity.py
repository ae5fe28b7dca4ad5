#!/usr/bin/env python3
"""Measures the capacity of a fleet's store on this machine, with the load generator (wrk) on the same machine.

Posts batches of 1, 10 and 65 lines as fast as they are answered, directly to a node and through the gateway, to one
node, two shards and two replicas on loopback. On the one node, also runs the page's queries on ten million reports,
and measures the time from a datagram that a daemon receives to its row in the store. docs/fleet.md explains the
figures.

TMPDIR selects the file system. Each batch is a file, so a file system that creates files slowly makes the store slow.
"""
import base64
import json
import os
import re
import socket
import subprocess
import sys
import tempfile
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(ROOT / "scripts"))
from loopback_fleet import running_fleet, wait_for  # noqa: E402
from trial_fleet import running_units  # noqa: E402

SECONDS = int(os.environ.get("SECONDS_EACH", 5))
MILLIONS = 10
UNIT_REPORTS_PER_SECOND = 40    # a hundred calls with two streams, a report of each every five seconds
LINE = ('{"message": "%s    3-%04d       2.117 near_end     203.0.113.5  5004     250    2   0.8     12    40 '
        '3735928559 SN000 unit7@192.0.2.7"}')
FILL = """
INSERT INTO fleet.reports_shard SELECT now() AS received, now() - toUInt32(number % 3600) AS at, at AS time, 0 AS ms,
    0 AS zone, concat('3-', toString(intDiv(number, {units}) % 100)) AS gcid, '2.117' AS tid,
    if(number % 2, 'near_end', 'far_end') AS type, '203.0.113.5' AS far_end, 5004 AS port, 250 AS packets, 2 AS lost,
    toFloat32(rand(1) % 30 / 10) AS loss, rand(2) % 20 AS jitter, 30 + rand(3) % 40 AS rtt, toString(rand(4)) AS ssrc,
    toString(10000 + number % {units}) AS sn, concat('unit', toString(number % {units}), '@192.0.2.7') AS name
FROM system.numbers LIMIT {reports}"""
# Consecutive requests come from different units, so that both shards receive some.
SCRIPT = """
local count, file = 0, io.open("%s"); local body = file:read("*a"); file:close()
local bodies = {}
for unit = 0, 99 do bodies[unit] = body:gsub("SN000", string.format("SN%%03d", unit)) end
wrk.headers["Authorization"] = "%s"
function request() count = count + 1; return wrk.format("POST", nil, nil, bodies[count %% 100]) end
"""


def processor_seconds(process):
    """The CPU time of a process and its children so far."""
    children = Path(f"/proc/{process.pid}/task/{process.pid}/children").read_text().split()
    stats = [Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split() for pid in (str(process.pid), *children)]
    return sum(int(stat[11]) + int(stat[12]) for stat in stats) / os.sysconf("SC_CLK_TCK")


def rows(store):
    """The number of reports in the store, with the copies on replicas."""
    return sum(int(node.sql("SELECT count() FROM fleet.reports_shard")) for node in store.nodes)


def batches_per_second(store, replicas, lines, through_gateway):
    stamp = time.strftime("%Y-%b-%d %H:%M:%S.123 +0000", time.gmtime())
    (store.directory / "body").write_text("[\n" + ",\n".join(LINE % (stamp, row) for row in range(lines)) + "\n]")
    (store.directory / "wrk.lua").write_text(SCRIPT % (
        store.directory / "body", "Basic " + base64.b64encode(f"unit:{store.passwords['unit']}".encode()).decode()))
    if through_gateway:
        url = f"{store.url}/ingest"
    else:
        statement = re.findall(r'((?:query=INSERT|input_format)[^"]*)"', (store.directory / "gateway/gateway.conf").read_text())
        url = f"http://127.0.0.1:{store.nodes[0].http}/?{'&'.join(statement)}"
        script = store.directory / "wrk.lua"
        script.write_text(script.read_text().replace("Authorization", "X-None"))
    processes = [store.gateway, *(engine.process for engine in store.nodes)]
    before, used = rows(store), sum(map(processor_seconds, processes))
    output = subprocess.run(["wrk", "-t1", "-c64", f"-d{SECONDS}", "--timeout", "20",
                             "-s", store.directory / "wrk.lua", url], check=True, capture_output=True, text=True).stdout
    requests = int(re.search(r"(\d+) requests in", output)[1])
    refused = int((re.search(r"Non-2xx or 3xx responses: (\d+)", output) or [0, 0])[1])
    begin = time.monotonic()
    wait_for(lambda: rows(store) >= before + replicas * lines * (requests - refused), 120, "the rows")
    late = time.monotonic() - begin
    reports = (rows(store) - before) / replicas
    used = sum(map(processor_seconds, processes)) - used
    rate = reports / lines / (SECONDS + late)      # counts what was stored, not what was answered
    print(f"{len(store.nodes) // replicas} shards, {replicas} replicas, "
          f"{'gateway' if through_gateway else 'direct':7}, {lines:2} lines: {rate:6.0f} batches/s, "
          f"{1000 * used / reports * 1000:6.2f} ms of CPU time for 1,000 reports, {refused} refused, "
          f"stored {late:.1f} s after the last answer"
          + (f"; {rate * lines / UNIT_REPORTS_PER_SECOND:.0f} units" if lines == 65 else ""), flush=True)


def query_times(store, units):
    """The time that each query takes on the reports of one hour, with 100 calls per unit."""
    store.nodes[0].sql("TRUNCATE TABLE fleet.reports_shard")
    store.nodes[0].sql(FILL.format(units=units, reports=MILLIONS * 1000000))
    size = store.nodes[0].sql(
        "SELECT sum(bytes) / sum(rows) FROM system.parts WHERE active AND table = 'reports_shard'")
    print(f"{MILLIONS} million reports of {units} units in one shard, {float(size):.0f} bytes each:")
    now = int(time.time())
    period = {"from": now - 3700, "to": now + 60, "ms": 1, "step": 60, "since": now - 86400, "after": 600}
    for query in store.queries:
        times = []
        used = processor_seconds(store.nodes[0].process)
        for _ in range(3):
            begin = time.monotonic()
            status, answer = store.query(query, **period, **({"sn": "10007", "name": "unit7@192.0.2.7", "gcid": "3-1"}
                                                             if query == "call" else {}))
            times.append(time.monotonic() - begin)
            assert status == 200, answer
        used = processor_seconds(store.nodes[0].process) - used
        print(f"  {query:12} {min(times):.2f} s, {used / 3:.2f} s of CPU time, {json.loads(answer)['rows']} rows",
              flush=True)


def latency(store):
    """The latency of a report that its unit posts immediately, and of reports that arrive between two posts."""
    begun, seen = {}, {}

    def look():
        for name in store.nodes[0].sql("SELECT DISTINCT name FROM fleet.reports WHERE name LIKE 'probe%'").split():
            seen.setdefault(name, time.monotonic() - begun[name])
        return len(seen) == len(begun)

    def probe(name, port):
        begun[name] = time.monotonic()
        sender.sendto(f"QOS_EV_TYPE=QOS_NEAREND\nQOS_EV_RTCP_CNAME={name}".encode(), ("127.0.0.1", port))

    with running_units(store, 10) as units, socket.socket(type=socket.SOCK_DGRAM) as sender:
        for number, port in enumerate(units):      # posted immediately, because it is the unit's first
            probe(f"probe-first-{number}", port)
        wait_for(look, 30, "the first reports")
        for number, port in enumerate(units):
            probe(f"probe-later-{number}", port)
            deadline = time.monotonic() + 0.5
            wait_for(lambda: (look(), time.monotonic() > deadline)[1], 30, "the next half second")
        wait_for(look, 30, "the later reports")
    times = list(seen.values())
    first, later = sorted(times[:len(units)]), sorted(times[len(units):])
    print(f"from the datagram to the row: {first[0]:.1f} to {first[-1]:.1f} s when the unit posts at once, "
          f"{later[0]:.1f} to {later[-1]:.1f} s when it waits for a batch", flush=True)


def main():
    print(f"{os.cpu_count()} cores, load {os.getloadavg()[0]:.1f} before the start")
    for shards, replicas in (1, 1), (2, 1), (1, 2):
        with tempfile.TemporaryDirectory(prefix="voxstat.") as name:
            with running_fleet(name, shards=shards, replicas=replicas, rate=1000000) as store:
                for through_gateway in (False, True):
                    for lines in (1, 10, 65):
                        batches_per_second(store, replicas, lines, through_gateway)
                if len(store.nodes) == 1:
                    for units in (700, 10000):
                        query_times(store, units)
                    latency(store)


if __name__ == "__main__":
    main()
