"""Starts and stops that are out of the ordinary."""
import signal
import socket
import sys

import pytest

from conftest import HEADERS, Daemon, free_ports, line, report, wait_for

SERIAL_NUMBERS = [  # the file, what is said, what stands in the lines
    (None, ["[WARN] Caught an exception: Failed to open config file: DIR/sn"], "0"),
    ("serial: AB12\n", ["[INFO] Serial Number: AB12"], "AB12"),
    ("number: 5\n", ["[INFO] Serial Number is not defined."], "0"),
    ("serial = X\n", ["[INFO] KeyValueParser::parseLine ignoring invalid line: serial = X",
                      "[INFO] Serial Number is not defined."], "0"),
]


@pytest.mark.parametrize("text, said, serial", SERIAL_NUMBERS)
def test_serial_number(start, tmp_path, text, said, serial):
    if text:
        (tmp_path / "sn").write_text(text)
    daemon = start(tmp_path, log__default=2)
    daemon.send(report())
    daemon.stop()
    assert daemon.log()[1:1 + len(said)] == said
    assert daemon.text() == HEADERS["QoS_Stat.txt"] + line(SERIAL_NUM=serial)


def test_further_signals_change_nothing(start, web):
    daemon = start(elastic_url=web.url, log__default=2, log__network=2)
    web.speaks.clear()
    daemon.send(report())
    wait_for(lambda: web.requests)      # the stop waits for the answer
    for number in (signal.SIGTERM, signal.SIGINT, signal.SIGTERM):
        daemon.process.send_signal(number)
        daemon.logged("Terminating FileLogger thread...")
    assert daemon.process.poll() is None
    web.speaks.set()
    daemon.wait()
    entries = daemon.log("INFO")
    assert len(entries) == len(set(entries)) and entries[-2] == "[INFO] Terminating application..."


BLOCKING_PARENT = """
import os, signal, sys
signal.pthread_sigmask(signal.SIG_BLOCK, [signal.SIGTERM, signal.SIGINT, signal.SIGQUIT])
os.execv(sys.argv[1], sys.argv[1:])
"""


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT, signal.SIGQUIT])
def test_parent_that_blocks_the_stop_signals(start, number):
    daemon = start(launch=[sys.executable, "-c", BLOCKING_PARENT])
    daemon.stop(number)


@pytest.mark.parametrize("taken", [0, 1])
def test_port_that_is_taken(tmp_path, taken):
    port = free_ports()
    with socket.socket(type=socket.SOCK_DGRAM) as other:
        other.bind(("", port + taken))
        daemon = Daemon(tmp_path, port=port, log__default=0, log__network=0)
        daemon.wait()
    assert daemon.log() == [f"[ERROR] NetReceiver() unable to bind to port: {('QOS', 'VOICE')[taken]}(errno: 98)",
                            "[ERROR] Caught an exception: NetReceiver() fatal error..."]


def test_without_standard_descriptors(start):
    daemon = start(launch=["sh", "-c", 'exec "$@" <&- >&- 2>&-', "sh"], log__default=4)
    daemon.send(report(RTCP_CNAME="x"))
    daemon.stop()
    assert daemon.text() == HEADERS["QoS_Stat.txt"] + line(RTCP_CNAME="x")
