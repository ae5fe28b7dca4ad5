"""From voice datagrams to the pcap dump."""
import os
import signal

from conftest import PCAP_HEADER, pcap_record, report, voice_record

LENGTHS = [160, 0, 1989, 1990, 2024, 2025, 3000]    # stored whole up to 1989, cut from 2025 on


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
    daemon.send_voice(voice_record(b"v"))
    daemon.send(report(TID=1), report(TID=2))
    daemon.send_voice(voice_record())
    daemon.process.send_signal(signal.SIGCONT)
    daemon.stop()
    assert [entry.split()[3] for entry in daemon.log("DEBUG")] == ["QoS", "QoS", "Voice", "Voice"]


def test_switched_off(start):
    daemon = start(rtp_logging=0, log__default=4)
    daemon.send_voice(voice_record(b"v"))
    daemon.stop()
    assert not list(daemon.stat.iterdir()) and not daemon.log("DEBUG")
