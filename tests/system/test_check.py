"""What voxstat-check finds, from mistakes typed by hand to losses of a running daemon."""
import os
import pwd
import re
import signal
import socket
import subprocess
from pathlib import Path

import pytest

from conftest import BUILD, free_ports, line, report, voice_record, wait_for

CHECK = BUILD / "tools/check/voxstat-check"
SELF = pwd.getpwuid(os.geteuid()).pw_name
USER = "nobody" if SELF == "root" else SELF


def check(config, *options, user=USER):
    """The status, and what is printed, with DIR for the file's directory. The machine's free space is no matter."""
    run = subprocess.run([CHECK, "-f", config, "--user", user, *options], capture_output=True, text=True)
    assert run.stderr == ""
    return run.returncode, [row for row in run.stdout.replace(str(config.parent), "DIR").splitlines()
                            if "MiB free" not in row]


@pytest.fixture
def place(tmp_path):
    """A directory in which nothing is to be mended, for the daemon's user."""
    tmp_path.chmod(0o755)
    (tmp_path / "stat").mkdir()
    (tmp_path / "sn").write_text("serial: ABC12\n")
    for name in "stat", "sn":
        (tmp_path / name).chmod(0o777)
    return tmp_path


def write(place, *lines, port=None, directory="stat", serial="sn", end="\n"):
    """A configuration with these lines before those that every one has."""
    config = place / "voxstat.cfg"
    config.write_text(end.join([*lines, f"qos_port = {port or free_ports()}", f"qos_stat_dir = {place / directory}",
                                f"sn_file_path = {place / serial}", ""]), newline="")
    config.chmod(0o644)
    return config


LINES = [   # a line, what is found in it
    ("qos_prt = 5000", 'error: "qos_prt" is no key of the daemon, and the line is ignored; did you mean "qos_port"?'),
    ("QOS_PORT = 5000", 'error: "QOS_PORT" is ignored, since upper and lower case count in a key; write "qos_port"'),
    ("qos_port: 5000", 'error: no "= VALUE" follows qos_port, so the line is ignored and the default counts; write '
                       '"qos_port = VALUE", or delete the line'),
    ("\ufeffrtp_logging = 1", "error: a byte order mark stands before the first line, whose key the daemon does not "
                              r"know for that; remove it: sed -i '1s/^\xEF\xBB\xBF//' DIR/voxstat.cfg"),
    ("elastic_url = http://h/a#b", "warning: a '#' starts a comment, so the value of elastic_url ends before it; "
                                   "write %23 for it in a URL, or do without it"),
    ('qos_file_name = "Stat"', "error: the quotes become part of the value of qos_file_name; delete them, also "
                               "around a value with blanks"),
    ("log.default = info", "error: log.default = info is no number and counts as 0; write 2"),
    ("max_file_size_rtp = 4294967295", "error: max_file_size_rtp = 4294967295 is read as -1, which lets the dump grow "
     "to 4294967295 bytes or without end, so it never rotates; write a number, 1024 or more (bytes)"),
    ("max_length_per_sec_rtp = 1023", "warning: the buffer of the dump is full with one record, which waits up to "
     "max_buf_timeout_rtp seconds, and those behind it are dropped; write 1048576 or more"),
    ("qos_file_name = a/b", "error: qos_file_name = a/b holds a '/', so its archives are never deleted; write a name "
                            "only: the directory is qos_stat_dir"),
    ("elastic_url = http://h/_bulk", "error: elastic_url leads to a bulk interface, which refuses a JSON array; put a "
                                     "pipeline that takes JSON over HTTP in front of the server"),
    ("elastic_url = http://me:secret@h/", "warning: everybody can read the credentials of elastic_url; chgrp voxstat "
                                          "DIR/voxstat.cfg && chmod 640 DIR/voxstat.cfg"),
]


@pytest.mark.parametrize("text, finding", LINES, ids=[row[0] for row in LINES])
def test_line(place, text, finding):
    status, printed = check(write(place, text))
    assert printed[:-1] == [f"DIR/voxstat.cfg:1: {finding}"]
    assert status == (2 if finding.startswith("error") else 1)


def test_several_lines(place):
    """In the order of the lines, and last what is about none of them; of a key that stands twice the later counts."""
    lines = ["log.http = 2", "log.http = 7", "qos_file_name = QoS_Stat_Sessions_Summary", "colour = red", "[quality]"]
    status, printed = check(write(place, *lines, end="\r\n"))
    assert printed == [
        "DIR/voxstat.cfg:1: error: lines end in a carriage return, which becomes part of a name, a path or the URL; "
        "remove them: sed -i 's/\\r$//' DIR/voxstat.cfg",
        "DIR/voxstat.cfg:2: warning: log.http stands in line 1 too, and this later line counts; delete one of them",
        "DIR/voxstat.cfg:2: error: log.http = 7 counts as 1; write a number, 0 to 4 (level)",
        'DIR/voxstat.cfg:4: warning: "colour" is no key of the daemon, and the line is ignored; voxstat-check --help '
        "lists the keys",
        'DIR/voxstat.cfg:5: warning: the line is no "key = value" and is ignored; delete it, or put a \'#\' in front',
        "DIR/voxstat.cfg: error: reports and summaries would share one file; give qos_file_name_eos another name",
        "DIR/voxstat.cfg: 3 errors, 3 warnings"]
    assert status == 2
    assert check(write(place, "# all", "", " ", "log.http = 4 # all")) == (0, ["DIR/voxstat.cfg: nothing to mend"])


PLACES = [  # what is done to the directory, what is written into the configuration, what is found
    (lambda place: (place / "stat").chmod(0o555), {},
     "2: error: DIR/stat/ cannot be written by the user USER: Permission denied; chown USER DIR/stat/"),
    (lambda place: (place / "stat/QoS_Stat.txt").touch(0o444), {},
     "2: error: DIR/stat/QoS_Stat.txt cannot be written by the user USER: Permission denied; move it away, or chown "
     "USER DIR/stat/QoS_Stat.txt"),
    (lambda place: None, {"directory": "stat/new"},
     "2: warning: DIR/stat/new/ is missing; the daemon would make it with mode 0744, so that nobody else could enter; "
     "make it: install -d -o USER -m 750 DIR/stat/new/"),
    (lambda place: None, {"serial": "no"},
     "3: warning: DIR/no cannot be read by the user USER: No such file or directory, so reports without a serial "
     'number of their own get 0; write the line "serial: ABC12" into it, and chmod a+r it'),
    (lambda place: (place / "sn").write_text("serial: ABC123\n"), {},
     "3: warning: DIR/sn has the serial number ABC123, of which lines show ABC12 only; write a shorter one if you can"),
    (lambda place: (place / "sn").write_bytes(b"serial: AB\r\n"), {},
     "3: error: DIR/sn has a quote, a backslash or a carriage return in the serial number, which spoils every posted "
     "batch; write letters and digits only"),
]


@pytest.mark.parametrize("prepare, options, finding", PLACES)
def test_place(place, prepare, options, finding):
    prepare(place)
    status, printed = check(write(place, **options))
    assert printed[:-1] == ["DIR/voxstat.cfg:" + finding.replace("USER", USER)]
    assert status == (2 if "error" in finding else 1)


def test_port_of_another(place):
    with socket.socket(type=socket.SOCK_DGRAM) as holder:
        holder.bind(("", free_ports()))
        port = holder.getsockname()[1]
        status, printed = check(write(place, port=port))
    name = Path("/proc/self/comm").read_text().strip()
    assert (status, printed[0]) == (2, (
        f"DIR/voxstat.cfg:1: error: port {port} cannot be opened: Address already in use by {name}, and the daemon "
        'would end at once; stop what "ss -lunp" shows there, or change qos_port'))


def test_no_file(place):
    assert check(place / "no") == (2, ["DIR/no: error: there is no such file, and the daemon would end at once; name "
                                       "it with -f FILE", "DIR/no: 1 error, 0 warnings"])
    assert check(place / "stat")[1][0] == ("DIR/stat: error: this is a directory, and the daemon would run on its "
                                           "defaults; name the file in it")


ANSWERS = [
    (200, 0, "note: the post has arrived; the server answers 200: {}"),
    (404, 2, "error: the server answers 404: {}; every batch is lost, and the daemon does not notice; correct the path "
             "of elastic_url"),
    (None, 2, "error: the post failed with code 7: .*; see that the server runs, listens on this port, and that no "
              "firewall stands between"),
]


@pytest.mark.parametrize("answer, status, finding", ANSWERS, ids=[row[2][:40] for row in ANSWERS])
def test_post(place, web, answer, status, finding):
    web.status = answer
    if answer is None:
        web.close()
    result = check(write(place, f"elastic_url = {web.url}"), "--post")
    assert result[0] == status and re.fullmatch(f"DIR/voxstat.cfg:1: {finding}", result[1][0]), result
    service = [line(GCID="0-0", TID="0.0", SSRC="00000", SERIAL_NUM="ABC12", RTCP_CNAME="Service_Packet",
                    FAR_END_IP=address, LOST_LOST_SINCE_LAST_REPORT_PERCENT=percent)[30:]
               for address, percent in (("192.0.2.10", 0), ("198.51.100.10", 100))]
    assert [row[30:] for row in web.lines()] == (service if answer else [])


def test_live(start, web):
    """A daemon that was stopped for a while, could not post, and whose file somebody took away."""
    web.close()
    daemon = start(elastic_url=web.url, serial="ABC12")
    config = daemon.directory / "voxstat.cfg"
    daemon.process.send_signal(signal.SIGSTOP)
    wait_for(lambda: daemon.send(report()) or daemon.sockets()[0][1] == 3, what="for drops")
    daemon.process.send_signal(signal.SIGCONT)
    daemon.send_voice(voice_record(length=500))
    daemon.logged("curl_easy_perform failed")
    daemon.logged("Dropped the rest")
    wait_for(lambda: daemon.read("QoS_Stat.txt"), what="for the file")
    (daemon.stat / "QoS_Stat.txt").rename(daemon.stat / "taken")
    status, printed = check(config, "--live", user=SELF)
    assert printed[0] == (f"DIR/voxstat.cfg:1: note: port {daemon.port} is held by the running daemon, process "
                          f"{daemon.process.pid}")
    assert [row for row in printed if row.startswith("reports")][0].split() == [
        "reports,", "port", str(daemon.port), "0", Path("/proc/sys/net/core/rmem_default").read_text().strip(), "3"]
    found = [row.replace("DIR/voxstat.cfg: ", "") for row in printed if "lost:" in row or "error:" in row]
    assert [re.sub("server: [1-9];", "server: SOME;", row) for row in found] == [
        f"warning: lost: reports in the receive queue of port {daemon.port}: 3 datagrams, which are in no file and in "
        "no batch; raise net.core.rmem_default and restart the daemon",
        "error: the daemon goes on writing to DIR/stat/taken, which somebody has moved or deleted; restart it, and "
        "leave its files to it",
        "warning: lost: batches on the way to the server: SOME; voxstat-check --post tells why; the statistics file "
        "has them", "warning: lost: ends of broken voice datagrams: 1; find out who sends them"]
    daemon.stop()
    assert check(config, "--live", user=SELF)[1][0].startswith("DIR/voxstat.cfg:1: error: no daemon listens on")
