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
    "GCID": "g" * 12, "TID": "t" * 13, "FAR_END_IP": "f" * 17, "SSRC": "s" * 13, "RTCP_CNAME": "a=b \"c\"",
    "TIME_STAMP_SEC": 1, "TIME_STAMP_USEC": 999, "FIRST_PACKET_SEC": 2, "LAST_PACKET_SEC": 86399,
    "FIRST_PACKET_USEC": 0, "LAST_PACKET_USEC": 0}
EXAMPLES = [    # written out by hand, so that the model is not believed alone
    ("QOS_NEAREND", SESSION, "2023-Nov-15 03:43:20.123 +0530    3-1016       2.117 near_end     203.0.113.5  5004     "
     "250    2   0.8     12    40 3735928559 12345 unit7\n"),
    ("QOS_EOS_NEAREND", SUMMARY, "2023-Nov-15 03:43:20.123 +0530    3-1016       2.117  far_end     203.0.113.5  5004"
     "    95     250   12   0.3     12     31     40     77 03:43:20.020 03:44:54.980 3735928559 12345 unit7\n"),
]
ODD = [     # what stands in the datagram behind its type, the fields that it comes to
    ("QOS_EV_PORT=1\nQOS_EV_PORT=2", {"PORT": 2}),
    ("QOS_EV_TID=1\nQOS_EV_TID\n\n\nQOS_EV_PORT= 7x", {"PORT": 7}),
    ("QOS_EV_PORT =5\nqos_ev_tid=1\nXOS_EV_SSRC=9\nQOS_EV_SSRCX=8\nQOS_EV_SSR=7\nQOS_EV_SSRC=6", {"SSRC": 6}),
    ("QOS_EV_RTCP_CNAME=" + "c" * 1000, {"RTCP_CNAME": "c" * (1023 - 42)}),
]


@pytest.mark.parametrize("event", ["QOS_NEAREND", "QOS_FAREND", "QOS_EOS_NEAREND", "QOS_EOS_FAREND"])
def test_each_event(start, web, event):
    reports = [SESSION, SUMMARY, WIDE, {}]
    daemon = start(elastic_url=web.url)
    daemon.send(*(report(event, **fields) for fields in reports))
    names = list(HEADERS) if event.startswith("QOS_EOS") else list(HEADERS)[::-1]
    lines = [line(event, **fields) for fields in reports]
    if names[1] == "QoS_Stat.txt":
        wait_for(lambda: web.requests)
    daemon.stop()
    assert daemon.text(names[1]) == HEADERS[names[1]] + "".join(lines)
    assert not daemon.read(names[0])
    bodies = [body for _, _, body in web.requests]
    if names[1] == "QoS_Stat.txt":
        assert bodies == [batch(lines[:bodies[0].count("message")])]    # it may have come in the middle
    else:
        assert not bodies


def test_model_and_odd_datagrams(daemon):
    for event, fields, expected in EXAMPLES:
        assert line(event, **fields) == expected
    daemon.send(*(report() + "\n" + text for text, _ in ODD))
    daemon.stop()
    assert daemon.text() == HEADERS["QoS_Stat.txt"] + "".join(line(**fields) for _, fields in ODD)
    assert daemon.log("WARN")[2:] == [f"[WARN] ignoring {what}" for what in (
        "unknown key: QOS_EV_PORT ", "unknown key: qos_ev_tid", "unknown key: XOS_EV_SSRC",
        "unknown key: QOS_EV_SSRCX", "unknown key: QOS_EV_SSR", "what follows the first 1023 characters of a QoS report")]
