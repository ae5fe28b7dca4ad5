"""docs/input.md and voxstat-input(7): the daemon takes what they say, and makes of it what they say."""
import re
import subprocess

import pytest

from conftest import HEADERS, PCAP_HEADER, ROOT, line, pcap_record, report, voice_record, wait_for

SUMMARY = "QoS_Stat_Sessions_Summary.txt"
EXAMPLE = dict(re.findall(r"^```\w+ (\w+)\n(.*?)^```", (ROOT / "docs/input.md").read_text(), re.M | re.S))
KEYS = re.findall(r"^\.It QOS_EV_(\w+) Ta (\w+) Ta (\w+) Ta", (ROOT / "packaging/voxstat-input.7").read_text(), re.M)


def test_examples(start, web):
    daemon = start(launch=["env", "TZ=UTC"], serial="40731", elastic_url=web.url)
    daemon.send(EXAMPLE["report"], EXAMPLE["summary"])
    daemon.send_voice(bytes.fromhex(EXAMPLE["voice"]))
    wait_for(lambda: web.requests)
    daemon.stop()
    assert daemon.text() == HEADERS["QoS_Stat.txt"] + EXAMPLE["line"]
    assert web.lines() == [EXAMPLE["line"]]
    assert daemon.text(SUMMARY) == HEADERS[SUMMARY] + EXAMPLE["summary_line"]
    assert daemon.dump() == PCAP_HEADER + bytes.fromhex(EXAMPLE["packet"])


@pytest.mark.parametrize("language, command", [
    ("bash", "bash program"), ("python", "python3 program"),
    ("cpp", "${CXX:-c++} -std=c++20 -Wall -Werror -x c++ program -o built && ./built")])
def test_programs(daemon, tmp_path, language, command):
    program = EXAMPLE[language].replace("49999", str(daemon.port)).replace("50000", str(daemon.port + 1))
    (tmp_path / "program").write_text(program)
    subprocess.run(command, shell=True, cwd=tmp_path, check=True)
    daemon.stop()
    _, written = daemon.text().splitlines(keepends=True)
    expected = line(GCID="3-1016", FAR_END_IP="203.0.113.5", PACKETS=250, RTCP_CNAME="example")
    assert written[30:] == expected[30:] and not written.startswith("1970")
    rtp = bytes.fromhex("80000001 000000a0 00005eed") + 8 * b"\xff"
    packet = pcap_record(voice_record(rtp, source=("203.0.113.5", 5004), target=("192.0.2.7", 16384)))
    assert daemon.dump()[24 + 4:] == packet[4:]     # behind the seconds of its time
    assert not [entry for entry in daemon.log() if "ignoring" in entry or "Dropped" in entry]


def test_each_key_has_its_kind_and_its_lines(daemon):
    """A text shows a letter, a number does not; a whole number shows no fraction."""
    values = ["", "x", "7000", "0.6"]
    kinds = {(False, False, False): None, (True, True, True): "text", (False, True, False): "number",
             (False, True, True): "decimal"}
    for key, _, _ in KEYS[1:]:
        for event in ("QOS_NEAREND", "QOS_EOS_NEAREND"):
            daemon.send(*(report(event, **{"TIME_STAMP_SEC": 1000, key: value}) for value in values))
        wait_for(daemon.drained)
    daemon.stop()
    files = [daemon.text(name).splitlines()[1:] for name in HEADERS]
    for n, key in enumerate(KEYS[1:]):
        session, summary = (kinds[tuple(row != rows[4 * n] for row in rows[4 * n + 1:4 * n + 4])] for rows in files)
        where = {(True, True): "both", (True, False): "session", (False, True): "summary", (False, False): "neither"}
        assert key == (key[0], session or summary or key[1], where[session is not None, summary is not None])
    assert len(KEYS) == 25
