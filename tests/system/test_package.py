"""The Debian package and its unit."""
import re
import shutil
import subprocess

import pytest

from conftest import ROOT, report

UNIT = ROOT / "packaging/voxstat.service"


@pytest.mark.skipif(not shutil.which("systemd-analyze"), reason="no systemd-analyze")
def test_unit():
    told = subprocess.run(["systemd-analyze", "security", "--offline=true", "--no-pager", UNIT], capture_output=True,
                          text=True).stdout
    assert float(re.search(r"exposure level for .*: ([\d.]+)", told)[1]) <= 1.3
    assert "\nExecStartPre=-/usr/sbin/voxstat-check " in UNIT.read_text()     # "-": a finding does not keep the daemon
    assert int(re.search(r"^TimeoutStopSec=(\d+)", UNIT.read_text(), re.M)[1]) > 60     # the main loop's wait


@pytest.mark.long
def test_package(start, tmp_path):
    built = subprocess.run([ROOT / "scripts/package"], capture_output=True, text=True)     # lintian has its say there
    assert built.returncode == 0, built.stdout + built.stderr
    subprocess.run(["dpkg-deb", "--extract", ROOT / built.stdout.splitlines()[-1], tmp_path / "root"], check=True)
    daemon = start(program=tmp_path / "root/usr/sbin/voxstat")
    daemon.send(report())
    daemon.stop()
    assert daemon.text().count("\n") == 2
