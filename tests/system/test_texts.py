"""What the documents say of the sources: every message is explained, every file that is named is there."""
import re
import shutil
import subprocess

import pytest

from conftest import ROOT

ROOMS = "app config log files net records filelog web"
PAGES = sorted((ROOT / "packaging").glob("voxstat*.[1-8]"))
DOCUMENTS = [*ROOT.glob("*.md"), *ROOT.glob("docs/*.md")]

STRING = r'"(?:\\.|[^"\\])*"'
STATEMENT = rf"(?:[^;\"]|{STRING})*?"
SAID = re.compile(rf"(?:\bLog(?:Str)?\(\s*DBG_([A-Z]+),|\bthrow [\w:]+\(|\bdbg_print_line\()({STATEMENT})\);")
NO_MESSAGE = re.compile("%|content-type")    # formats, column headers, a header of HTTP


def sources():
    for room in ROOMS.split():
        for path in set((ROOT / room).glob("*.*")) - {ROOT / "config/keys.h"}:      # its texts are units
            code = re.sub(r"^\s*(?://|#include).*|\s//.*|R\"\(.*?\)\"", "", path.read_text(), flags=re.M)
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
            form += ".*" if "(" in part else "(?:PATH|TEXT)?"
    return re.fullmatch(form, entry.replace(" ", ""))


def test_manual_explains_every_message():
    page = (ROOT / "packaging/voxstat.8").read_text().partition(".Sh DIAGNOSTICS")[2].replace(r"\&", "")
    entries = [row[4:] for row in page.splitlines() if row.startswith(".It ")]
    missing = []
    count = 0
    for code in sources():
        for level, expression in SAID.findall(code):
            if '"' in expression and not any(explains(entry, level, expression) for entry in entries):
                missing.append(f"{level} {' '.join(expression.split())}")
        for text in map(words, re.findall(STRING, code)):
            if re.search("[A-Za-z]{2}.* .*[A-Za-z]{2}", text) and not NO_MESSAGE.search(text):
                count += 1
                if not any(text in entry for entry in entries):
                    missing.append(text)
    assert not missing, "\n".join(missing)
    assert count > 80


def test_named_files_exist():
    missing = []
    for document in DOCUMENTS:
        text = document.read_text()
        links = [document.parent / link for link in re.findall(r"\]\((?!https?:)([^)#\s]+)[^)\s]*\)", text)]
        named = [ROOT / name for name in re.findall(
            r"(?<![\w/.-])(?:\./)?((?:bench|docs|fleet|fuzz|packaging|scripts|tests|tools|\.ci)/[\w./-]*\w)", text)]
        missing += [f"{document.name}: {path}" for path in links + named if not path.exists()]
    assert missing == []


@pytest.mark.skipif(not shutil.which("mandoc"), reason="no mandoc")
def test_manual_pages_are_clean():
    remarks = subprocess.run(["mandoc", "-Tlint", *PAGES], capture_output=True, text=True).stdout
    assert [row for row in remarks.splitlines() if "outdated mandoc.db" not in row] == []
