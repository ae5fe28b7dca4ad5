"""Failures of a fleet's nodes while units post and a viewer reads."""
import collections
import json
import os
import re
import shutil
import signal
import socket
import subprocess
import threading
import time

import pytest
from conftest import batch, wait_for
from test_fleet import call, fleet, post, pytestmark, running_fleet  # noqa: F401

SPOOL = "node*/data/data/fleet/lines/*"


class Traffic:
    """Four senders of batches of five lines, and the page's query for the shards, until the end of the block."""

    def __init__(self, store):
        self.store, self.going = store, True
        self.accepted, self.posts, self.queries = set(), collections.Counter(), []
        self.threads = [threading.Thread(target=self.send, args=(number,)) for number in range(4)]
        self.threads.append(threading.Thread(target=self.ask))

    def __enter__(self):
        for thread in self.threads:
            thread.start()
        wait_for(lambda: self.posts[200] > 100, 60, "for a hundred batches")
        return self

    def __exit__(self, *_):
        self.going = False
        for thread in self.threads:
            thread.join()

    def send(self, sender):
        number = 0
        while self.going:
            number += 1
            rows = {f"{sender}-{number}-{row}" for row in range(5)}
            status = post(self.store, *(call(row, sn=f"U{number % 8}") for row in rows))
            self.posts[status] += 1
            if status == 200:
                self.accepted |= rows
            time.sleep(0.02)

    def ask(self):
        while self.going:
            begin = time.monotonic()
            self.queries.append((self.store.query("shards")[0], time.monotonic() - begin))
            time.sleep(0.1)

    def more(self, batches=200):
        goal = self.posts[200] + batches
        wait_for(lambda: self.posts[200] > goal, 120, "for more batches")

    def settle(self, replicas):
        """(lost lines, duplicate lines) after all deliveries; each replica must have all lines of its shard."""
        def delivered():
            for path in self.store.directory.glob(SPOOL + "/broken/*.bin"):
                path.rename(path.parents[1] / path.name)    # 18.16 sets them aside as broken when their node dies
            return not [path for _ in range(2) for path in self.store.directory.glob(SPOOL + "/**/*.bin")]
        wait_for(delivered, 120, "for the deliveries")
        lost = duplicate = 0
        for first in range(replicas):
            rows = collections.Counter(row for engine in self.store.nodes[first::replicas]
                                       for row in engine.sql("SELECT name FROM fleet.reports_shard").split())
            lost += len(self.accepted - set(rows))
            duplicate += sum(rows.values()) - len(rows)
        statuses = collections.Counter(status for status, _ in self.queries)
        print(f"posts {dict(self.posts)}, lines acknowledged {len(self.accepted)}, lost {lost}, duplicate {duplicate}; "
              f"queries {dict(statuses)}, the slowest {max(seconds for _, seconds in self.queries):.1f} s")
        return lost, duplicate


def deduplicate(engine):
    for partition in set(engine.sql("SELECT toYYYYMM(at) FROM fleet.reports_shard").split()):
        engine.sql(f"OPTIMIZE TABLE fleet.reports_shard PARTITION {partition} FINAL DEDUPLICATE")
    return engine.sql("SELECT count(), sum(cityHash64(name, at, ms, sn)) FROM fleet.reports_shard")


def restart(engine):
    engine.start()
    wait_for(engine.ready, 60, "for the engine")


def kill(traffic, engine):
    engine.kill()
    traffic.more()
    restart(engine)
    traffic.more()


def kill_thrice(traffic, engine):
    for _ in range(3):
        kill(traffic, engine)


def shut_down(traffic, engine):
    engine.process.terminate()
    engine.process.wait(120)
    restart(engine)
    traffic.more()


def silence(traffic, engine):
    engine.process.send_signal(signal.SIGSTOP)
    try:
        deadline = time.monotonic() + 60
        wait_for(lambda: time.monotonic() > deadline, 90)
    finally:
        engine.process.send_signal(signal.SIGCONT)
    traffic.more()


LONG = pytest.mark.long
FAULTS = [  # shards, replicas, fault of the last node; maximum of refused posts, failed queries, seconds per query
    pytest.param(2, 1, kill, 12, 3, 5, id="the only node of a shard is killed"),
    pytest.param(1, 2, kill_thrice, 24, 3, 5, id="a replica is killed three times", marks=LONG),
    pytest.param(1, 2, shut_down, 8, 0, 9, id="a replica is shut down", marks=LONG),
    pytest.param(1, 2, silence, 24, 3, 21, id="a replica is silent", marks=LONG),
]


@pytest.mark.parametrize("shards, replicas, fault, refused, failed, seconds", FAULTS)
def test_no_acknowledged_line_is_lost(tmp_path, shards, replicas, fault, refused, failed, seconds):
    """A delivery that a kill interrupts may be stored and repeated; the engine can remove the duplicates."""
    with running_fleet(tmp_path / "fleet", shards=shards, replicas=replicas) as store:
        with Traffic(store) as traffic:
            fault(traffic, store.nodes[-1])
        lost, _ = traffic.settle(replicas)
        assert lost == 0
        assert sum(traffic.posts.values()) - traffic.posts[200] <= refused
        assert sum(status != 200 for status, _ in traffic.queries) <= failed
        assert max(taken for _, taken in traffic.queries) < seconds
        rows = sum(int(deduplicate(engine).split()[0]) for engine in store.nodes)
        assert len(traffic.accepted) * replicas <= rows <= (len(traffic.accepted) + 5 * refused) * replicas


EIGHT = "serial,name,site\n" + "".join(f"U{number},,\n" for number in range(8))


@pytest.mark.parametrize("fleet", [{"units": EIGHT}], indirect=True)
def test_a_shard_that_is_down_is_named(fleet):  # noqa: F811
    for number in range(8):
        assert fleet.request("/ingest", f"U{number}", body=batch([call("x", sn=f"U{number}")]).encode())[0] == 200
    wait_for(lambda: fleet.count("reports") == 8, 30, "for the rows")
    there = set(fleet.nodes[1].sql("SELECT sn FROM fleet.reports_shard").split())
    fleet.nodes[1].kill()
    wait_for(lambda: missing(fleet) == [(0, 1, set()), (1, 0, there)], 10, "for the shard to be missed")
    assert 0 < len(there) < 8 and fleet.nodes[0].sql(
        "SELECT count() FROM fleet.reports", user="viewer1", password=fleet.keys[-1]) == f"{8 - len(there)}\n"
    text = fleet.request("/metrics", "monitor")[1].decode()
    for sample in ("expected 8", f"heard {8 - len(there)}", "silent 0", f"missing {len(there)}"):
        assert f"\nvoxstat_fleet_units_{sample}\n" in text


def missing(store):
    return [(row["shard"], row["up"], set(row["missing"])) for row in json.loads(store.query("shards")[1])["data"]]


@pytest.mark.long
def test_a_replica_is_rebuilt(tmp_path):
    """As in docs/fleet.md: an empty node gets the spool files that wait for it, and the rest from the other replica."""
    with running_fleet(tmp_path / "fleet", shards=1, replicas=2) as store:
        twin, lost = store.nodes
        with Traffic(store) as traffic:
            traffic.more()
            lost.kill()
            shutil.rmtree(lost.directory / "data")
            traffic.more()
            setup = store.directory / "nodes/node1/users.xml"
            users = setup.read_text()
            setup.write_text(re.sub("(?s)<gateway1>.*</viewer1>", "", users))   # no deliveries before all tables exist
            restart(lost)
            lost.make_tables()
            setup.write_text(users)
            lost.kill()
            restart(lost)
            traffic.more()
            lost.sql(f"INSERT INTO fleet.reports_shard SELECT * FROM remote('127.0.0.1:{twin.native}', fleet, "
                     f"reports_shard, 'gateway1', '{store.keys[-1]}')")
        gone, _ = traffic.settle(2)     # the lost disk had batches that were not delivered yet
        assert gone <= 2 * 125
        assert deduplicate(twin) == deduplicate(lost)
        assert len(traffic.accepted) - gone / 2 <= int(deduplicate(lost).split()[0])


@pytest.mark.long
def test_a_full_disk(tmp_path):
    """The node refuses batches while it can still store them, and the gateway gives them to another."""
    data = tmp_path / "fleet/node1/data"
    data.mkdir(parents=True)
    if subprocess.run(["mount", "-t", "tmpfs", "-o", "size=700m", "fleet", data], capture_output=True).returncode != 0:
        pytest.skip("no right to mount")
    try:
        with running_fleet(tmp_path / "fleet", shards=1, replicas=2) as store:
            with Traffic(store) as traffic:
                with open(data / "fill", "wb") as file:
                    os.posix_fallocate(file.fileno(), 0, 300_000_000)
                wait_for(lambda: refuses(store.nodes[1]), 30, "for the node to refuse")
                traffic.more(500)
                (data / "fill").unlink()
                traffic.more(100)
            assert traffic.settle(2)[0] == 0 and set(traffic.posts) == {200}
    finally:
        subprocess.run(["umount", data], check=True)


def refuses(engine):
    try:
        engine.sql('INSERT INTO fleet.incoming FORMAT CSV\n"{"')
    except OSError:
        return True
    return False


@pytest.mark.parametrize("fleet", [{"connections": 300}], indirect=True)
def test_slow_headers(fleet):  # noqa: F811
    """The gateway closes incomplete requests after five seconds, even if they use all its connections."""
    slow = []
    try:
        for _ in range(1200):
            slow.append(socket.create_connection(("127.0.0.1", fleet.http)))
            slow[-1].sendall(b"POST /ingest HTTP/1.1\r\nHost: ")
        wait_for(lambda: post(fleet, call("through")) == 200, 20, "for a batch to get through")
    finally:
        for connection in slow:
            connection.close()


@pytest.mark.parametrize("fleet", [{"timeout": 2}], indirect=True)
def test_silent_nodes_free_the_units(fleet):  # noqa: F811
    for number, status in ((signal.SIGSTOP, 504), (signal.SIGCONT, 200)):
        for engine in fleet.nodes:
            engine.process.send_signal(number)
        begin = time.monotonic()
        assert post(fleet, call("next")) == status
        assert time.monotonic() - begin < 10      # the time-out is 2 s here
    wait_for(lambda: fleet.count("reports") >= 1, 40, "for the next batch")     # a node may also keep the first one
