"""The page of the fleet in a headless browser, served by the gateway."""
import time

import pytest
from conftest import batch, wait_for
from test_fleet import call, fleet, post, pytestmark  # noqa: F401

webdriver = pytest.importorskip("selenium.webdriver", reason="no python3-selenium")
ODD = ["<img src=x onerror=document.title='odd'>", "'; DROP TABLE fleet.reports_shard; --", "</script><script>x()"]


@pytest.fixture
def page(fleet, tmp_path):  # noqa: F811
    now = int(time.time()) - 60
    lines = [call(f"unit{unit}", gcid=f"3-{unit}", sn=f"U{unit}", event=event, seconds=now + step, loss=0.4, jitter=5)
             for unit in range(4) for step in range(30) for event in ("QOS_NEAREND", "QOS_FAREND")]
    lines += [call("unit1", gcid="3-77", sn="U1", seconds=now + step, loss=9, jitter=60, rtt=300) for step in range(30)]
    lines += [call(name, gcid="<b>4</b>", sn="<i>", loss=3 - place) for place, name in enumerate(ODD)]
    post(fleet, *lines)
    wait_for(lambda: fleet.count("reports") == len(lines))
    fleet.shards[0].sql(f"INSERT INTO fleet.heartbeats_shard VALUES ({now - 3600}, '<s>')")
    options = webdriver.ChromeOptions()
    for option in ("--headless=new", "--no-sandbox", "--disable-gpu", f"--user-data-dir={tmp_path}/profile"):
        options.add_argument(option)
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    try:
        browser = webdriver.Chrome(options=options)
    except Exception as error:      # of several kinds, where there is no browser or no driver
        pytest.skip(f"no chromium with its driver: {error}")
    browser.get(fleet.url.replace("//", f"//viewer:{fleet.passwords['viewer']}@"))
    yield browser
    browser.quit()


def texts(page, selector):
    return page.execute_script("return [...document.querySelectorAll(arguments[0])].map(found => found.innerText)", selector)


def test_page(fleet, page):  # noqa: F811
    rows = wait_for(lambda: texts(page, "#calls tbody tr"), 30, "for the table")
    assert rows[0].startswith("3-77\tU1\tunit1\t2.") and len(rows) == 8      # the worst call of all
    assert set(ODD) <= set(texts(page, "#calls td:nth-child(3)"))
    assert texts(page, "#silent td:first-child") == ["<s>"]
    tiles = texts(page, ".tile")
    assert tiles[0] == "5\nunits report" and tiles[1] == "1\nsilent units" and tiles[2] == "8\ncalls"
    assert len(page.find_elements("css selector", "#trend canvas")) == 4

    # By the keyboard: the worst call's curves, near and far end; then the order of the table.
    page.find_element("css selector", "#calls tbody button").send_keys("\n")
    wait_for(lambda: len(page.find_elements("css selector", "#call canvas")) == 3, 30, "for the curves")
    assert texts(page, "#call h2") == ["Call 3-77 of unit U1 unit1"]
    curve = "return Chart.getChart(document.querySelector('#call canvas')).data.datasets.map(set => set.data.length)"
    assert page.execute_script(curve) == [30, 0]
    page.find_element("css selector", "#calls th:nth-child(9) button").send_keys("\n")
    assert texts(page, "#calls tbody tr")[0].split("\t")[8] == "60"

    # A call of a hostile name is found by it.
    [odd] = [row for row in page.find_elements("css selector", "#calls tbody tr") if ODD[1] in row.text]
    odd.click()
    wait_for(lambda: texts(page, "#call h2") == [f"Call <b>4</b> of unit <i> {ODD[1]}"], 30, "for the odd call")
    assert page.execute_script(curve) == [1, 0] and page.title == "Call quality of the fleet"

    # The unit: without one there is no MOS.
    page.find_element("css selector", "#unit option[value='0']").click()
    wait_for(lambda: "–\nestimated MOS" in texts(page, ".tile"), 30, "for the change of the unit")
    assert page.get_log("browser") == []

    for shard, message in ((1, "All connection tries failed"), (0, "No engine answers the gateway.")):
        fleet.shards[shard].kill()
        page.find_element("css selector", "#refresh").click()
        wait_for(lambda: message in texts(page, "#error")[0], 30, f"for {message}")      # noqa: B023
