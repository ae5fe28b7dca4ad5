"""What voxstat-check finds, from mistakes typed by hand to losses of a running daemon."""
import os
import pwd
import signal
import socket
import subprocess
from pathlib import Path

import pytest

from conftest import BUILD, free_ports, report, voice_record, wait_for

SELF = pwd.getpwuid(os.geteuid()).pw_name
USER = "nobody" if SELF == "root" else SELF


def check(config, *options, user=USER):
    """The status, and what is printed, shorter by the path of the file. The machine's free space is no matter."""
    run = subprocess.run([BUILD / "tools/check/voxstat-check", "-f", config, "--user", user, *options],
                         capture_output=True, text=True)
    assert run.stderr == ""
    rows = [row.removeprefix(f"{config}:").strip() for row in run.stdout.splitlines() if "MiB free" not in row]
    return run.returncode, [row.replace(str(config.parent), "DIR").replace(f" {user}", " USER") for row in rows]


@pytest.fixture
def place(tmp_path):
    """A directory in which nothing is to be mended, for the daemon's user."""
    (tmp_path / "stat").mkdir()
    (tmp_path / "sn").write_text("serial: ABC12\n")
    for path in (tmp_path, tmp_path / "stat", tmp_path / "sn"):
        path.chmod(0o777)
    return tmp_path


def write(place, *lines, port=None):
    """A configuration with these lines behind the three that every one has."""
    config = place / "voxstat.cfg"
    lines = [f"qos_port = {port or free_ports()}", f"qos_stat_dir = {place}/stat", f"sn_file_path = {place}/sn", *lines]
    config.write_text("\n".join(lines), newline="")
    config.chmod(0o644)
    return config


MISTAKES = [    # a line, from the fourth on; how what is said of it begins
    ("qos_prt = 5000", 'error: "qos_prt" is no key of the daemon, and the line is ignored; did you mean "qos_port"?'),
    ("QOS_PORT = 5000", 'error: "QOS_PORT" is ignored, since upper and lower case count'),
    ("log.default: 2", 'error: no "= VALUE" follows log.default'),
    ("colour = red", 'warning: "colour" is no key'),
    ("[quality]", 'warning: the line is no "key = value"'),
    ("log.network = info", "error: log.network = info is no number and counts as 0; write 2"),
    ("log.http = 2",),
    ("log.http = 7 # all", "warning: log.http stands in line 10 too",
     "error: log.http = 7 counts as 1; write a number, 0 to 4"),
    ("max_buf_timeout_rtp = -1s", "error: max_buf_timeout_rtp = -1s is read as -1, which writes the dump in many"),
    ("max_length_per_sec_rtp = 1023", "warning: the buffer of the dump is full with one record"),
    ("rtp_dump_file_name = a/b", "error: rtp_dump_file_name = a/b holds a '/'"),
    ('qos_file_name = "Stat"', "error: the quotes become part of the value"),
    ('qos_file_name_eos = "Stat"\r', "error: the quotes become part of the value",
     "error: lines end in a carriage return, which becomes part of a name",
     "error: reports and summaries would share one file"),
    ("elastic_url = http://me:secret@h/_bulk#b", "warning: a '#' starts a comment",
     "error: elastic_url leads to a bulk", "warning: the log shows the credentials", "warning: everybody can read"),
]


def test_mistakes(place):
    status, printed = check(write(place, *[row[0] for row in MISTAKES]))
    found = [f"{number}: {text}" for number, row in enumerate(MISTAKES, 4) for text in row[1:]]
    assert [row[:len(text)] for row, text in zip(printed, found)] == found
    assert (status, printed[len(found):]) == (2, ["12 errors, 7 warnings"])
    assert check(write(place, "# all", "", " ", "log.http = 4 # all")) == (0, ["nothing to mend"])
    (place / "marked").write_text("\ufeffrtp_logging = 0")
    assert check(place / "marked")[1][0].startswith("1: error: a byte order mark stands before the first line")


PLACES = [      # what is done to the directory, how what is found begins
    (lambda place: (place / "stat").chmod(0o555), "2: error: DIR/stat/ cannot be written by the user USER: Permission"),
    (lambda place: (place / "stat/QoS_Stat.txt").touch(0o444), "2: error: DIR/stat/QoS_Stat.txt cannot be written by"),
    (lambda place: (place / "stat").rmdir(), "2: warning: DIR/stat/ is missing; the daemon would make it with mode"),
    (lambda place: (place / "sn").unlink(), "3: warning: DIR/sn cannot be read by the user USER: No such file"),
    (lambda place: (place / "sn").write_text("serial: ABC123\n"), "3: warning: DIR/sn has the serial number ABC123"),
    (lambda place: (place / "sn").write_bytes(b"serial: AB\r\n"), "3: error: DIR/sn has a quote, a backslash or"),
]


@pytest.mark.parametrize("prepare, finding", PLACES)
def test_place(place, prepare, finding):
    prepare(place)
    status, (found, _) = check(write(place))
    assert found.startswith(finding) and status == (2 if "error" in finding else 1)


def test_what_keeps_the_daemon_from_starting(place):
    with socket.socket(type=socket.SOCK_DGRAM) as holder:
        holder.bind(("", free_ports()))
        port = holder.getsockname()[1]
        status, printed = check(write(place, port=port))
    name = Path("/proc/self/comm").read_text().strip()
    assert (status, printed[0].split(",")[0]) == (
        2, f"1: error: port {port} cannot be opened: Address already in use by {name}")
    assert check(place / "none")[1] == [
        "error: there is no such file, and the daemon would end at once; name it with -f FILE", "1 error, 0 warnings"]
    assert check(place / "stat")[1][0].startswith("error: this is a directory")


@pytest.mark.parametrize("answer, status, finding", [
    (200, 0, "note: the post has arrived; the server answers 200: {}"),
    (404, 2, "error: the server answers 404: {}; every batch is lost, and the daemon does not notice; correct"),
    (None, 2, "error: the post failed with code 7"),
])
def test_post(place, web, answer, status, finding):
    web.status = answer
    if answer is None:
        web.close()
    result, printed = check(write(place, f"elastic_url = {web.url}"), "--post")
    assert result == status and printed[0].startswith(f"4: {finding}")
    assert [row.split()[-2:] for row in web.lines()] == [["ABC12", "Service_Packet"]] * (2 if answer else 0)


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
    printed = check(config, "--live", user=SELF)[1]
    assert printed[0] == f"1: note: port {daemon.port} is held by the running daemon, process {daemon.process.pid}"
    limit = Path("/proc/sys/net/core/rmem_default").read_text().strip()
    assert ["reports,", "port", str(daemon.port), "0", limit, "3"] in [row.split() for row in printed]
    for finding in (f"warning: lost: reports in the receive queue of port {daemon.port}: 3 datagrams",
                    "error: the daemon goes on writing to DIR/stat/taken",
                    "warning: lost: batches on the way to the server: ",
                    "warning: lost: ends of broken voice datagrams: 1; "):
        assert any(row.startswith(finding) for row in printed), finding
    daemon.stop()
    assert check(config, "--live", user=SELF)[1][0].startswith("1: error: no daemon listens on")
