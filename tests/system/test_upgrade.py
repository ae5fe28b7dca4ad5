"""Installs the first release, upgrades, downgrades, removes and purges, on a booted Debian system."""
import contextlib
import os
import re
import shutil
import subprocess
import threading
import time
from pathlib import Path

import pytest

from conftest import ROOT, report, wait_for

CONFIG, STATS = Path("etc/voxstat/voxstat.cfg"), Path("var/lib/voxstat/stats")
UNATTENDED = ["--force-confdef", "--force-confold"]
RESTART = 3     # seconds that a restart may take

pytestmark = pytest.mark.long


def run(*command, **options):
    return subprocess.run(command, check=True, capture_output=True, text=True, timeout=600, **options).stdout


def package_of(tree, environment=None):
    """Builds the packages of a source tree; returns the daemon's package."""
    return tree / [name for name in run(tree / "scripts/package", env=environment).split() if "tools" not in name][-1]


@pytest.fixture(scope="module")
def packages(tmp_path_factory):
    """The packages of the first release and of this tree. lintian checks only the second: newer versions report problems
    in the first."""
    place = tmp_path_factory.mktemp("packages")
    later = run("git", "log", "--format=%h", "-S## 1.1.0", "--", "CHANGELOG.md", cwd=ROOT).split()
    if not later:
        pytest.skip("no history of the first release")
    run("git", "worktree", "add", "--detach", place / "first", later[-1] + "^", cwd=ROOT)
    try:
        (place / "bin").mkdir()
        (place / "bin/lintian").symlink_to("/bin/true")
        first = shutil.copy(package_of(place / "first", {**os.environ, "PATH": f"{place}/bin:{os.environ['PATH']}"}), place)
    finally:
        run("git", "worktree", "remove", "--force", place / "first", cwd=ROOT)
    return {"1.0.0": first, "new": package_of(ROOT)}


class Machine:
    """A booted Debian of this machine's release in separate namespaces, with only a loopback network."""

    def __init__(self, root):
        self.root = root
        release = re.search("^VERSION_CODENAME=(.*)", Path("/etc/os-release").read_text(), re.M)[1]
        run(ROOT / "scripts/debian-root", release, run("dpkg", "--print-architecture").strip(), root, "--variant=minbase",
            "--include=systemd,libcurl4")

    def boot(self):
        self.log = self.root.with_suffix(".log")
        with self.log.open("w") as log:
            self.nspawn = subprocess.Popen(
                ["systemd-nspawn", "--quiet", "--register=no", "--keep-unit", "--private-network", "--boot",
                 f"--directory={self.root}"], stdout=log, stderr=log, stdin=subprocess.DEVNULL)
        wait_for(lambda: self.nspawn.poll() is not None or self.is_up(), 60)

    def is_up(self):
        children = Path(f"/proc/{self.nspawn.pid}/task/{self.nspawn.pid}/children").read_text().split()
        self.init = children[-1] if children else None
        return self.init and self.try_command("systemctl", "is-system-running", "--wait").stdout in (
            "running\n", "degraded\n")

    def try_command(self, *command, **options):
        return subprocess.run(["nsenter", "--target", self.init, "--all", "env", "-i", "LC_ALL=C.UTF-8",
                               "DEBIAN_FRONTEND=noninteractive", "PATH=/usr/sbin:/usr/bin:/sbin:/bin", *command],
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, timeout=120, **options)

    def run(self, *command, **options):
        done = self.try_command(*command, **options)
        assert done.returncode == 0, done.stdout
        return done.stdout

    def dpkg(self, package, *options, **others):
        shutil.copy(package, self.root / "opt/package.deb")
        return self.run("dpkg", *options, "--install", "/opt/package.deb", **others)

    def send(self, text):
        self.try_command("bash", "-c", "cat >/dev/udp/127.0.0.1/49999", input=text)

    def listens(self):
        return ":C350 " in self.run("cat", "/proc/net/udp")

    def serves(self):
        """The service is running the installed program."""
        wait_for(self.listens, 30)
        pid = self.run("systemctl", "show", "--property=MainPID", "--value", "voxstat").strip()
        self.run("cmp", f"/proc/{pid}/exe", "/usr/sbin/voxstat")

    def power_off(self):
        self.nspawn.terminate()
        self.nspawn.wait()


@pytest.fixture(scope="module")
def machine(tmp_path_factory):
    if os.geteuid() != 0 or not shutil.which("systemd-nspawn"):
        pytest.skip("booting a root needs root and systemd-nspawn")
    machine = Machine(tmp_path_factory.mktemp("machine") / "root")
    machine.boot()
    if machine.nspawn.poll() is not None:
        pytest.skip("systemd-nspawn does not boot here: " + machine.log.read_text()[-300:])
    yield machine
    machine.power_off()


@contextlib.contextmanager
def numbered_reports(machine, first):
    """Sends a report every few milliseconds during the block; yields the growing list of their times."""
    sent, over = [], threading.Event()

    def send():
        while not over.is_set():
            machine.send(report(RTCP_CNAME=f"n{first + len(sent)}"))
            sent.append(time.monotonic())
    sender = threading.Thread(target=send)
    sender.start()
    try:
        wait_for(lambda: len(sent) > 20, 20)
        yield sent
        arrived = len(sent)
        wait_for(lambda: len(sent) > arrived + 20, 20)
    finally:
        over.set()
        sender.join()


def snapshot(machine):
    """Owner, mode and contents of all files of the service."""
    return {path.name: (path.stat().st_uid, path.stat().st_gid, oct(path.stat().st_mode), path.read_bytes())
            for path in (machine.root / STATS).iterdir()}


def replace(machine, package, number, options=UNATTENDED, **others):
    """Installs a package while reports arrive. Existing data does not change, and only reports during the restart are
    lost: one gap of limited length. Returns the output of dpkg."""
    before = snapshot(machine)
    with numbered_reports(machine, number) as sent:
        output = machine.dpkg(package, *options, **others)
        machine.serves()
    machine.run("systemctl", "stop", "voxstat")
    after = snapshot(machine)
    for name, (*owner, text) in before.items():
        assert after[name][:3] == tuple(owner) and after[name][3].startswith(text), name
    have = {int(n) for n in re.findall(r" n(\d+)$", after["QoS_Stat.txt"][3].decode(), re.M)}
    missing = [n for n in range(number, number + len(sent)) if n not in have]
    if missing:
        gap = sent[missing[-1] - number] - sent[missing[0] - number]
        print(f"{len(missing)} of {len(sent)} reports lost in {gap:.2f} s")
        assert missing == list(range(missing[0], missing[-1] + 1)) and gap < RESTART
    machine.run("systemctl", "start", "voxstat")
    machine.serves()
    return output


def test_upgrade(packages, machine):
    machine.dpkg(packages["1.0.0"])
    machine.serves()
    config = (machine.root / CONFIG).read_text().replace("#log.default = 1", "log.default = 2")
    (machine.root / CONFIG).write_text(config)
    archives = [f"QoS_Stat_2026-01-0{day}_00-00-00.txt" for day in range(1, 5)]
    for name in archives:
        machine.run("runuser", "-u", "voxstat", "--", "cp", "/etc/hostname", f"/{STATS}/{name}")
    machine.run("systemctl", "restart", "voxstat")
    machine.serves()
    machine.send(report(RTCP_CNAME="first release"))
    wait_for(lambda: b"first release" in snapshot(machine).get("QoS_Stat.txt", [b""])[-1], 10)

    asked = replace(machine, packages["new"], 1000, [], input="N\n")      # on a terminal dpkg asks; N is the default
    assert "Configuration file '/etc/voxstat/voxstat.cfg'" in asked and "[default=N]" in asked
    assert (machine.root / CONFIG).read_text() == config
    replace(machine, packages["1.0.0"], 5000)
    assert (machine.root / CONFIG).read_text() == config
    replace(machine, packages["new"], 9000)
    assert (machine.root / CONFIG).read_text() == config
    assert set(archives) < set(snapshot(machine))

    machine.run("dpkg", "--remove", "voxstat")
    assert not machine.listens()
    assert (machine.root / CONFIG).read_text() == config and set(archives) < set(snapshot(machine))
    stats = f"/{STATS}"
    machine.run("mount", "--bind", stats, stats)      # cannot be removed, which must not make the purge fail
    machine.run("dpkg", "--purge", "voxstat")
    machine.run("umount", stats)
    machine.run("rmdir", stats, os.path.dirname(stats))
    left = run("find", machine.root, "-xdev", "-iname", "*voxstat*", "-not", "-path", "*/opt/*").split()
    assert left == []
    assert not (machine.root / "var/log/current").exists()
