"""One table of the keys, as voxstat-check shows it; the documents name each key with the same default and range."""
import re
import subprocess

import pytest

from conftest import BUILD, ROOT

HELP = subprocess.run([BUILD / "tools/check/voxstat-check", "--help"], capture_output=True, text=True).stdout
ROWS = re.findall(r"^  (\S+) +(\S+) +(?:(\d+ (?:to \d+|or more)) )?\([\w. ]+\)$", HELP.partition("\n\n  Key")[2], re.M)


def packaged():
    """The configuration: "# Default 30. Seconds, 0 or more." before "#key = 30"."""
    for default, rest, key, value in re.findall(r"^# Default (\S+?)(?: \(.*?\))?\. (.*)\n#?(\S+) =(.*)$",
                                                (ROOT / "packaging/voxstat.cfg").read_text(), re.M):
        if key != "qos_stat_dir":   # the package sets another
            assert value.strip() == default.replace("unset", ""), key
        yield key, default, rest


def manual():
    """The manual page: "Default 30.", or a path or a name on the next line, behind .It Cm KEY."""
    page = (ROOT / "packaging/voxstat.cfg.5").read_text()
    for key, text in re.findall(r"^\.It Cm (\S+)\n(.*?)(?=^\.(?:It|El))", page, re.M | re.S):
        default, rest = re.search(r"Default(?:\n\.(?:Pa|Dq))? (\S+?)[.:]?(?: \.| .*)?$(.*)", text, re.M | re.S).groups()
        yield key, default, rest.replace(" ;", ";")


def index():
    for key, default in re.findall(r"^\| `(\S+)` \| `?([^`|]+?)`? \|", (ROOT / "docs/operations.md").read_text(), re.M):
        if key in [row[0] for row in ROWS]:
            yield key, default, None


@pytest.mark.parametrize("document", [packaged, manual, index])
def test_document_has_each_key(document):
    assert len(ROWS) == 16
    described = {key: (default, rest) for key, default, rest in document()}
    assert list(described) == [row[0] for row in ROWS]
    for key, default, bounds in ROWS:
        assert described[key][0] == default, key
        if bounds and key != "rtp_logging" and document != index:
            assert bounds in described[key][1].replace("\n", " "), key
