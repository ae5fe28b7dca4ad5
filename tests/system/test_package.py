"""The Debian package and its unit."""
import re
import shutil
import subprocess
import sys
from pathlib import Path

import pytest

from conftest import ROOT, VOXSTAT

UNIT = ROOT / "packaging/voxstat.service"


@pytest.mark.skipif(not shutil.which("systemd-analyze"), reason="no systemd-analyze")
def test_unit():
    told = subprocess.run(["systemd-analyze", "security", "--offline=true", "--no-pager", UNIT], capture_output=True,
                          text=True).stdout
    assert float(re.search(r"exposure level for .*: ([\d.]+)", told)[1]) <= 1.3
    assert "\nExecStartPre=-/usr/sbin/voxstat-check " in UNIT.read_text()     # "-": never prevents a start
    assert int(re.search(r"^TimeoutStopSec=(\d+)", UNIT.read_text(), re.M)[1]) > 60     # the main loop's wait


def package(*options):
    """Builds the packages, with a clean result from lintian; returns the daemon's package."""
    built = subprocess.run([ROOT / "scripts/package", *options], capture_output=True, text=True)
    assert built.returncode == 0, built.stdout + built.stderr
    return ROOT / built.stdout.splitlines()[-1]


@pytest.mark.long
@pytest.mark.parametrize("arch, emulator", [(None, None), ("arm64", "qemu-aarch64"), ("armhf", "qemu-arm")])
def test_package(tmp_path, arch, emulator):
    """The packaged daemon writes the same files as the one of this build."""
    if emulator and not shutil.which(emulator):
        pytest.skip(f"no {emulator}")
    deb, root, program = package(*("--arch", arch) if arch else ()), tmp_path / "root", tmp_path / "packaged"
    if emulator:    # in the root with its libraries
        libraries = re.findall(r"lib[a-z0-9.+-]+", subprocess.check_output(["dpkg-deb", "-f", deb, "Depends"], text=True))
        release = re.search("^VERSION_CODENAME=(.*)", Path("/etc/os-release").read_text(), re.M)[1]
        subprocess.run([ROOT / "scripts/debian-root", release, arch, root, "--variant=extract",
                        "--include=" + ",".join(["base-files", *libraries])], check=True)
    subprocess.run(["dpkg-deb", "--extract", deb, root], check=True)
    settings = re.findall(r"^\w.*", (root / "etc/voxstat/voxstat.cfg").read_text(), re.M)
    assert [row.split()[0] for row in settings] == ["qos_stat_dir"]     # which the comparison replaces
    program.write_text(f"#!/bin/sh\nexec {f'{emulator} -L {root}' if emulator else ''} {root}/usr/sbin/voxstat \"$@\"\n")
    program.chmod(0o755)
    subprocess.run([sys.executable, ROOT / "scripts/compare_builds.py", tmp_path, VOXSTAT, program], check=True)
