"""From datagrams to lines, posts and the dump, as docs/input.md and voxstat-input(7) describe it."""
import os
import re
import subprocess

import pytest

from conftest import HEADERS, PCAP_HEADER, ROOT, line, pcap_record, report, voice_record, wait_for

EVENTS = {"QoS_Stat.txt": ["QOS_NEAREND", "QOS_FAREND"],
          "QoS_Stat_Sessions_Summary.txt": ["QOS_EOS_NEAREND", "QOS_EOS_FAREND"]}
LENGTHS = [160, 0, 1989, 1990, 2024, 2025, 3000]    # stored whole up to 1989, cut from 2025 on
EXAMPLE = dict(re.findall(r"^```\w+ (\w+)\n(.*?)^```", (ROOT / "docs/input.md").read_text(), re.M | re.S))
FIELDS = dict(re.findall(r"^QOS_EV_(?!TYPE)(\w+)=(.*)", EXAMPLE["report"] + EXAMPLE["summary"], re.M))
KEYS = re.findall(r"^\.It QOS_EV_(\w+) Ta", (ROOT / "packaging/voxstat-input.7").read_text(), re.M)


def test_every_kind(start, web):
    records = [voice_record(os.urandom(length), source=("10.0.0.1", 1), target=("255.254.253.252", 65535),
                            seconds=4294967295, microseconds=999999) for length in LENGTHS]
    daemon = start(elastic_url=web.url)
    daemon.send(*(report(event, **fields) for events in EVENTS.values() for event in events for fields in (FIELDS, {})))
    daemon.send_voice(*records)
    wait_for(lambda: web.requests)
    daemon.stop()
    for name, events in EVENTS.items():
        lines = "".join(line(event, **fields) for event in events for fields in (FIELDS, {}))
        assert daemon.text(name) == HEADERS[name] + lines
    assert set(KEYS) == {"TYPE", *FIELDS}
    posted = "".join(web.lines())       # the first may be posted before the others arrive
    assert posted and daemon.text().startswith(HEADERS["QoS_Stat.txt"] + posted)
    assert daemon.dump() == PCAP_HEADER + b"".join(map(pcap_record, records))


def test_examples(start, web):
    daemon = start(launch=["env", "TZ=UTC"], serial="40731", elastic_url=web.url)
    daemon.send(EXAMPLE["report"], EXAMPLE["summary"])
    daemon.send_voice(bytes.fromhex(EXAMPLE["voice"]))
    wait_for(lambda: web.requests)
    daemon.stop()
    assert web.lines() == [EXAMPLE["line"]]
    for (name, header), example in zip(HEADERS.items(), ("line", "summary_line")):
        assert daemon.text(name) == header + EXAMPLE[example]
    assert daemon.dump() == PCAP_HEADER + bytes.fromhex(EXAMPLE["packet"])


@pytest.mark.parametrize("language, command", [
    ("bash", "bash program"), ("python", "python3 program"),
    ("cpp", "${CXX:-c++} -std=c++20 -Wall -Werror -x c++ program -o built && ./built")])
def test_programs(start, tmp_path, language, command):
    daemon = start()
    program = EXAMPLE[language].replace("49999", str(daemon.port)).replace("50000", str(daemon.port + 1))
    (tmp_path / "program").write_text(program)
    subprocess.run(command, shell=True, cwd=tmp_path, check=True)
    daemon.stop()
    _, written = daemon.text().splitlines(keepends=True)
    expected = line(GCID="3-1016", TID="2.117", FAR_END_IP="203.0.113.5", PACKETS=250, SSRC=24301,
                    RTCP_CNAME="example")
    assert written[30:] == expected[30:] and not written.startswith("1970")
    rtp = bytes.fromhex("80000001 000000a0 00005eed") + 8 * b"\xff"
    packet = pcap_record(voice_record(rtp, source=("192.0.2.7", 16384), target=("203.0.113.5", 5004)))
    assert daemon.dump()[24 + 4:] == packet[4:]     # after the seconds of its time
    assert len(daemon.log()) == 2       # neither is about the input
