"""The page of the fleet in a headless browser, served by the gateway."""
import time

import pytest
from conftest import wait_for
from test_fleet import call, fleet, post, pytestmark  # noqa: F401

webdriver = pytest.importorskip("selenium.webdriver", reason="no python3-selenium")
ODD = ["<img src=x onerror=document.title='odd'>", "'; DROP TABLE fleet.reports_shard; --", "</script><script>x()"]
CURVES = ("return [...document.querySelectorAll('#call canvas')]"
          ".map(canvas => Chart.getChart(canvas).data.datasets[0].data.length)")
LATE = """
const ask = fetch, answers = [], drawn = [];
fetch = () => new Promise(resolve => answers.push(text => resolve({ok: true, text: () => text})));
const shown = ["older", "broken", "newer"].map(() => show("days", {}, ([row]) => drawn.push(row)));
fetch = ask;
answers[2]('{"data": ["newer"]}');
shown[2].then(() => { answers[0]('{"data": ["older"]}'); answers[1]("broken"); });
Promise.all(shown).then(() => arguments[0]([...drawn, parts.days.failure ?? "no failure"]));"""


@pytest.fixture
def page(fleet, tmp_path):  # noqa: F811
    options = webdriver.ChromeOptions()
    for option in ("--headless=new", "--no-sandbox", "--disable-gpu", f"--user-data-dir={tmp_path}/profile"):
        options.add_argument(option)
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    try:
        browser = webdriver.Chrome(options=options)
    except Exception as error:      # of several kinds, where there is no browser or no driver
        pytest.skip(f"no chromium with its driver: {error}")
    yield browser
    browser.quit()


def fill(fleet, now):  # noqa: F811
    lines = [call(f"unit{unit}", gcid=f"3-{unit}", sn=f"U{unit}", event=event, seconds=now + step, loss=0.4, jitter=5)
             for unit in range(4) for step in range(50) for event in ("QOS_NEAREND", "QOS_FAREND")]
    lines += [call("unit1", gcid="3-77", sn="U1", seconds=now + step, loss=9, jitter=60, rtt=300) for step in range(30)]
    lines += [call(name, gcid="<b>4</b>", sn="<i>", loss=3 - place) for place, name in enumerate(ODD)]
    post(fleet, *lines)
    wait_for(lambda: fleet.count("reports") == len(lines))
    fleet.nodes[0].sql(f"INSERT INTO fleet.heartbeats_shard SELECT toDateTime({now - 3600}), "
                        "concat('<s>', toString(number)) FROM system.numbers LIMIT 600")


def test_page(fleet, page):  # noqa: F811
    def find(selector):
        return page.find_element("css selector", selector)

    def texts(selector):
        return page.execute_script(
            "return [...document.querySelectorAll(arguments[0])].map(found => found.innerText)", selector)

    now = int(time.time()) - 60
    fill(fleet, now)
    page.get(fleet.url.replace("//", f"//viewer:{fleet.passwords['viewer']}@"))
    rows = wait_for(lambda: texts("#calls tbody tr"), 30, "for the table")
    assert rows[0].startswith("3-77\tU1\tunit1\t2.") and len(rows) == 8      # the worst call of all
    assert set(ODD) <= set(texts("#calls td:nth-child(3)"))
    wait_for(lambda: "–" not in "".join(texts(".tile")))
    assert texts(".tile")[:3] == ["5\nunits report", "600\nsilent units", "8\ncalls"]
    assert len(texts("#silent tbody tr")) == 500 and "500 of 600 units" in texts("#silent caption")[0]

    # By the keyboard: the worst call's curves, which go on; then the order of the table.
    find("#calls tbody button").send_keys("\n")
    wait_for(lambda: page.execute_script(CURVES) == [30, 30, 30], 30, "for the curves")
    assert texts("#call h2") == ["Call 3-77 of unit U1 unit1"]
    assert page.switch_to.active_element.get_attribute("id") == "call"
    post(fleet, call("unit1", gcid="3-77", sn="U1", seconds=now + 40, loss=9, jitter=60, rtt=300))
    find("#calls th:nth-child(9) button").send_keys("\n")
    assert texts("#calls tbody tr")[0].split("\t")[8] == "100"
    wait_for(lambda: fleet.count("reports") == 434, 30, "for the new report")
    page.execute_script("window.old = document.querySelector('#calls tbody'); refresh()")
    wait_for(lambda: page.execute_script("return !old.isConnected") and page.execute_script(CURVES) == [31, 31, 31])
    assert page.switch_to.active_element.text.startswith("Reports")
    assert texts("#calls tr[aria-current=true] td:first-child") == ["3-77"]
    assert page.execute_script("return Object.keys(Chart.instances).length") == 7

    # A call of a hostile name is found by it.
    [odd] = [row for row in page.find_elements("css selector", "#calls tbody tr") if ODD[1] in row.text]
    odd.click()
    wait_for(lambda: texts("#call h2") == [f"Call <b>4</b> of unit <i> {ODD[1]}"], 30, "for the odd call")
    assert page.execute_script(CURVES) == [1, 1, 1] and page.title == "Call quality of the fleet"
    find("#close").click()
    assert not find("#call").is_displayed() and page.switch_to.active_element.text == "<b>4</b>"

    # An answer that comes late does not replace a newer one. Without a unit there is no MOS.
    assert page.execute_async_script(LATE) == ["newer", "no failure"]
    find("#unit option[value='0']").click()
    wait_for(lambda: "–\nestimated MOS" in texts(".tile"), 30, "for the change of the unit")
    assert page.get_log("browser") == []

    # What fails, stays and says so.
    page.execute_script("const ask = fetch; fetch = url => ask(url.replace('silent', 'none')); refresh(); fetch = ask")
    wait_for(lambda: "Not up to date: silent." in texts("#error")[0], 30, "for the failure")
    assert texts(".stale") == [texts(".tile")[1], texts("section[data-query=silent]")[0]]
    for engine in fleet.nodes:
        engine.kill()
    find("#refresh").click()
    wait_for(lambda: "No engine answers the gateway." in texts("#error")[0], 30, "for the message")
    assert len(texts("#calls tbody tr")) == 8
