"""The fleet's page in a headless browser: with recorded answers, and served by the gateway of a fleet."""
import contextlib
import csv
import json
import os
import re
import sys
import threading
import time
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from pathlib import Path
from urllib.parse import parse_qsl, urlsplit

import pytest
from conftest import ROOT, wait_for
from test_fleet import call, fleet, post, pytestmark as needs_engine  # noqa: F401

sys.path.insert(0, str(ROOT / "fleet"))
from fleet import load_units  # noqa: E402

webdriver = pytest.importorskip("selenium.webdriver", reason="no python3-selenium")
exceptions = pytest.importorskip("selenium.common.exceptions")
CHART_JS = Path("/usr/share/javascript/chart.js/chart.min.js")
RECORDED = ROOT / "tests/system/data/fleet_answers.json"
ODD = ["<img src=x onerror=document.title='odd'>", "'; DROP TABLE fleet.reports_shard; --", "</script><script>x()"]
UNITS = [["U1", "Aachen 1", "Aachen"], ["U2", "Bonn 1", "Bonn"], ["LATE", "=1+1", "Bonn"], ["NEVER", "<i>", "Aachen"]]
PERIOD_S, DAY_S, LATE_S = 900, 86400, 2520


class Store:
    """Serves the recorded answers. faults[query], or faults[""] for all, is (status, text) or an event to wait for."""

    def __init__(self):
        self.answers, self.faults, self.asked = json.loads(RECORDED.read_text()), {}, []
        self.now = self.answers["shards"]["data"][0]["now"]
        policy = re.search(r'Content-Security-Policy\s+"(.+?)"', (ROOT / "fleet/gateway.conf").read_text())[1]
        store = self

        class Handler(BaseHTTPRequestHandler):
            def do_GET(self):
                url = urlsplit(self.path)
                file = CHART_JS if url.path == "/chart.js" else ROOT / "fleet" / (url.path[1:] or "index.html")
                status, body = store.answer(url) if url.path.startswith("/query/") else (200, file.read_bytes())
                with contextlib.suppress(OSError):      # the page may have stopped waiting
                    self.send_response(status)
                    self.send_header("Content-Type", "text/javascript" if file.suffix == ".js" else "text/html")
                    self.send_header("Content-Security-Policy", policy)
                    self.end_headers()
                    self.wfile.write(body)

            def log_message(self, *_):
                pass

        self.server = ThreadingHTTPServer(("127.0.0.1", 0), Handler)
        self.url = f"http://127.0.0.1:{self.server.server_port}/"
        threading.Thread(target=self.server.serve_forever, daemon=True).start()

    def answer(self, url):
        query, parameters = url.path.rpartition("/")[2], dict(parse_qsl(url.query, keep_blank_values=True))
        self.asked.append((query, parameters))
        fault = self.faults.get(query) or self.faults.get("")
        if isinstance(fault, threading.Event):
            fault.wait(60)
        elif fault:
            return fault
        if parameters.get("to") == "NaN":
            return 400, b"Code: 457"
        before = int(parameters.get("to", self.now)) < self.now - DAY_S / 2 and f"{query}_before"
        return 200, json.dumps(self.answers.get(before) or self.answers[query]).encode()


class Page:
    def __init__(self, browser, directory):
        self.browser, self.directory = browser, directory
        self.find = lambda selector: browser.find_element("css selector", selector)
        self.run = browser.execute_script

    def texts(self, selector):
        return self.run("return [...document.querySelectorAll(arguments[0])].map(found => found.innerText)", selector)

    def rows(self, table):
        return [row.split("\t") for row in self.texts(f"[data-table={table}] tbody tr")]

    def shows(self, selector, text, seconds=20):
        wait_for(lambda: text in "\n".join(self.texts(selector)), seconds, f"for {text}")

    def press(self, selector):
        """Presses Enter as soon as no drawing is pending."""
        wait_for(lambda: self.run("return isFinite(finished)"), 20, "for the round's end")
        self.use(selector, "\n")

    def focuses(self, text):
        """Waits until the element with this identifier or text has the focus, even if it is drawn anew meanwhile."""
        script = "const {id, textContent} = document.activeElement; return [id, textContent]"
        wait_for(lambda: text in self.run(script), 20, f"for the focus on {text}")

    def use(self, selector, keys=None):
        """Types into an element, or clicks it, even if it is drawn anew meanwhile."""
        def used():
            try:
                element = self.find(selector)
                element.send_keys(keys) if keys else element.click()
                return True
            except exceptions.StaleElementReferenceException:
                return False
        wait_for(used, 20, f"for {selector} to stay")

    def csv(self, table):
        path = self.directory / f"{table}.csv"
        self.press(f"[data-table={table}] button[value=csv]")
        wait_for(path.exists, 20, f"for {path}")
        with open(path, encoding="utf-8", newline="") as file:
            return list(csv.reader(file))


@pytest.fixture
def page(tmp_path):
    if not CHART_JS.exists():
        pytest.skip("no libjs-chart.js")
    options = webdriver.ChromeOptions()
    for option in ("--headless=new", "--no-sandbox", "--disable-gpu", f"--user-data-dir={tmp_path}/profile"):
        options.add_argument(option)
    options.add_experimental_option("prefs", {"download.default_directory": str(tmp_path)})
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    try:
        browser = webdriver.Chrome(options=options)
    except Exception as error:      # of several kinds, where there is no browser or no driver
        pytest.skip(f"no chromium with its driver: {error}")
    browser.execute_cdp_cmd("Emulation.setTimezoneOverride", {"timezoneId": "Asia/Kolkata"})
    yield Page(browser, tmp_path)
    browser.quit()


@pytest.fixture
def store(page):
    store = Store()
    yield store
    for fault in store.faults.values():
        if isinstance(fault, threading.Event):
            fault.set()
    store.server.shutdown()
    store.server.server_close()


def size(page, width):
    page.browser.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
        "width": width, "height": 700, "deviceScaleFactor": 1, "mobile": width < 600})


def test_what_is_wrong_comes_first(store, page):
    """The page uses the store's clock: the recorded answers are older than the browser's time."""
    size(page, 1300)
    store.answers["trend"]["data"][0]["loss_p95"] = 100
    page.browser.get(store.url)
    page.shows("[data-query=trend] h2", "The whole fleet over time")
    assert page.texts("main > section:not([hidden]) h2") == [
        "Silent units: 2", "Batches with another unit's serial number: 2", "Worst calls: 4 bad", "Worst units", "Sites",
        "Traffic", "The whole fleet over time"]
    silent = page.rows("silent")
    assert [row[:4] for row in silent] == [
        ["LATE", "silent for 42 min", "=1+1", "Bonn"], ["NEVER", "silent", "<i>", "Aachen"],
        ["<i>", "unexpected", "–", "–"]]
    stamp = time.strftime("%Y-%m-%d %H:%M", time.gmtime(store.now - LATE_S + 19800))
    assert silent[0][4].startswith(stamp) and silent[0][4].endswith(" GMT+5:30")
    assert silent[0][5].startswith("none since ") and silent[1][4].startswith("none since ")
    assert page.rows("foreign")[0][:6] == ["U1", "192.0.2.7", "U2", "Bonn 1", "Bonn", "2"]
    calls = page.rows("calls")
    assert len(calls) == 10 and calls[0][:6] == ["3-77", "U2", "2.65 bad", "9 bad", "60 bad", "300 bad"]
    assert [row[3] for row in calls[1:5]] == ["3 bad", "2 bad", "1 bad", "0.6 fair"]
    assert {row[9] for row in calls} >= set(ODD) and page.browser.title == "Call quality of the fleet"
    assert page.texts("#totals > div")[0].startswith("3\nUnits heard (expected: 4)")
    page.press("[data-table=calls] button[value=all]")
    assert len(page.rows("calls")) == 16
    page.press("[data-table=calls] th:nth-child(5) button")       # by jitter, and back
    page.focuses("Max jitter (ms)")
    assert page.rows("calls")[0][0] == "3-77"
    curves = page.run("const canvas = document.querySelector('#trend canvas');"
                      "return Chart.getChart(canvas).data.datasets.map(({data}) => data)")
    assert [min(store.now - point["x"] for point in curve) // 60 for curve in curves] == [0, 0, 1]     # yesterday's
    assert page.run("return Chart.getChart(document.querySelector('#trend canvas')).scales.y.max") == 100
    page.run("finished = Infinity")      # no further round, which would replace the elements
    for control in page.browser.find_elements("css selector", "button, select, input, canvas, table"):
        assert control.accessible_name or not control.is_displayed(), control.get_attribute("outerHTML")
    size(page, 375)
    wait_for(lambda: page.run("return document.documentElement.scrollWidth") == 375, 20, "for a narrow page")
    assert page.run("return document.querySelector('[data-query=silent]').getBoundingClientRect().top + scrollY") < 400
    assert page.browser.get_log("browser") == []


def test_the_address_contains_the_choice(store, page):
    first = store.answers["worst_calls"]["data"][0]
    page.browser.get(f"{store.url}#period=chosen&from=1e300&scale=x&call=x")     # an invalid value affects nothing else
    page.shows("[data-query=trend] h2", "The whole fleet over time")
    page.press("form a")
    wait_for(lambda: not page.find("#error").is_displayed(), 20, "for the valid address")
    page.browser.get(f"{store.url}#period=chosen&from={store.now - 3600}&to={store.now}&site=Bonn&unit=U2")
    page.shows("[data-query=trend] h2", "Unit U2 Bonn 1 over time")
    query = dict(store.asked)["worst_calls"]
    assert query == {"from": str(store.now - 3600), "to": str(store.now), "site": b"Bonn".hex(), "unit": b"U2".hex(),
                     "ms": "1"}
    assert page.texts("#unit option") == ["all", "LATE =1+1", "U2 Bonn 1"]
    page.press("form a")
    page.shows("[data-query=trend] h2", "The whole fleet")
    page.press("[data-table=calls] tbody a")
    page.shows("#call h2", "Call 3-77 of unit U2")
    page.focuses("call")
    assert page.run("return document.querySelectorAll('#call canvas').length") == 3
    assert ".".join(dict(store.asked)["call"][part] for part in ("sn", "gcid", "tid")) == first["id"]
    link = page.browser.current_url
    page.browser.get("about:blank")
    page.browser.get(link)
    page.shows("#call h2", "Call 3-77 of unit U2")
    page.press("#close")
    wait_for(lambda: not page.find("#call").is_displayed())
    page.focuses("3-77")
    page.browser.back()
    wait_for(lambda: page.find("#call").is_displayed())
    page.shows("#call h2", "Call 3-77")
    page.use("#find", ODD[0] + "\n")
    page.shows("#found h2", ODD[0])
    assert dict(store.asked)["search"]["find"] == ODD[0].encode().hex()
    page.use("#scale option[value='0']")
    wait_for(lambda: dict(store.asked)["trend"]["ms"] == "0" and page.rows("calls")[0][2] == "–")
    store.faults["units"] = threading.Event()
    page.use("#period option[value='3600']")
    page.shows("[data-query=units][aria-busy=true] h2", "Worst units")
    store.faults.pop("units").set()
    table = page.csv("silent")
    assert table[1][:5] == ["LATE", "silent for 42 min", "'=1+1", "Bonn",
                            time.strftime("%Y-%m-%dT%H:%M:%S.000Z", time.gmtime(store.now - LATE_S))]
    assert table[2][4:] == ["", ""]     # a time that the store does not know
    assert len(page.csv("calls")) == 17     # all that the query gave, and the titles


LATE = """
const ask = fetch, answers = [], drawn = [];
fetch = () => new Promise(resolve => answers.push(text => resolve({ok: true, text: () => text})));
const shown = ["older", "broken", "newer"].map(() => {
    ++rounds;
    return show("silent", {}, ([row]) => drawn.push(row));
});
fetch = ask;
answers[2]('{"data": ["newer"]}');
shown[2].then(() => { answers[0]('{"data": ["older"]}'); answers[1]("broken"); });
Promise.all(shown).then(() => arguments[0]([...drawn, parts.silent.failure || "no failure"]));"""


def test_old_data_says_so(store, page):
    page.browser.get(store.url)
    page.shows("[data-query=trend] h2", "The whole fleet")
    assert page.browser.execute_async_script(LATE) == ["newer", "no failure"]
    store.faults["silent"] = 500, b"Code: 47"
    page.use("#refresh")
    page.shows("#error", "Some queries failed. The marked parts of this page show old data.\nCode: 47")
    assert len(page.texts(".stale")) == 1 and len(page.rows("silent")) == 3
    del store.faults["silent"]
    wait_for(lambda: not page.find("#error").is_displayed(), 30, "for a retry")
    store.faults[""] = threading.Event()        # no answer to anything
    page.shows("#error", "The store does not answer. This page shows old data.\nNo answer in time.", 10)
    page.shows("#age", " s old")
    page.run("location.hash = '#unit=U2'")
    store.faults.pop("").set()
    wait_for(lambda: not page.find("#error").is_displayed(), 20, "for a retry")
    page.shows("[data-query=trend] h2", "Unit U2")
    assert page.find("[data-query=foreign]").is_displayed()
    store.answers["shards"]["data"][1].update(up=0, missing=["LATE"])
    store.answers["foreign"]["data"] = []
    page.shows("#missing h2", "Nodes down: node1. Missing units: 1")
    assert page.rows("missing") == [["LATE", "=1+1", "Bonn"]]
    page.shows("[data-query=silent] h2", "Silent units: 1")
    wait_for(lambda: not page.find("[data-query=foreign]").is_displayed(), 20, "for the foreign batches to go")
    store.answers["expected"]["data"] = store.answers["worst_calls"]["data"] = []
    page.run("refresh()")
    page.shows("#missing h2", "Missing units: unknown (no units.csv)")
    page.shows("[data-table=calls]", "No reports match the selection.")


def fill(fleet, now):  # noqa: F811
    lines = [call("unit1", gcid=f"3-{number}", sn="U1", event=event, seconds=now - 60 + step, loss=0.4, jitter=5)
             for number in range(12) for step in (0, 20, 40) for event in ("QOS_NEAREND", "QOS_FAREND")]
    lines += [call("unit2", gcid="3-77", sn="U2", seconds=now - 60 + step, loss=9, jitter=60, rtt=300)
              for step in range(0, 50, 10)]
    lines += [call(name, gcid=f"<b>{place}", sn="<i>", seconds=now - 50, loss=3 - place)
              for place, name in enumerate(ODD)]
    post(fleet, *lines, call("unit1", gcid="3-1", sn="U1", seconds=now - 5, loss=0.6))
    wait_for(lambda: fleet.count("reports") == len(lines) + 1)
    for engine in fleet.nodes:
        load_units(engine.node, fleet.keys, UNITS)
    fleet.nodes[0].sql(f"INSERT INTO fleet.heartbeats_shard VALUES ({now - LATE_S}, 'LATE')")
    fleet.nodes[0].sql("INSERT INTO fleet.foreign_shard VALUES " + f"({now - 50}, 'U1', '192.0.2.7', 'U2')," * 2)
    fleet.nodes[0].sql("INSERT INTO fleet.reports_shard (received, at, sn, name, gcid, type, loss) SELECT at, "
                       f"toDateTime({now - DAY_S - 600} + 10 * number) AS at, 'U1', 'unit1', '2-1', 'near_end', 0.2 "
                       "FROM system.numbers LIMIT 50")


def ask_all(fleet, now):  # noqa: F811
    """The answers for RECORDED."""
    period = {"from": now - PERIOD_S, "to": now, "ms": 1, "step": 10, "since": now - 7 * DAY_S, "after": 600}
    before = {**period, "from": now - PERIOD_S - DAY_S, "to": now - DAY_S}
    worst = json.loads(fleet.query("worst_calls", **period)[1])["data"][0]
    names = {"sn": worst["unit"], "gcid": worst["call"], "tid": worst["terminal"]}
    return {name: json.loads(fleet.query(name.partition("_before")[0], find="<", **(before if "before" in name else
                             {**period, **names}))[1])
            for name in [*fleet.queries, "trend_before", "reporting_before"]}


@needs_engine
def test_served_by_the_gateway(fleet, page):  # noqa: F811
    """With VOXSTAT_RECORD=1, records the answers again."""
    now = int(time.time())
    fill(fleet, now)
    answers = ask_all(fleet, now)
    if os.environ.get("VOXSTAT_RECORD"):
        answers["shards"]["data"] = [{**row, "now": now} for row in answers["shards"]["data"]]
        RECORDED.write_text(json.dumps(answers, indent=None).replace('}, "', '},\n"') + "\n")
    recorded = json.loads(RECORDED.read_text())
    assert {query: answer["meta"] for query, answer in answers.items()} == {
        query: answer["meta"] for query, answer in recorded.items()}

    page.browser.get(fleet.url.replace("//", f"//viewer:{fleet.passwords['viewer']}@"))
    page.shows("[data-query=silent] h2", "Silent units: 2")
    wait_for(lambda: page.rows("calls") and page.rows("calls")[0][:2] == ["3-77", "U2"])
    page.press("[data-table=calls] tbody a")
    page.shows("#call h2", "Call 3-77 of unit U2")
    for name in ODD:
        page.run("location.hash = '#find=' + encodeURIComponent(arguments[0])", name)
        page.shows("#found h2", f"Search for “{name}”. Units: 0, calls: 1")
    assert not page.find("#error").is_displayed() and page.browser.get_log("browser") == []
    fleet.nodes[1].kill()
    page.shows("#missing h2", "Nodes down: node1. ", 20)
    fleet.nodes[0].kill()
    page.shows("#error", "The store does not answer.", 20)
    assert page.texts(".stale[data-query=sites]")
