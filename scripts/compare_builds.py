#!/usr/bin/env python3
"""Sends the same datagrams to two builds of the daemon and compares their files.

    compare_builds.py DIRECTORY PROGRAM PROGRAM

The datagrams are reports of every type, with times in 2023 and after 2038, and voice records. The exit status is 1 if
a byte differs or if the first build leaves a file empty.
"""
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "tests/system"))
from conftest import Daemon, report, voice_record  # noqa: E402

FILES = "QoS_Stat.txt", "QoS_Stat_Sessions_Summary.txt", "RTP_Streams_No_Voice.pcap"
EVENTS = "QOS_NEAREND", "QOS_FAREND", "QOS_EOS_NEAREND", "QOS_EOS_FAREND"
TIMES = {"TIME_STAMP_SEC": 1700000000, "TIME_STAMP_USEC": 123456, "FIRST_PACKET_SEC": 1699999000}, {
    "TIME_STAMP_SEC": 4200000000, "TIME_STAMP_USEC": 999999, "LAST_PACKET_SEC": 4199999999}
VALUES = {"PACKETS": 2147483647, "LOST_PERCENT": 2.25, "JITTER_AVG": -3, "SSRC": 305419896, "FAR_END_IP": "192.0.2.7"}


def files_of(directory, program):
    directory.mkdir()
    daemon = Daemon.ready(directory, program=Path(program).resolve(), serial="4711")
    daemon.send(*(report(event, **times, **VALUES) for event in EVENTS for times in TIMES))
    daemon.send_voice(*(voice_record(bytes(range(size)), seconds=seconds)
                        for size in (0, 1, 160, 255) for seconds in (1700000000, 4200000000)))
    daemon.stop()
    return [daemon.read(name) for name in FILES]


place, *programs = sys.argv[1:]
first, second = (files_of(Path(place) / f"files {number}", program) for number, program in enumerate(programs))
for name, ours, theirs in zip(FILES, first, second):
    print(f"{name}: {len(ours)} bytes,", "identical" if ours == theirs else f"different from the other's {len(theirs)}")
sys.exit(first != second or not all(first))
