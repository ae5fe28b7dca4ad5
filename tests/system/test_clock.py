"""What the daemon does by the clock and by its pauses."""
import platform
from pathlib import Path

import pytest

from conftest import line, report, voice_record, wait_for

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


@pytest.mark.parametrize("name, timeout, data", [
    ("QoS_Stat.txt", 30, report()),
    ("QoS_Stat_Sessions_Summary.txt", 60, report("QOS_EOS_FAREND")),
    ("RTP_Streams_No_Voice.pcap", 30, voice_record(b"x" * 87)),
])
def test_short_rest_waits(start, clock, name, timeout, data):
    """Whole blocks of 1024 bytes go at once; what is left goes when the last write is older than the time."""
    clock.set(START)
    daemon = start(launch=clock.launch)
    port = daemon.port + name.endswith("pcap")
    daemon.send_to(port, data)
    first = wait_for(lambda: len(daemon.read(name)))    # at once, since there was no last write
    size = len(daemon.read(name)) - (191 if timeout == 60 else 24 if name.endswith("pcap") else 144)
    for _ in range(15):
        daemon.send_to(port, data)
    blocks = first + 15 * size // 1024 * 1024
    wait_for(lambda: len(daemon.read(name)) == blocks)
    clock.set(START + timeout)
    daemon.passes("QoS_FileLogger")
    assert len(daemon.read(name)) == blocks
    clock.set(START + timeout + 1)
    wait_for(lambda: len(daemon.read(name)) == first + 15 * size)
    daemon.stop()


def test_pauses(start, web, clock):
    """Idle threads look after their work ten times a second; the file writer a hundred times while voice flows, and
    until it has found none five hundred times in a row. All of it three times as fast."""
    clock.set("+0 x3")
    daemon = start(elastic_url=web.url, launch=clock.launch, max_buf_timeout_rtp=-1)
    before = daemon.pauses()
    assert 0.2 < daemon.passes("QoS_FileLogger", 10) < 3
    assert {name for name, count in daemon.pauses().items() if 5 < count - before[name] < 20} == {*before} - {"voxstat"}
    for _ in range(2):
        daemon.send_voice(voice_record(b"v"))
        daemon.passes("QoS_FileLogger", 2)
        assert 0.8 < daemon.passes("QoS_FileLogger", 460) < 8
    daemon.passes("QoS_FileLogger", 70)
    assert daemon.passes("QoS_FileLogger", 10) > 0.2
    daemon.stop()


@pytest.mark.skipif(platform.machine() != "x86_64", reason="the number of the system call is another one")
def test_main_loop_waits_a_minute(daemon):
    """Service reports and stops come no later than that."""
    try:
        call = wait_for(lambda: Path(f"/proc/{daemon.process.pid}/syscall").read_text().split()[:4:3])
    except PermissionError:
        pytest.skip("the kernel does not show system calls")
    assert call == ["7", hex(60000)]    # poll, and its third argument
