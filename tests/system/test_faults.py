"""Disks and directories that refuse: what is said, what is lost, and that it goes on."""
import resource

from conftest import HEADERS, line, pcap_record, report, voice_record, wait_for

RECORD = voice_record(b"x" * 42)    # 100 bytes in the dump
DUMP = "DIR/stat/RTP_Streams_No_Voice.pcap"


def test_refused_write_counts_for_nothing(start, tmp_path):
    """As on a full disk: the block is lost, the size stays, and the file rotates when what it holds is enough."""
    (tmp_path / "stat").mkdir()
    dump = tmp_path / "stat/RTP_Streams_No_Voice.pcap"
    dump.write_bytes(b"d" * 1000000)    # so that the limit is far above the size of what is printed
    daemon = start(tmp_path, max_file_size_rtp=1000200, max_buf_timeout_rtp=-1, log__default=4, serial="1")

    def send_and_wait(condition):
        daemon.send_voice(RECORD)
        wait_for(condition)

    said = f"[DEBUG] File too large (27) on writing to file {DUMP}"
    send_and_wait(lambda: dump.stat().st_size == 1000100)
    resource.prlimit(daemon.process.pid, resource.RLIMIT_FSIZE, (1000100, resource.RLIM_INFINITY))
    for count in (1, 2, 3):
        send_and_wait(lambda: daemon.log().count(said) == count)
    resource.prlimit(daemon.process.pid, resource.RLIMIT_FSIZE, (resource.RLIM_INFINITY, resource.RLIM_INFINITY))
    send_and_wait(lambda: dump.stat().st_size == 1000200)
    send_and_wait(lambda: not dump.exists())
    daemon.stop()
    archive, = daemon.stat.glob("RTP_Streams_No_Voice_*.pcap")
    assert archive.read_bytes()[1000000:] == 3 * pcap_record(RECORD)


def test_directory_that_is_missing(start, tmp_path):
    stat = tmp_path / "none/stat"
    daemon = start(tmp_path, qos_stat_dir=stat, log__default=0)
    daemon.stat = stat
    daemon.send(report(RTCP_CNAME="lost"))
    daemon.logged("[ERROR] Failed to open DIR/none/stat/QoS_Stat.txt")
    stat.mkdir(parents=True)
    daemon.send(report(RTCP_CNAME="kept"))
    daemon.stop()
    assert daemon.text() == HEADERS["QoS_Stat.txt"] + line(RTCP_CNAME="kept")
    assert daemon.log("ERROR") == [
        *["[ERROR] Failed to create directory DIR/none/stat/ (2: No such file or directory)"] * 3,
        *["[ERROR] FileObject::fobj_cleanup: failed to open DIR/none/stat/; No such file or directory (2)"] * 2,
        "[ERROR] Failed to open DIR/none/stat/QoS_Stat.txt"]
