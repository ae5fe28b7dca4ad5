"""The whole log of a run from start to stop: exactly the messages that pass the level of each group."""
import re
import signal

import pytest

from conftest import HEADERS, expected, line, report, voice_record, wait_for

LEVELS = ["ERROR", "WARN", "INFO", "TRACE", "DEBUG"]
NAME = "QoS_Stat_Sessions_Summary.txt"
FIRST = report("QOS_EOS_NEAREND", RTCP_CNAME="x") + "\nBOS_EV_SSRC=5"     # a known key except for its first letter
SAID = re.findall(r"^(\w+) (\w+) +(.*(?:\n  .*)*)", expected("whole_run.log"), re.M)
RUNS = {    # log.default, log.network and log.http, the levels they result in, whether there is a server and a serial
            # number, how it is stopped
    "everything": ((4, 4, 4), (4, 4, 4), True, signal.SIGTERM),
    "network errors only": ((3, 0, 2), (3, 0, 2), False, signal.SIGINT),
    "web errors only": ((2, 3, 0), (2, 3, 0), False, signal.SIGQUIT),
    "groups above the range": ((0, 5, 5), (0, 1, 1), False, signal.SIGTERM),
    "all below the range": ((-1, -1, -1), (1, 1, 1), False, signal.SIGTERM),
    "default above the range": ((5, None, None), (1, 1, 1), False, signal.SIGTERM),
}


@pytest.mark.parametrize("settings, levels, reporting, number", RUNS.values(), ids=RUNS)
def test_whole_run(start, web, settings, levels, reporting, number):
    default, network, http = settings
    serial = "77" if reporting else None
    daemon = start(serial=serial, elastic_url=web.url if reporting else None, log__default=default,
                   log__network=network, log__http=http,
                   launch=["env", "--block-signal=TERM,INT,QUIT"])      # as a parent process may set them
    assert not list(daemon.stat.iterdir())      # a file is created when there is something to write
    daemon.send(FIRST)
    wait_for(lambda: daemon.text(NAME) == HEADERS[NAME] + line("QOS_EOS_NEAREND", RTCP_CNAME="x", SERIAL_NUM=serial))
    daemon.send_voice(voice_record(b"v"))
    wait_for(lambda: len(daemon.dump()) == 24 + 59)
    daemon.send_voice(b"\0\0\0\0\0")
    wait_for(daemon.drained)
    daemon.send(report("QOS"))
    daemon.stop(number)
    passing = dict(zip(["D", "N", "H"], levels))
    passing |= {"S": levels[0], "W": levels[2]} if reporting else {"NOT_S": levels[0], "NOT_W": levels[2]}
    assert daemon.log() == [f"[{tag}] " + text.replace("\n  ", "\n") for group, tag, text in SAID
                            if LEVELS.index(tag) <= passing.get(group, -1)]
