"""What the documents say of the sources: each key, with its default and range; each message; files that are there."""
import re
import shutil
import subprocess

import pytest

from conftest import BUILD, ROOT

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


# --- the keys, as voxstat-check shows its one table of them ---------------------------------------

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
