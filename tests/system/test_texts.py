"""What the documents say of the sources: every message is explained, every file that is named is there."""
import re
import shutil
import subprocess

import pytest

from conftest import ROOT

ROOMS = "app config log files net records filelog web"
FOLDERS = r"bench|docs|fleet|fuzz|packaging|scripts|tests|tools|\.ci"

STRING = r'"(?:\\.|[^"\\])*"'
STATEMENT = rf"(?:[^;\"]|{STRING})*?"
SAID = re.compile(rf"(?:\bLog(?:Str)?\(\s*DBG_([A-Z]+),|\bthrow [\w:]+\(|\bdbg_print_line\()({STATEMENT})\);")
NO_MESSAGE = re.compile("%|content-type")    # formats, column headers, a header of HTTP


def sources():
    for room in ROOMS.split():
        for path in set((ROOT / room).glob("*.*")) - {ROOT / "config/keys.h"}:      # its texts are units
            code = re.sub(r"//.*|#include.*|R\"\(.*?\)\"|(?:sizeof|throw) \".*?\"", "", path.read_text())
            yield re.sub(r'"\s*\n\s*"', "", code)       # a literal that goes on in the next line


def words(literal):
    """A literal as the manual page shows it: options and signals have one entry together."""
    text = literal[1:-1].replace(r"\n", " ").strip()
    return re.sub(r"\bSIG[A-Z]+", "SIGNAL", re.sub("CURLOPT_[A-Z]+", "OPTION", text))


def explains(entry, level, expression):
    """Whether this is the entry of the message that the expression composes; blanks do not count."""
    form = level
    for part in re.findall(rf"{STRING}|[^\"]+", expression):
        if part.startswith('"'):
            form += re.escape(words(part).replace(" ", ""))
        else:   # a call may compose more text, a variable stands for one
            form += ".*" if "(" in part else "(?:PATH|TEXT|N)?"
    return re.fullmatch(form, entry.replace(" ", ""))


def test_manual_explains_every_message():
    page = (ROOT / "packaging/voxstat.8").read_text().replace(r"\&", "")
    entries = [row[4:] for row in page.splitlines() if row.startswith(".It ")]
    said = [found for code in sources() for found in SAID.findall(code) if '"' in found[1]]
    texts = [words(literal) for code in sources() for literal in re.findall(STRING, code)]
    texts = [text for text in texts if re.search("[A-Za-z]{2}.* .*[A-Za-z]{2}", text) and not NO_MESSAGE.search(text)]
    missing = [found for found in said if not any(explains(entry, *found) for entry in entries)]
    missing += [text for text in texts if not any(text in entry for entry in entries)]
    assert missing == [] and len(texts) > 80


def test_named_files_exist():
    for document in [*ROOT.glob("*.md"), *ROOT.glob("docs/*.md")]:
        text = document.read_text()
        for link in re.findall(r"\]\((?!https?:)([^)#\s]+)[^)\s]*\)", text):
            assert (document.parent / link).exists(), document
        for name in re.findall(rf"(?<![\w/.-])(?:\./)?((?:{FOLDERS})/[\w./-]*\w)", text):
            assert (ROOT / name).exists(), document


@pytest.mark.skipif(not shutil.which("mandoc"), reason="no mandoc")
def test_manual_pages_are_clean():
    pages = sorted((ROOT / "packaging").glob("*.[1-8]"))
    remarks = subprocess.run(["mandoc", "-Tlint", *pages], capture_output=True, text=True).stdout
    assert [row for row in remarks.splitlines() if "outdated mandoc.db" not in row] == []
