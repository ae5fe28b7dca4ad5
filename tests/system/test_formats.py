"""From datagrams to lines, JSON and pcap records."""
import os
import signal

import pytest

from conftest import HEADERS, PCAP_HEADER, batch, line, pcap_record, report, voice_record, wait_for

SESSION = {"TIME_STAMP_SEC": 1700000000, "TIME_STAMP_USEC": 123456, "GCID": "3-1016", "TID": "2.117",
           "FAR_END_IP": "203.0.113.5", "PORT": 5004, "PACKETS": 250, "LOST_SINCE_LAST_REPORT": 2,
           "LOST_LOST_SINCE_LAST_REPORT_PERCENT": 0.8, "JITTER_AVG": 12, "RTT_AVG": 40, "SSRC": "3735928559",
           "SERIAL_NUM": "12345678", "RTCP_CNAME": "unit7"}
SUMMARY = SESSION | {"DURATION": 95, "LOST": 12, "LOST_PERCENT": 0.3, "JITTER_MAX": 31, "RTT_MAX": 77, "RTT_MIN": 3,
                     "FIRST_PACKET_SEC": 1700000000, "FIRST_PACKET_USEC": 20000, "LAST_PACKET_SEC": 1700000094,
                     "LAST_PACKET_USEC": 980999}
WIDE = {key: f"{number}23456789" for number, key in enumerate(SUMMARY, 1)} | {
    "GCID": "g" * 12, "TID": "t" * 13, "FAR_END_IP": "f" * 17, "SSRC": "s" * 13, "RTCP_CNAME": "a=b",
    "TIME_STAMP_SEC": 1, "TIME_STAMP_USEC": 999, "FIRST_PACKET_SEC": 2, "LAST_PACKET_SEC": 86399,
    "FIRST_PACKET_USEC": 0, "LAST_PACKET_USEC": 0}
LENGTHS = [160, 0, 1989, 1990, 2024, 2025, 3000]    # stored whole up to 1989, cut from 2025 on


@pytest.mark.parametrize("event", ["QOS_NEAREND", "QOS_FAREND", "QOS_EOS_NEAREND", "QOS_EOS_FAREND"])
def test_each_event(start, web, event):
    reports = [SESSION, SUMMARY, WIDE, {}]
    daemon = start(elastic_url=web.url)
    daemon.send(*(report(event, **fields) for fields in reports))
    posted = not event.startswith("QOS_EOS")
    wait_for(lambda: web.requests or not posted)
    daemon.stop()
    name, other = sorted(HEADERS, reverse=not posted)
    lines = [line(event, **fields) for fields in reports]
    assert (daemon.text(name), daemon.text(other)) == (HEADERS[name] + "".join(lines), "")
    assert [body for _, _, body in web.requests] == (
        [batch(lines[:len(web.lines())])] if posted else [])    # the first may go before the others come


def test_records(daemon):
    records = [voice_record(os.urandom(length), source=("10.0.0.1", 1), target=("255.254.253.252", 65535),
                            seconds=4294967295, microseconds=999999) for length in LENGTHS]
    largest = [voice_record(b"r" * (32767 - 24 - 184)), voice_record(b"r" * 160)]     # fill the daemon's buffer
    daemon.send_voice(*records)
    daemon.send_voice(*largest)
    daemon.stop()
    assert daemon.dump() == PCAP_HEADER + b"".join(map(pcap_record, records + largest))
    assert daemon.log("WARN")[2:] == []


def test_reports_come_first(start):
    daemon = start(log__network=4)
    daemon.process.send_signal(signal.SIGSTOP)
    wait_for(lambda: daemon.state() == "T")
    daemon.send_voice(voice_record(b"v"))
    daemon.send(report(TID=1), report(TID=2))
    daemon.send_voice(voice_record())
    daemon.process.send_signal(signal.SIGCONT)
    daemon.stop()
    assert [entry.split()[3] for entry in daemon.log("DEBUG")] == ["QoS", "QoS", "Voice", "Voice"]
