"""The command line and the configuration file that it chooses."""
import subprocess

import pytest

from conftest import VOXSTAT, free_ports, report

USAGE = "Usage: voxstat [-f <filename>]\nIf filename is missing then default voxstat.cfg is assumed.\n"
CASES = [   # arguments, what stands before the usage text
    ("", "Failed to open config file: voxstat.cfg\n"),
    ("-f none", "Failed to open config file: none\n"),
    ("-f", ""),
    ("good.cfg", ""),
    ("-F good.cfg", ""),
    ("-f good.cfg extra", ""),
]


@pytest.mark.parametrize("arguments, reason", CASES)
def test_usage(tmp_path, arguments, reason):
    (tmp_path / "good.cfg").write_text(f"qos_port = {free_ports()}\nqos_stat_dir = {tmp_path}/stat\n")
    end = subprocess.run([VOXSTAT, *arguments.split()], cwd=tmp_path, capture_output=True, text=True, timeout=60)
    assert (end.returncode, end.stdout, end.stderr) == (0, reason + USAGE, "")
    assert not (tmp_path / "stat").exists()


def test_default_configuration_file(start):
    daemon = start(arguments=[])
    daemon.send(report())
    daemon.stop()
    assert daemon.text().count("\n") == 2
