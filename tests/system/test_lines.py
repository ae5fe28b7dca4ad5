"""From reports to the lines of the two statistics files and of the posts."""
import pytest

from conftest import HEADERS, batch, line, report, wait_for

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
