"""What becomes of files over time: modes, headers, rotation and the removal of archives."""
import os

import pytest

from conftest import HEADERS, line, pcap_record, report, voice_record

FILES = [   # name, size from which it rotates, archives kept, what is sent, what is written
    ("QoS_Stat.txt", 20971520, 4, report(), line().encode()),
    ("QoS_Stat_Sessions_Summary.txt", 5242880, 2, report("QOS_EOS_FAREND"), line("QOS_EOS_FAREND").encode()),
    ("RTP_Streams_No_Voice.pcap", 52428800, 20, voice_record(b"rtp"), pcap_record(voice_record(b"rtp"))),
]


def test_modes_and_owner(start):
    daemon = start(launch=["sh", "-c", 'umask 0; exec "$@"', "sh"])
    daemon.send(report())
    daemon.stop()
    owner = 500 if os.geteuid() == 0 else os.geteuid()
    about = daemon.stat.stat()
    assert (oct(about.st_mode), about.st_uid) == ("0o40744", owner)
    assert about.st_gid == (500 if owner == 500 else os.getegid())
    assert oct((daemon.stat / "QoS_Stat.txt").stat().st_mode) == "0o100644"


def test_restart_goes_on_below_the_header(start, tmp_path):
    (tmp_path / "stat").mkdir()
    (tmp_path / "stat/QoS_Stat.txt").touch()    # an empty file is like none
    for name in ("first", "second"):
        daemon = start(tmp_path)
        daemon.send(report(RTCP_CNAME=name))
        daemon.stop()
    assert daemon.text() == HEADERS["QoS_Stat.txt"] + line(RTCP_CNAME="first") + line(RTCP_CNAME="second")


@pytest.mark.parametrize("below", [0, 1])
@pytest.mark.parametrize("name, size, kept, data, written", FILES, ids=[row[0] for row in FILES])
def test_rotates_at_its_size(start, tmp_path, name, size, kept, data, written, below):
    """The first write into a file of the size is its last, and archives beyond the number go, the oldest first.
    One byte less, and they only go at the start, and not the dump's."""
    stem, extension = name.split(".")
    stat = tmp_path / "stat"
    stat.mkdir()
    newest_first = [f"{stem}_2020-01-{day:02}_00-00-00.{extension}" for day in range(1, kept + 4)]
    foreign = [f"{stem}_2020-01-01_00-00-0x.{extension}", f"{stem}_2020-01-01.00-00-00.{extension}",
               f"{stem}_other_2020-01-01_00-00-00.{extension}", f"{stem}_2020-01-01_00-00-00.bak",
               "X" + newest_first[0][1:]]
    for number, path in enumerate([*newest_first, *foreign]):
        (stat / path).touch()
        os.utime(stat / path, (2000000 - number, 2000000 - number))
    with open(stat / name, "wb") as live:
        live.truncate(size - below)
    daemon = start(tmp_path, log__default=2)
    daemon.send_to(daemon.port + (extension == "pcap"), data)
    daemon.stop()
    keeps = kept - 1 if not below else kept if extension == "txt" else len(newest_first)
    made = set(os.listdir(stat)) - {name, *newest_first, *foreign}
    assert len(made) == 1 - below
    assert set(os.listdir(stat)) == {*newest_first[:keeps], *foreign, *(made or [name])}
    content = (stat / (made or {name}).pop()).read_bytes()
    assert len(content) == size - below + len(written) and content.endswith(written)
    told = "[INFO] FileObject::fobj_cleanup: successfully deleted DIR/stat/"
    assert [entry for entry in daemon.log() if "deleted" in entry] == [
        told + path for path in newest_first[:keeps - 1:-1]]
