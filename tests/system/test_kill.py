"""If the daemon is killed at any time, what it has written is intact, and the next run continues the files."""
import random
import signal
import time

import pytest

from conftest import HEADERS, PCAP_HEADER, Daemon, line, pcap_record, report, voice_record, wait_for

EVENTS = {"QoS_Stat.txt": "QOS_NEAREND", "QoS_Stat_Sessions_Summary.txt": "QOS_EOS_FAREND"}
DUMP = "RTP_Streams_No_Voice.pcap"


def stream(stat, name):
    """The contents of the archives and the live file of this name, without headers."""
    header = HEADERS[name].encode() if name in HEADERS else PCAP_HEADER
    stem, extension = name.split(".")
    paths = [*sorted(stat.glob(f"{stem}_2*.{extension}")), *stat.glob(name)]
    contents = [path.read_bytes() for path in paths]
    assert all(content.startswith(header) or not content for content in contents)
    return b"".join(content[len(header):] for content in contents)


def traffic(daemon, number):
    """Sends the reports, summaries and voice records of a run. Returns what each file should contain."""
    names = [f"{number}-{i}-{'x' * random.randrange(200)}" for i in range(random.randrange(30))]
    records = [voice_record(name.encode() * 5) for name in names]
    for name, record in zip(names, records):
        daemon.send(*(report(event, RTCP_CNAME=name) for event in EVENTS.values()))
        daemon.send_voice(record, record)
    lines = {name: "".join(line(event, RTCP_CNAME=text) for text in names).encode() for name, event in EVENTS.items()}
    return lines | {DUMP: b"".join(2 * pcap_record(record) for record in records)}


@pytest.mark.parametrize("kills", [20, pytest.param(1000, marks=pytest.mark.long)])
def test_kill(start, tmp_path, kills):
    seed = random.randrange(1000000)
    print("seed", seed)
    random.seed(seed)
    settings = {"max_file_size_rtp": 8000, "max_archived_files_rtp": 100000}
    before = dict.fromkeys([*EVENTS, DUMP], b"")
    for number in range(kills):
        moment = number % 5     # 0: during a start, 1: during a stop, 2: when everything that is due is written
        daemon = Daemon(tmp_path, **settings) if moment == 0 else start(tmp_path, **settings)
        sent = dict.fromkeys(before, b"") if moment == 0 else traffic(daemon, number)
        if moment == 1:
            wait_for(daemon.drained)
            daemon.process.send_signal(signal.SIGTERM)
        if moment == 2:
            wait_for(lambda: all(len(daemon.read(name)) > len(before[name]) + len(sent[name]) + len(header) - 1024
                                 for name, header in HEADERS.items()), what="for whole blocks")
        else:
            time.sleep(random.uniform(0, 0.05))     # a random time
        daemon.kill()
        for name, old in before.items():
            before[name] = stream(tmp_path / "stat", name)
            assert before[name].startswith(old) and sent[name].startswith(before[name][len(old):])
    assert all(before.values())
