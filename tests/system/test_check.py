"""What voxstat-check finds, from mistakes typed by hand to losses of a running daemon."""
import os
import pwd
import re
import socket
import subprocess
from pathlib import Path

import pytest

from conftest import BUILD, expected, free_port

SELF = pwd.getpwuid(os.geteuid()).pw_name
USER = "nobody" if SELF == "root" else SELF
CASES = expected("findings.cfg").split("\n\n")[1:]


def sysctl(name):
    return int(Path("/proc/sys", name).read_text())


def check(config, *options, user=USER):
    """The status, and what is printed without the path of the file. DIR is its directory, USER the user, WHY what
    libcurl says of a URL."""
    run = subprocess.run([BUILD / "tools/check/voxstat-check", "-f", config, "--user", user, *options],
                         capture_output=True, text=True, timeout=60, cwd=config.parent)
    assert run.stderr == ""
    text = re.sub(rf"^{config}: ?", "", run.stdout, flags=re.M).replace(str(config.parent), "DIR")
    text = re.sub(rf"(user|chown|chgrp|-o) {user}\b", r"\1 USER", re.sub(r"\d+ MiB", "N MiB", text))
    text = re.sub("(URL: )[^;]*", r"\1WHY", text)
    return run.returncode, text.splitlines()


@pytest.fixture
def write(tmp_path):
    """write(line, ...) makes a configuration that the daemon's user can run with, but for these lines."""
    (tmp_path / "stat").mkdir()
    (tmp_path / "sn").write_text("serial: ABC12\n")
    for path in (tmp_path, tmp_path / "stat", tmp_path / "sn"):
        path.chmod(0o777)

    def run(*lines, port=None):
        needed = {"qos_port": port or free_port(), "qos_stat_dir": "DIR/stat", "sn_file_path": "DIR/sn"}
        text = "\n".join([*lines, *(f"{key} = {value}" for key, value in needed.items()
                                    if not any(row.startswith(key) for row in lines))])
        (tmp_path / "voxstat.cfg").write_text(text.replace("DIR", str(tmp_path)), newline="")
        (tmp_path / "voxstat.cfg").chmod(0o644)
        return tmp_path / "voxstat.cfg"
    return run


@pytest.mark.parametrize("case", CASES, ids=[case.splitlines()[0] for case in CASES])
def test_findings(write, case):
    rows, findings, place = case.splitlines(), [], ""
    config = write(*(row if row[0] == "#" else row.replace(r"\r", "\r").replace(r"\ufeff", "\ufeff") for row in rows))
    for number, row in enumerate(rows, 1):
        if row.startswith("#$"):
            subprocess.run(row[2:].replace("USER", USER), shell=True, cwd=config.parent, check=True)
        elif row.startswith("#!"):
            findings.append(place + row[3:])
        else:
            place = f"{number}: "
    status, (*found, summary) = check(config)
    assert [row for row in found if "/var/log/current/" not in row] == findings     # few machines have it
    text = "\n".join(found)
    assert status == (2 if "error: " in text else 1 if "warning: " in text else 0)
    assert (summary == "no problems found") == (status == 0)


def test_what_keeps_the_daemon_from_starting(write):
    def first(config):
        return check(config)[1][0]

    with socket.socket(type=socket.SOCK_DGRAM) as holder:
        holder.bind(("", free_port()))
        port, name = holder.getsockname()[1], Path("/proc/self/comm").read_text().strip()
        assert first(write(port=port)) == (
            f"1: error: port {port} cannot be opened: Address already in use by {name}, and the daemon would exit at "
            'once; stop what "ss -lunp" shows there, or change qos_port')
    if sysctl("net/ipv4/ip_unprivileged_port_start") > 1:
        assert first(write(port=1)) == (
            "1: error: port 1 is not allowed for the user USER, and the daemon would exit at once; take a port above "
            "1023, or allow it in the unit as its comments say")
    assert first(write().parent / "none") == (
        "error: there is no such file, and the daemon would exit at once; name it with -f FILE")
    assert check(write().parent / "stat") == (2, [
        "error: this is a directory, and the daemon would run on its defaults; name the file in it", "1 error, 0 warnings"])
    assert first(Path("/dev/null")) == "error: this is not a regular file; name the configuration with -f FILE"


@pytest.mark.parametrize("row", expected("answers.txt").splitlines())
def test_post(write, web, row):
    """What the server answers, the status of the check, and what is found."""
    answer, status, finding = row.split(" ", 2)
    web.closing, web.status = answer == "none", int(answer) if answer != "none" else 0
    result, printed = check(write(f"elastic_url = {web.url}"), "--post")
    assert (result, printed[0]) == (int(status), f"1: {finding}")
    assert {tuple(row.split()[-2:]) for row in web.lines()} == {("ABC12", "Service_Packet")}
    assert 10240 <= len(web.requests[0][2]) < 10240 + 500
