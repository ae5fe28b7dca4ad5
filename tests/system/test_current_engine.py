"""The fleet's tables and queries on the engine's current release, which the npm registry has as a library.

The same cases as on the Debian release, with the same expectations. There is no cluster in the library: its tables
read and write the one shard that there is.
"""
import fcntl
import json
import os
import re
import shutil
import subprocess
import sys
import urllib.parse

import pytest

import test_fleet
from conftest import ROOT, line

sys.path.insert(0, str(ROOT / "fleet"))
from fleet import KINDS, PARAMETER, Node, queries, statements  # noqa: E402

pytestmark = pytest.mark.long
LIBRARY = ROOT / "build/current-engine"
PACKAGE = "chdb@3"


class CurrentEngine:
    """The operations of a Fleet that the tests use."""

    def __init__(self, directory):
        self.process = subprocess.Popen(
            ["node", ROOT / "tests/system/current_engine.js", LIBRARY / "node_modules/chdb", directory / "data"],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True, env={**os.environ, "TZ": "UTC"})
        self.nodes = [self, self]
        self.queries = queries([Node(name, "") for name in ("node0", "node1")], 1)
        args = re.findall(r'set \$args "(?:\$args&)?(.*)";', (ROOT / "fleet/gateway.conf").read_text())
        settings = dict(urllib.parse.parse_qsl("&".join(args[:2])))
        insert = settings.pop("query").replace(" FORMAT ", " SETTINGS " + ", ".join(
            f"{name} = '{value}'" for name, value in settings.items()) + " FORMAT ")
        self.insert = insert.replace("\0", r"\0") + "\n"
        for statement in statements((ROOT / "fleet/schema.sql").read_text()):
            self.sql(local(statement))
        self.sql("INSERT INTO fleet.node (name) VALUES ('node0'), ('node1')")

    def sql(self, text, **_):
        print(json.dumps(text), file=self.process.stdin, flush=True)
        result, error = json.loads(self.process.stdout.readline())
        if error:
            raise OSError(error)
        return result

    def request(self, _path, _user, body):
        self.sql(self.insert + body.decode())
        return 200, b""

    def count(self, table):
        return int(self.sql(f"SELECT count() FROM fleet.{table}"))

    def query(self, query, /, **parameters):
        def value(found):
            text = str(parameters.get(found[1], ""))
            pattern, form = KINDS[found[2]]
            text = text.encode().hex() if found[2] == "String" else text
            return form % (text if re.fullmatch(pattern, text) else "")
        return 200, self.sql(PARAMETER.sub(value, self.queries[query]) + " FORMAT JSON")


def local(statement):
    """Without a cluster and a dictionary."""
    statement = re.sub(r"Distributed\(\w+, fleet, lines_shard.*\)", "Null", statement)
    statement = re.sub(r"Distributed\(\w+, fleet, (\w+).*\)", r"Merge(fleet, '^\1$')", statement)
    statement = re.sub(r"AND throwIf\(dictGet.*", "", statement)
    statement = statement.replace("TO fleet.lines AS", "TO fleet.lines_shard AS")
    return re.sub(r"ENGINE = Dictionary\(\w+\)", "ENGINE = Memory", statement)


@pytest.fixture
def engine(tmp_path):
    if not shutil.which("npm"):
        pytest.skip("no npm, which has the engine's current release")
    LIBRARY.mkdir(parents=True, exist_ok=True)
    with open(LIBRARY / "lock", "w") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)        # two at once
        if not (LIBRARY / "node_modules/chdb").exists():
            subprocess.run(["npm", "install", "--prefix", LIBRARY, "--no-audit", "--no-fund", PACKAGE], check=True)
    engine = CurrentEngine(tmp_path)
    yield engine
    engine.process.stdin.close()
    engine.process.wait()


def test_lines(engine):
    """Each line is stored unchanged, whatever its name contains, even carriage returns. A malformed line loses at most
    its own row."""
    odd = [{"RTCP_CNAME": name} for name in test_fleet.HOSTILE if not re.search("[\udc00-\udcff]", name)]   # text only
    odd += [fields for fields in test_fleet.LOST if "RTCP_CNAME" in fields]
    odd.append({"PORT": 123456, "PACKETS": 2000000000, "SSRC": "longer123456", "TIME_STAMP_SEC": 0})
    rows = [line(SERIAL_NUM="77", **fields) for fields in odd]
    for row in rows:
        test_fleet.post(engine, row, line(LOST_LOST_SINCE_LAST_REPORT_PERCENT="nan"), "short")
    assert sorted(test_fleet.stored_lines(engine)) == sorted(rows)


def test_queries(engine):
    test_fleet.test_queries(engine)
