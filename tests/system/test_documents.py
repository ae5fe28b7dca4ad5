"""The documents agree with the sources: keys with default and range, messages, names of files."""
import re
import shutil
import subprocess

import pytest

from conftest import BUILD, ROOT

ROOMS = "app config log files net records filelog web"
FOLDERS = r"bench|docs|fleet|fuzz|packaging|scripts|tests|tools|\.ci"
STRING = r'"(?:\\.|[^"\\])*"'
SAID = rf"(?:\bLog(?:Str)?\(\s*DBG_([A-Z]+),[^;\"]*)?({STRING})"    # the level precedes the first text of a message
NO_MESSAGE = "%|content-type"       # formats, column headers, an HTTP header


def test_manual_explains_every_message():
    """Each text of a message is in an entry of its level; options share one entry, and so do signals."""
    page = (ROOT / "packaging/voxstat.8").read_text().replace(r"\&", "")
    entries = [row[4:] for row in page.splitlines() if row.startswith(".It ")]
    paths = [path for room in ROOMS.split() for path in (ROOT / room).glob("*.*") if path.name != "keys.h"]
    texts = []
    for path in paths:
        code = re.sub(r"//.*|#include.*|R\"\(.*?\)\"|(?:sizeof|throw) \".*?\"", "", path.read_text())
        for level, literal in re.findall(SAID, re.sub(r'"\s*\n\s*"', "", code)):     # a string may span lines
            text = re.sub(r"\bSIG[A-Z]+", "SIGNAL", re.sub("CURLOPT_[A-Z]+", "OPTION", literal[1:-1]))
            texts.append((level, text.replace(r"\n", " ").strip()))
    texts = [(level, text) for level, text in texts
             if re.search("[A-Za-z]{2}.* .*[A-Za-z]{2}", text) and not re.search(NO_MESSAGE, text)]
    assert [(level, text) for level, text in texts
            if not any(entry.startswith(level) and text in entry for entry in entries)] == []
    assert len(texts) > 80


def test_named_files_exist():
    for document in [*ROOT.glob("*.md"), *ROOT.glob("docs/*.md")]:
        text = document.read_text()
        for link in re.findall(r"\]\((?!https?:)([^)#\s]+)[^)\s]*\)", text):
            assert (document.parent / link).exists(), document
        for name in re.findall(rf"(?<![\w/.-])(?:\./)?((?:{FOLDERS})/[\w./-]*\w)", text):
            assert (ROOT / name).exists(), document
    packaged = (ROOT / "packaging/debian/voxstat.docs").read_text().split()
    for page in ROOT.glob("packaging/*.[1-8]"):
        for name in re.findall(r"/usr/share/doc/voxstat/(?!examples)([\w.-]+\w)", page.read_text()):
            assert f"docs/{name}" in packaged, page


@pytest.mark.skipif(not shutil.which("mandoc"), reason="no mandoc")
def test_manual_pages_are_clean():
    pages = sorted((ROOT / "packaging").glob("*.[1-8]"))
    remarks = subprocess.run(["mandoc", "-Tlint", *pages], capture_output=True, text=True).stdout
    assert [row for row in remarks.splitlines() if "outdated mandoc.db" not in row] == []


DOCUMENTS = {
    "packaging/voxstat.cfg": r"# Default {default}(?: \(.*\))?\. .*{bounds}.*\n(?:#{key} = ?{value}|{key} = .*)\n",
    "packaging/voxstat.cfg.5":
        r"\.It Cm {key}\n(?:(?!\.It).*\n)*?.*Default(?:\n\.\w+)? {default}(?: ?\.|:.*)\n(?:(?!\.It).*\n)*?.*{bounds}",
    "docs/operations.md": r"\| `{key}` \| `?{default}`? \|",
}


@pytest.mark.parametrize("document", DOCUMENTS)
def test_document_has_each_key(document):
    """Compared with the output of voxstat-check --help, which comes from the table of keys."""
    text = subprocess.run([BUILD / "tools/check/voxstat-check", "--help"], capture_output=True, text=True).stdout
    rows = re.findall(r"^  (\S+) +(\S+) +(?:(\d+ (?:to \d+|or more)) )?\([\w. ]+\)$", text, re.M)
    assert len(rows) >= 16
    for key, default, bounds in rows:
        value = "" if default == "unset" else default
        form = DOCUMENTS[document].format(key=re.escape(key), default=default, value=value,
                                          bounds="" if key == "rtp_logging" else bounds.replace(" ", r"\s"))
        assert re.search("^" + form, (ROOT / document).read_text(), re.M), key
