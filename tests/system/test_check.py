"""What voxstat-check finds, from mistakes typed by hand to losses of a running daemon."""
import os
import pwd
import re
import signal
import socket
import subprocess
import time
from pathlib import Path

import pytest

from conftest import BUILD, ROOT, free_ports, report, wait_for

SELF = pwd.getpwuid(os.geteuid()).pw_name
USER = "nobody" if SELF == "root" else SELF
SUMMARY = "QoS_Stat_Sessions_Summary.txt"
CASES = (Path(__file__).parent / "findings.cfg").read_text().split("\n\n")[1:]


def sysctl(name):
    return int(Path("/proc/sys", name).read_text())


def check(config, *options, user=USER):
    """The status, and what is printed without the path of the file. DIR is its directory, USER the user."""
    run = subprocess.run([BUILD / "tools/check/voxstat-check", "-f", config, "--user", user, *options],
                         capture_output=True, text=True, timeout=60, cwd=config.parent)
    assert run.stderr == ""
    text = re.sub(rf"^{config}: ?", "", run.stdout, flags=re.M).replace(str(config.parent), "DIR")
    text = re.sub(rf"(user|chown|chgrp|-o) {user}\b", r"\1 USER", re.sub(r"\d+ MiB", "N MiB", text))
    return run.returncode, text.splitlines()


@pytest.fixture
def write(tmp_path):
    """write(line, ...) makes a configuration that the daemon's user can run with, but for these lines."""
    (tmp_path / "stat").mkdir()
    (tmp_path / "sn").write_text("serial: ABC12\n")
    for path in (tmp_path, tmp_path / "stat", tmp_path / "sn"):
        path.chmod(0o777)

    def run(*lines, port=None):
        needed = {"qos_port": port or free_ports(), "qos_stat_dir": "DIR/stat", "sn_file_path": "DIR/sn"}
        text = "\n".join([*lines, *(f"{key} = {value}" for key, value in needed.items()
                                    if not any(row.startswith(key) for row in lines))])
        (tmp_path / "voxstat.cfg").write_text(text.replace("DIR", str(tmp_path)), newline="")
        (tmp_path / "voxstat.cfg").chmod(0o644)
        return tmp_path / "voxstat.cfg"
    return run


@pytest.mark.parametrize("case", CASES, ids=[case.splitlines()[0] for case in CASES])
def test_findings(write, case):
    rows, expected, place = case.splitlines(), [], ""
    config = write(*(row if row[0] == "#" else row.replace(r"\r", "\r").replace(r"\ufeff", "\ufeff") for row in rows))
    for number, row in enumerate(rows, 1):
        if row.startswith("#$"):
            subprocess.run(row[2:], shell=True, cwd=config.parent, check=True)
        elif row.startswith("#!"):
            expected.append(place + row[3:])
        else:
            place = f"{number}: "
    status, (*found, summary) = check(config)
    assert [row for row in found if "/var/log/current/" not in row] == expected     # few machines have it
    text = "\n".join(found)
    assert status == (2 if "error: " in text else 1 if "warning: " in text else 0)
    assert (summary == "nothing to mend") == (status == 0)


def test_what_keeps_the_daemon_from_starting(write):
    def first(config):
        return check(config)[1][0]

    with socket.socket(type=socket.SOCK_DGRAM) as holder:
        holder.bind(("", free_ports()))
        port, name = holder.getsockname()[1], Path("/proc/self/comm").read_text().strip()
        assert first(write(port=port)) == (
            f"1: error: port {port} cannot be opened: Address already in use by {name}, and the daemon would end at "
            'once; stop what "ss -lunp" shows there, or change qos_port')
    if sysctl("net/ipv4/ip_unprivileged_port_start") > 1:
        assert first(write(port=1)) == (
            "1: error: port 1 is not allowed for the user USER, and the daemon would end at once; take a port above "
            "1023, or allow it in the unit as its comments say")
    assert first(write().parent / "none") == (
        "error: there is no such file, and the daemon would end at once; name it with -f FILE")
    assert check(write().parent / "stat") == (2, [
        "error: this is a directory, and the daemon would run on its defaults; name the file in it", "1 error, 0 warnings"])


@pytest.mark.parametrize("server, status, finding", [
    ({}, 0, "note: the post has arrived; the server answers 200: {}"),
    ({"status": 404}, 2, "error: the server answers 404: {}; every batch is lost, and the daemon does not notice; "
                         "correct the path of elastic_url"),
    ({"status": 500}, 2, "error: the server answers 500: {}; every batch is lost, and the daemon does not notice; "
                         "see the server's log"),
    ({"closing": True}, 2, "error: the post failed with code 52: Empty reply from server; "
                           "see whether this port speaks HTTP, or wants https://"),
])
def test_post(write, web, server, status, finding):
    vars(web).update(server)
    result, printed = check(write(f"elastic_url = {web.url}"), "--post")
    assert (result, printed[0]) == (status, f"1: {finding}")
    assert [row.split()[-2:] for row in web.lines()] == [["ABC12", "Service_Packet"]] * 2


LOSSES = [      # a message as the manual has it, N being 1023; what is found
    ("WARN QoS WRITE OVERFLOW: N", "lines before the statistics files: 1023; the disk is too slow, or reports come too fast"),
    ("WARN VOICE DUMP WRITE OVERFLOW: N", "voice records before the dump: 1023; raise max_length_per_sec_rtp"),
    ("WARN LOG FILE WRITE OVERFLOW: N", "lines of the log: 1023; lower the log levels"),
    ("WARN WebClient OVERFLOW: N",
     "reports before the posts: 1023; the server is too slow; the statistics file has them"),
    ("ERROR Unable to transmitt http - curl_easy_perform failed: N",
     "batches on the way to the server: 1; voxstat-check --post tells why; the statistics file has them"),
    ("Failed to open PATH", "blocks before a file that could not be opened: 1; correct its directory or owner"),
    ("DEBUG TEXT (N) on writing to file PATH", "blocks that a file refused: 1; make room on the disk"),
    ("WARN Dropped the rest of a voice datagram", "ends of broken voice datagrams: 1; find out who sends them"),
    ("WARN ignoring what follows the first N characters", "ends of long reports: 1; find out who sends them"),
]


def test_live(start):
    """A daemon that was stopped for a while, whose file somebody took away, and whose log tells of every loss."""
    daemon = start(serial="ABC12", log__default=0, launch=["bash", "-c", 'exec "$@" >>log', "bash"])
    config, begun, limit = daemon.directory / "voxstat.cfg", time.time(), sysctl("net/core/rmem_default")
    os.utime(config, (0, 0))
    held = [f"1: note: port {port} is held by the running daemon, process {daemon.process.pid}"
            for port in (daemon.port, daemon.port + 1)]
    hidden = "note: log.default hides what the daemon itself drops; set log.default = 1"
    status, printed = check(config, "--live", user=SELF)
    assert (status, printed[:2], printed[-4:]) == (0, held, [
        "", hidden, "note: lost: nothing that the queues or the log tell of", "nothing to mend"])

    daemon.process.send_signal(signal.SIGSTOP)
    wait_for(lambda: daemon.send(report()) or daemon.sockets()[0][1] == 3, what="for drops")
    daemon.process.send_signal(signal.SIGCONT)
    wait_for(lambda: daemon.drained() and daemon.read("QoS_Stat.txt"), what="for the file")
    (daemon.stat / "QoS_Stat.txt").rename(daemon.stat / "taken")
    os.utime(config)
    for name in (SUMMARY, f"{SUMMARY[:-4]}_2026-01-31_23-59-59.txt", f"{SUMMARY[:-4]}_other.txt"):
        (daemon.stat / name).write_text("12345")
        os.utime(daemon.stat / name, (1700000000, 1700000000))
    manual = (ROOT / "packaging/voxstat.8").read_text()
    with (daemon.directory / "log").open("a") as file:
        for message, _ in LOSSES:
            assert f".It {message}" in manual
            for age in (0, 86400):
                moment = time.strftime("%b-%d %H:%M:%S.000", time.localtime(time.time() - age))
                file.write(f"{moment}  [TAG] {message.replace('N', '1023').replace('PATH', '/x')}\n")
    status, printed = check(config, "--live", user=SELF)
    since = printed[3].removeprefix(f"voxstat runs as process {daemon.process.pid} since ")
    assert abs(time.mktime(time.strptime(since, "%Y-%m-%d %H:%M:%S")) - begun) < 20
    assert (status, printed[:2], [" ".join(row.split()) for row in printed[4:]]) == (2, held, [
        "", "receive queue waiting limit dropped datagrams",
        f"reports, port {daemon.port} 0 {limit} 3", f"voice records, port {daemon.port + 1} 0 {limit} 0",
        f"(in bytes as the kernel counts them; the limit holds about {limit // 1280} reports of 500 bytes)",
        "", "file bytes archives last write", "QoS_Stat.txt - - none yet",
        f"{SUMMARY} 5 1 of 2 2023-11-15 03:43:20", "RTP_Streams_No_Voice.pcap - - none yet", "",
        f"warning: lost: reports in the receive queue of port {daemon.port}: 3 datagrams, which are in no file and in "
        "no batch; raise net.core.rmem_default and restart the daemon",
        "warning: the file is younger than the daemon, which reads it once; systemctl restart voxstat",
        "error: the daemon goes on writing to DIR/stat/taken, which somebody has moved or deleted; restart it, and "
        "leave its files to it", *(f"warning: lost: {finding}" for _, finding in LOSSES), hidden,
        "1 error, 11 warnings"])
    daemon.stop()
    assert check(config, "--live", user=SELF)[1][0] == (
        f"1: error: no daemon listens on the ports {daemon.port} and {daemon.port + 1}; journalctl -u voxstat tells why")


def test_live_without_log(start):
    daemon = start(serial="ABC12", launch=["bash", "-c", 'exec "$@" >/dev/null', "bash"])
    os.utime(daemon.directory / "voxstat.cfg", (0, 0))
    assert check(daemon.directory / "voxstat.cfg", "--live", user=SELF)[1][-3] == (
        f"note: the log was not read, and it may tell of more; journalctl _PID={daemon.process.pid} | grep -E "
        "'OVERFLOW|[Ff]ailed|Dropped|ignoring what'")
