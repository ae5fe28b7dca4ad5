"""What voxstat-check finds in configurations, directories, ports and units, and posts."""
import grp
import os
import pwd
import re
import socket
import subprocess
from pathlib import Path

import pytest

from conftest import BUILD, expected, free_port, report, sysctl, wait_for

SELF = pwd.getpwuid(os.geteuid()).pw_name
USER = "nobody" if SELF == "root" else SELF
GROUP = grp.getgrgid(pwd.getpwnam(USER).pw_gid).gr_name
MOUNTS = subprocess.run(["unshare", "--mount", "true"], capture_output=True).returncode == 0
NO_MOUNTS = "no right to mount"
CASES = expected("findings.cfg").split("\n\n")[1:]


def check(config, *options, user=USER, first=""):
    """The exit status, and the output without the path of the file. DIR is its directory, USER the user, WHY libcurl's
    message about a URL. first: commands that run before it, in its mount namespace."""
    inside = ["unshare", "--mount", "sh", "-c", f'{first}; exec "$@"', "sh"] if first else []
    run = subprocess.run([*inside, BUILD / "tools/check/voxstat-check", "-f", config, "--user", user, *options],
                         capture_output=True, text=True, timeout=60, cwd=config.parent)
    assert run.stderr == ""
    text = re.sub(rf"^{config}: ?", "", run.stdout, flags=re.M).replace(str(config.parent), "DIR")
    for found, shown in ((r"\d+ MiB", "N MiB"), (rf"(user|chown|-o) {user}\b", r"\1 USER"),
                         (rf"chgrp {GROUP}\b", "chgrp USER"), ("(URL: )[^;]*", r"\1WHY")):
        text = re.sub(found, shown, text)
    return run.returncode, text.splitlines()


@pytest.fixture
def write(tmp_path):
    """write(line, ...) writes a configuration that is valid for the daemon's user, except for these lines."""
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


COMMAND = re.compile(r"[;:] ((?:chmod|chown|chgrp|install|mkdir|sed) .*?)(?:, or | if only |$)")


@pytest.mark.parametrize("case", CASES, ids=[case.splitlines()[0] for case in CASES])
def test_findings(write, case):
    """Each finding is as expected, and disappears after its command has been run."""
    rows, findings, place, mounts = case.splitlines(), [], "", ""
    config = write(*(row if row[0] == "#" else row.replace(r"\r", "\r").replace(r"\ufeff", "\ufeff") for row in rows))
    for number, row in enumerate(rows, 1):
        if row.startswith("#$"):
            subprocess.run(row[2:].replace("USER", USER), shell=True, cwd=config.parent, check=True)
        elif row.startswith("#%"):
            mounts = row[2:]
        elif row.startswith("#!"):
            findings.append(place + row[3:])
        else:
            place = f"{number}: "
    if mounts and not MOUNTS:
        pytest.skip(NO_MOUNTS)
    status, (*found, summary) = check(config, first=mounts)
    assert [row for row in found if "/var/log/current/" not in row] == findings     # missing on most machines
    text = "\n".join(found)
    assert status == (2 if "error: " in text else 1 if "warning: " in text else 0)
    assert (summary == "no problems found") == (status == 0)
    for finding in filter(COMMAND.search, findings if SELF == "root" else ()):
        command = COMMAND.search(finding)[1].replace("DIR", str(config.parent))
        command = command.replace("chgrp USER", f"chgrp {GROUP}").replace("USER", USER)
        subprocess.run(command, shell=True, check=True)
        assert finding not in check(config)[1]


def test_what_keeps_the_daemon_from_starting(write):
    def first(config):
        return check(config)[1][0]

    with socket.socket(type=socket.SOCK_DGRAM) as holder:
        holder.bind(("", free_port()))
        port, name = holder.getsockname()[1], Path("/proc/self/comm").read_text().strip()
        assert first(write(port=port)) == (
            f"1: error: port {port} cannot be opened: Address already in use by {name}, so the daemon would exit "
            'immediately; stop the program that "ss -lunp" shows, or change qos_port')
    if sysctl("net/ipv4/ip_unprivileged_port_start") > 1:
        assert first(write(port=1)) == (
            "1: error: the user USER may not open port 1, so the daemon would exit immediately; use a port above "
            "1023, or allow it in the service's unit as its comments explain")
    assert first(write().parent / "none") == (
        "error: the file does not exist, so the daemon would exit immediately; name the configuration with -f FILE")
    assert check(write().parent / "stat") == (2, [
        "error: this is a directory, so the daemon would use its defaults; name the configuration with -f FILE",
        "1 error, 0 warnings"])
    assert first(Path("/dev/null")) == "error: this is not a regular file; name the configuration with -f FILE"


STRICT = "ProtectSystem=strict\nReadWritePaths=-/var/log/current "
DENIED = ("error: the service's unit does not let it {} DIR/stat/; run systemctl edit voxstat, add [Service] "
          "ReadWritePaths=DIR/stat/, and restart it")
UNITS = [   # case, properties of the unit, commands to run first, lines of the configuration, findings
    ("not allowed", STRICT, "", ["qos_stat_dir = DIR/stat"], [DENIED.format("write to")]),
    ("allowed", STRICT + "DIR/stat", "", ["qos_stat_dir = DIR/stat"], []),
    ("allowed above, by another drop-in", STRICT + "/x DIR", "", ["qos_stat_dir = DIR/stat"], []),
    ("its name only begins like an allowed one", STRICT + "DIR/sta", "", ["qos_stat_dir = DIR/stat"],
     [DENIED.format("write to")]),
    ("a link leads out", STRICT + "DIR/in", "mkdir in; ln -s ../stat in/link", ["qos_stat_dir = DIR/in/link"],
     [DENIED.format("write to").replace("/stat", "/in/link")]),
    ("missing too", STRICT, "rmdir stat", ["qos_stat_dir = DIR/stat"], [
        "warning: DIR/stat/ does not exist; the daemon would create it with mode 0744, so no other user could enter "
        "it; create it: install -d -o USER -m 750 DIR/stat/", DENIED.format("write to")]),
    ("only ProtectHome protects /home", "ProtectSystem=strict\nProtectHome=no", "", ["qos_stat_dir = /home"], [
        "error: /home/ cannot be written by the user USER: Permission denied; chown USER /home/ && chmod 750 /home/ if "
        "only the daemon uses it, otherwise name another directory"]),
    ("relative", STRICT, "", ["qos_stat_dir = stat"], [
        "warning: qos_stat_dir = stat depends on the directory in which the daemon starts; write a path that starts "
        "with '/'"]),
    ("hidden", "InaccessiblePaths=-DIR/stat", "", ["qos_stat_dir = DIR/stat"], [DENIED.format("see")]),
    ("hidden serial number", "InaccessiblePaths=DIR/own", "mkdir -m 777 own; cp sn own",
     ["sn_file_path = DIR/own/sn"], [
        "warning: DIR/own/sn cannot be read by the user USER: Permission denied, so reports without a serial number of "
        "their own get 0; the service's unit hides it; set sn_file_path to a file elsewhere, or run "
        "systemctl edit voxstat, add [Service] ProtectHome=read-only, and restart it"]),
    ("low port", "AmbientCapabilities=cap_net_bind_service", "", ["qos_port = 1"], []),
    ("private /tmp", "PrivateTmp=yes", "", ["qos_stat_dir = DIR/stat"], [
        "warning: the packaged service has a private /tmp and /var/tmp, which are deleted when it stops; name a "
        "directory elsewhere"]),
]


@pytest.fixture
def unit(tmp_path, monkeypatch):
    """unit(properties) sets what systemctl prints about the service."""
    def tell(properties):
        (tmp_path / "bin").mkdir(exist_ok=True)
        (tmp_path / "bin/systemctl").write_text(f"#!/bin/sh\ncat <<END\nUser={USER}\n{properties}\nEND\n")
        (tmp_path / "bin/systemctl").chmod(0o755)
        monkeypatch.setenv("PATH", f"{tmp_path}/bin", prepend=":")
    return tell


@pytest.mark.parametrize("_, properties, commands, lines, findings", UNITS, ids=[row[0] for row in UNITS])
def test_unit(write, unit, _, properties, commands, lines, findings):
    config = write(*lines)
    subprocess.run(commands, shell=True, cwd=config.parent, check=True)
    unit(properties.replace("DIR", str(config.parent)))
    assert check(config)[1][:-1] == [f"1: {finding}" for finding in findings]


@pytest.mark.skipif(not MOUNTS, reason=NO_MOUNTS)
def test_view_of_the_daemon(start, unit):
    """The check uses the mounts of the running daemon, not its own, and finds two daemons in one directory."""
    daemon = start(serial="ABC12", launch=["unshare", "--mount", "bash", "-c", 'mkdir -p stat; mount --bind stat stat; '
                                           'mount -o remount,bind,ro stat; exec "$@"', "bash"])
    config = daemon.directory / "voxstat.cfg"
    line, stat = f"{config.read_text().split('qos_stat_dir')[0].count(chr(10)) + 1}: ", str(daemon.stat).rstrip("/")
    def found():
        return [row for row in check(config, user=SELF)[1] if "note: port" not in row]
    assert found() == [line + "error: DIR/stat/ is read-only; restart the daemon if its unit has been changed to allow "
                       "the directory, otherwise mount -o remount,rw, or name another directory", "1 error, 0 warnings"]
    subprocess.run(["nsenter", "--target", str(daemon.process.pid), "--mount", "--root",
                    "mount", "-o", "remount,bind,rw", stat], check=True)
    assert found() == ["no problems found"]
    daemon.send(report())
    wait_for(lambda: daemon.read("QoS_Stat.txt"), what="for the file")
    other = start(serial="ABC12", qos_stat_dir=daemon.stat)
    twice = (f": error: another daemon, process {daemon.process.pid}, also writes {stat}/QoS_Stat.txt; give each "
             "daemon its own directory")
    assert twice in "\n".join(check(other.directory / "voxstat.cfg", user=SELF)[1])
    other.stop()
    unit("MainPID=0")
    other.directory.parent.chmod(0o755)
    assert twice in "\n".join(check(other.directory / "voxstat.cfg")[1])


def test_post_has_the_environment_of_the_service(write, unit, web, monkeypatch):
    proxy = f"http://127.0.0.1:{web.server_port}"
    config = write("elastic_url = http://server.invalid/x")
    unit(f"Environment=A=b http_proxy={proxy}")
    assert "note: the post succeeded; the server answers 200: {}" in check(config, "--post")[1][-2]
    assert web.requests[0][0] == "http://server.invalid/x"
    assert "IPAddressDeny" not in str(check(config, "--post"))
    unit(f"IPAddressDeny=0.0.0.0/0 ::/0\nIPAddressAllow=127.0.0.0/8\nEnvironment=http_proxy={proxy}")
    assert "note: IPAddressDeny in the service's unit blocks the daemon, but not this post" in str(check(config, "--post"))
    monkeypatch.setenv("http_proxy", proxy)
    unit("Environment=")
    assert "code 6" in check(config, "--post")[1][-2]


@pytest.mark.parametrize("row", expected("answers.txt").splitlines())
def test_post(write, web, row):
    """Each row: status of the answer, exit status of the check, finding."""
    answer, status, finding = row.split(" ", 2)
    web.closing, web.status = answer == "none", int(answer) if answer != "none" else 0
    result, printed = check(write(f"elastic_url = {web.url}"), "--post")
    assert (result, printed[0]) == (int(status), f"1: {finding}")
    assert {tuple(row.split()[-2:]) for row in web.lines()} == {("ABC12", "Service_Packet")}
    assert 10240 <= len(web.requests[0][2]) < 10240 + 500
