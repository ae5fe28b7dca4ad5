"""All that a run says from start to stop, with its levels: what passes each group's level, and nothing else."""
import signal

import pytest

from conftest import HEADERS, line, report, voice_record, wait_for

LEVELS = ["ERROR", "WARN", "INFO", "TRACE", "DEBUG"]
NAME = "QoS_Stat_Sessions_Summary.txt"
FIRST = report("QOS_EOS_NEAREND", RTCP_CNAME="x") + "\nBOS_EV_SSRC=5"     # a key that is known but for its first letter
UNKNOWN = report("QOS")
LINE = line("QOS_EOS_NEAREND", RTCP_CNAME="x", SERIAL_NUM="77")
SAID = [    # group: default, network, HTTP, and that with or without a server; level; text
    ("N", "INFO", "NetReceiver is listening on port QOS"),
    ("N", "INFO", "NetReceiver is listening on port VOICE"),
    ("not W", "WARN", "Empty URL value for WebClient. HTTP reporting is unavailable."),
    ("D", "INFO", "Serial Number: 77"),
    ("N", "DEBUG", ">>>>> New QoS packet:\n" + FIRST),
    ("D", "WARN", "ignoring unknown key: BOS_EV_SSRC"),
    ("D", "DEBUG", "FileLogger::FL_Write new event: " + LINE.rstrip()),
    ("D", "DEBUG", "FileLogger::fl_write_file - writing block: \n" + LINE.rstrip()),
    ("D", "INFO", "Opened for writing DIR/stat/" + NAME),
    ("D", "DEBUG", f"Written file header to DIR/stat/{NAME}(191 bytes)"),
    ("N", "DEBUG", ">>>>> New Voice packet: 25 bytes"),
    ("D", "DEBUG", "FileLogger::FL_Write new voice event 59 bytes. Total in buffer: 59"),
    ("D", "DEBUG", "FileLogger::fl_write_rtp_dump - writing block: 59 bytes"),
    ("D", "INFO", "Opened for writing DIR/stat/RTP_Streams_No_Voice.pcap"),
    ("D", "DEBUG", "Written file header to DIR/stat/RTP_Streams_No_Voice.pcap(24 bytes)"),
    ("N", "DEBUG", ">>>>> New Voice packet: 5 bytes"),
    ("D", "WARN", "Dropped the rest of a voice datagram: no whole record at offset 0, 5 bytes left"),
    ("N", "DEBUG", ">>>>> New QoS packet:\n" + UNKNOWN),
    ("D", "INFO", "QoSPacket::fmt_log_string() Ignoring unknown event: QOS"),
    ("D", "ERROR", "Failed to allocate _log_string event for QoS packet..."),
    ("D", "TRACE", "FileLogger::FL_Write Ignoring unknown event."),
    ("N", "INFO", "NetReceiver closing port QOS"),
    ("N", "INFO", "NetReceiver closing port VOICE"),
    ("D", "INFO", "Terminating FileLogger thread..."),
    *[("W", "INFO", "Terminating WebClient thread...")] * 5,
    ("D", "INFO", "Closed file: DIR/stat/QoS_Stat.txt"),
    ("D", "INFO", "Closed file: DIR/stat/QoS_Stat_Sessions_Summary.txt"),
    ("D", "INFO", "Closed file: DIR/stat/RTP_Streams_No_Voice.pcap"),
    ("H", "INFO", "WebClient stat: Lines Sent=0; Bytes Sent=0"),
    ("D", "INFO", "Terminating application..."),
    ("D", "INFO", "Terminating SimpleLogger thread..."),
]
RUNS = [    # log.default, log.network and log.http, what they come to, whether it has a server, how it is ended
    ((4, 4, 4), (4, 4, 4), True, signal.SIGTERM),
    ((3, 0, 2), (3, 0, 2), False, signal.SIGINT),
    ((2, 3, 0), (2, 3, 0), False, signal.SIGQUIT),
    ((0, 5, 5), (0, 1, 1), False, signal.SIGTERM),
    ((-1, -1, -1), (1, 1, 1), False, signal.SIGTERM),
    ((5, None, None), (1, 1, 1), False, signal.SIGTERM),
]


@pytest.mark.parametrize("settings, levels, reporting, number", RUNS)
def test_whole_run(start, web, settings, levels, reporting, number):
    default, network, http = settings
    daemon = start(serial="77", elastic_url=web.url if reporting else None, log__default=default, log__network=network,
                   log__http=http, launch=["env", "--block-signal=TERM,INT,QUIT"])      # as a parent may have them
    assert not list(daemon.stat.iterdir())      # a file is made when there is something to write
    daemon.send(FIRST)
    wait_for(lambda: daemon.text(NAME) == HEADERS[NAME] + LINE)
    daemon.send_voice(voice_record(b"v"))
    wait_for(lambda: len(daemon.dump()) == 24 + 59)
    daemon.send_voice(b"\0\0\0\0\0")
    wait_for(daemon.drained)
    daemon.send(UNKNOWN)
    daemon.stop(number)
    passing = dict(zip(("D", "N", "H"), levels)) | {"W": levels[2] if reporting else -1,
                                                    "not W": -1 if reporting else levels[2]}
    assert daemon.log() == [f"[{tag}] {text}" for group, tag, text in SAID if LEVELS.index(tag) <= passing[group]]
