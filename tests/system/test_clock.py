"""What the daemon does by the clock and by its pauses."""
import platform
from pathlib import Path

import pytest

from conftest import line, report, wait_for

START = 1700000000
FIXED = {"GCID": "0-0", "TID": "0.0", "SSRC": "00000", "SERIAL_NUM": "SN", "RTCP_CNAME": "Service_Packet"}
STEPS = [   # seconds after the first pass, whether a pair of service reports is due
    (0, False), (299, False), (300, True), (599, False),
    (90000, True),      # a day has gone by, or somebody has set the clock
    (90299, False), (-90000, False), (90299, False), (90300, True),
]


def test_service_reports(start, web, clock):
    clock.set(START)
    daemon = start(elastic_url=web.url, serial="SN", launch=clock.launch, log__network=4, log__http=4)
    expected = []
    for seconds, due in STEPS:
        clock.set(START + seconds)
        for name in ("one", "two"):     # the second ends the pass of the first
            daemon.send(report(RTCP_CNAME=f"{name}@{len(expected)}@{seconds}"))
            daemon.logged(f"{name}@{len(expected)}@{seconds}\"}}")
        if due:
            now = {"TIME_STAMP_SEC": START + seconds, **FIXED}
            expected += [line(FAR_END_IP="192.0.2.10", **now),
                         line(FAR_END_IP="198.51.100.10", LOST_LOST_SINCE_LAST_REPORT_PERCENT=100, **now)]
    daemon.stop()
    prefix = '[DEBUG] WebClient::WC_Write() new event: {"message": "'
    offered = [entry.removeprefix(prefix)[:-2] + "\n" for entry in daemon.log("DEBUG") if entry.startswith(prefix)]
    assert [row for row in offered if "Service" in row] == expected
    assert "Service" not in daemon.text()


def test_idle_threads_pause(start, web):
    """Ten times a second each thread looks after its work, and the main loop sleeps."""
    daemon = start(elastic_url=web.url)
    before = daemon.pauses()
    assert 0.6 < daemon.passes("QoS_FileLogger", 10) < 9
    assert {name for name, count in daemon.pauses().items() if 5 < count - before[name] < 20} == {*before} - {"voxstat"}
    daemon.stop()


@pytest.mark.skipif(platform.machine() != "x86_64", reason="the number of the system call is another one")
def test_main_loop_waits_a_minute(daemon):
    """Service reports and stops come no later than that."""
    try:
        call = wait_for(lambda: Path(f"/proc/{daemon.process.pid}/syscall").read_text().split()[:4:3])
    except PermissionError:
        pytest.skip("the kernel does not show system calls")
    assert call == ["7", hex(60000)]    # poll, and its third argument
