"""The documents agree with the sources: keys, messages, options, columns, sizes and names of files."""
import re
import shutil
import subprocess

import pytest

from conftest import BUILD, HEADERS, ROOT, SESSION

ROOMS = "app config log files net records filelog web"
FOLDERS = r"bench|docs|fleet|fuzz|packaging|scripts|tests|tools|\.ci"
STRING = r'"(?:\\.|[^"\\])*"'
SAID = rf"(?:\bLog(?:Str)?\(\s*DBG_([A-Z]+),[^;\"]*)?({STRING})"    # the level precedes the first text of a message
NO_MESSAGE = "%|content-type"       # formats, column headers, an HTTP header


def text_of(name):
    return (ROOT / name).read_text()


def usage(tool):
    program = next(BUILD.glob(f"tools/**/{tool}"))
    return subprocess.run([program, "--help"], capture_output=True, text=True).stdout


def test_manual_explains_every_message():
    """Each text of a message is in an entry of its level; options share one entry, and so do signals."""
    page = text_of("packaging/voxstat.8").replace(r"\&", "")
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
    quoted = re.findall(r"`([^`|]+)` \(([A-Z]+)\)", text_of("docs/operations.md"))
    assert len(quoted) > 10
    for text, level in quoted:
        assert text in page and all(entry.startswith((level, text)) for entry in entries if text in entry), text


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
    "packaging/voxstat.cfg":
        r"# Default {default}(?: \(.*\))?\. (?i:{unit})[,:. ].*{bounds}.*\n(?:#{key} = ?{value}|{key} = .*)\n",
    "packaging/voxstat.cfg.5": r"\.It Cm {key}\n(?={entry}{time_or_size}){entry}Default(?:\n\.\w+)? {default}"
                               r"(?: ?\.|:.*)\n{entry}{bounds}",
    "docs/operations.md": r"\| `{key}` \| `?{default}`? \|",
}
ENTRY = r"(?:(?!\.It).*\n)*?.*"


@pytest.mark.parametrize("document", DOCUMENTS)
def test_document_has_each_key(document):
    """Compared with the output of voxstat-check --help, which comes from the table of keys."""
    rows = re.findall(r"^  (\S+) +(\S+) +(?:(\d+ (?:to \d+|or more)) )?\(([\w. ]+)\)$", usage("voxstat-check"), re.M)
    assert len(rows) >= 16
    for key, default, bounds, unit in rows:
        form = DOCUMENTS[document].format(
            key=re.escape(key), default=default, value="" if default == "unset" else default, entry=ENTRY,
            bounds="" if key == "rtp_logging" else bounds.replace(" ", r"\s"),
            unit=re.sub(r"name without (.*)", r'file name without "\1"', unit),
            time_or_size=unit if unit in ("seconds", "bytes") else "")
        assert re.search("^" + form, text_of(document), re.M), key


@pytest.mark.parametrize("page", ["voxstat-check.8", "voxstat-plot.1", "voxstat-sim.1"])
def test_manual_has_each_option(page):
    told = re.split(r"^  (?:-o, )?-(?=\S)", usage(page[:-2]), flags=re.M)[1:]
    entries = re.split(r"^\.It Fl (?:o , )?(?=\S)", text_of(f"packaging/{page}"), flags=re.M)[1:]
    entries = {entry.split()[0]: entry for entry in entries}
    assert {option.split()[0] for option in told} == set(entries)
    for option in told:
        entry = entries[option.split()[0]]
        for default in re.findall(r"\(default (\d+)\)", option):
            assert re.search(rf"default(?: is|,) {default}\b|\b{default} by default", entry), option


def test_tables_have_the_columns_and_sizes():
    text = text_of("docs/operations.md")
    for header, table in zip(HEADERS.values(), text.partition("## Columns")[2].split("Session summaries, in")):
        rows = re.findall(r"^\| \d+ \| (\d+) \| (\w+) \| (.*?) \|", table, re.M)
        assert len(rows) > 10
        for first, last, title in rows:
            cut = header[int(first):None if last == "end" else int(last) + 1]
            assert cut.split() == title.split() and header[int(first) - 1] in " \n", title
    limits = re.findall(r"_SIZE = (\d+);\n.*_ARCHIVES = (\d+);", text_of("config/limits.h"))
    assert len(limits) == 3
    for size, archives in limits:
        assert f" | {size} | 1 + {archives} | {int(size) * (1 + int(archives))} |\n" in text
    widths = re.findall(r"^\.It QOS_EV_(\w+) Ta text Ta \w+ \((\d+)\)", text_of("packaging/voxstat-input.7"), re.M)
    assert sorted(widths) == sorted(re.findall(r"\((\w+)\)\d+\.(\d+)s", SESSION))
