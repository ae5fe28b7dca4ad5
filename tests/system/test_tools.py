"""The tools: voxstat-sim sends what it says, voxstat-plot finds and draws what stands in files made by hand."""
import re
import select
import shutil
import socket
import struct
import subprocess

import pytest
from conftest import BUILD, HEADERS, free_ports, line

DRAWS = pytest.mark.skipif(not shutil.which("gnuplot"), reason="no gnuplot")
START = 1700000000      # 03:43:20 on the 15th of November 2023 in the zone of the tests


def sim(*options):
    """What voxstat-sim prints, and the datagrams that it sends to the report and to the voice port."""
    port = free_ports()
    with socket.socket(type=socket.SOCK_DGRAM) as one, socket.socket(type=socket.SOCK_DGRAM) as two:
        one.bind(("127.0.0.1", port))
        two.bind(("127.0.0.1", port + 1))
        process = subprocess.Popen([BUILD / "tools/voxstat-sim", f"--port={port}", *options], stdout=subprocess.PIPE)
        got, ended, ready = {one: [], two: []}, False, []
        while ready or not ended:
            ended = process.poll() is not None
            ready = select.select([one, two], [], [], 0.05)[0]
            for each in ready:
                got[each].append(each.recv(65536))
        assert process.returncode == 0
        return process.communicate()[0].decode(), got[one], got[two]


def fields(datagram):
    return dict(row.removeprefix("QOS_EV_").split("=") for row in datagram.decode().split("\n"))


def test_sim_plays_calls():
    said, reports, voice = sim("--calls=5", "--bad=2", "--duration=60", "--speed=100")
    sums = [report for report in map(fields, reports) if "EOS" in report["TYPE"]]
    parts = [report for report in map(fields, reports) if "EOS" not in report["TYPE"]]
    records = 0
    for datagram in voice:
        while datagram:
            datagram, records = datagram[24 + struct.unpack(">I", datagram[:4])[0]:], records + 1
    assert [int(number) for number in re.findall(r"(\d+) (?:session|end|voice|bytes)", said)] == [
        len(parts), len(sums), len(voice), records, sum(map(len, reports + voice))]
    lossy = {part["GCID"] for part in parts if float(part["LOST_LOST_SINCE_LAST_REPORT_PERCENT"]) >= 1}
    assert (len(sums), len(lossy)) == (10, 2) and records > 0


def test_sim_sends_load():
    options = ("--first=7", "--count=50", "--rate=1000", "--burst=10")
    said, reports, _ = sim("--load=eos", *options)
    assert "sent=50 " in said and [(got["TYPE"], got["SSRC"], got["RTCP_CNAME"]) for got in map(fields, reports)] == [
        ("QOS_EOS_NEAREND", str(number), f"{number:05}") for number in range(7, 57)]
    voice = sim("--load=voice", *options)[2]
    assert [struct.unpack(">I", datagram[36:40])[0] for datagram in voice] == list(range(7, 57))


EOS = "QOS_EOS_NEAREND"


def call(gcid, event="QOS_NEAREND", seconds=0, loss=0, jitter=0, rtt=0):
    """A session's line, or the summary of a call of a minute."""
    now = START + seconds
    return line(event, GCID=gcid, TID="2.1", TIME_STAMP_SEC=now, FIRST_PACKET_SEC=now - 60, LAST_PACKET_SEC=now,
                LOST_PERCENT=loss, LOST_LOST_SINCE_LAST_REPORT_PERCENT=loss, JITTER_AVG=jitter, RTT_AVG=rtt)


@pytest.fixture
def plot(tmp_path):
    """Runs voxstat-plot on files with these texts; its picture, if it draws one, is the result's."""
    def run(*options, status=0, picture="it.svg", **texts):
        for name, text in texts.items():
            (tmp_path / name).write_text(text)
        options = options if "--list" in options else (*options, "-o", picture)
        done = subprocess.run([BUILD / "tools/voxstat-plot", *options, *texts], cwd=tmp_path, capture_output=True,
                              text=True)
        assert done.returncode == status, done.stderr
        done.picture = (tmp_path / picture).read_bytes().decode("latin-1") if "-o" in options else None
        return done
    return run


QUALITY = [  # worst first: GCID, loss, jitter, round trip; worked by hand: R and MOS with concealment and without
    ("deaf", 100, 1000, 2000, "-365.2", "1.00", "-380.4", "1.00"),
    ("lossy", 5, 0, 0, "77.4", "3.92", "42.1", "2.17"),
    ("slow", 0, 50, 400, "72.5", "3.71", "72.5", "3.71"),
    ("good", 0, 0, 0, "93.2", "4.41", "93.2", "4.41"),
]


def test_list_estimates_quality(plot):
    text = "".join(call(row[0], "QOS_NEAREND", 0, *row[1:4]) + call(row[0], seconds=5) for row in reversed(QUALITY))
    for options, place in (([], 4), (["--no-plc"], 6)):
        rows = plot("--list", "--unit=ms", *options, a=text).stdout.splitlines()
        assert [row.split()[:1] + row.split()[-5:] for row in rows[1:-1]] == [
            [row[0], f"{row[1]}.0", *map(str, row[2:4]), *row[place:place + 2]] for row in QUALITY]
    assert rows[-1].startswith("bad calls: 3 of 4 ")
    plain = plot("--list", "--loss=5.1", "--jitter=51", "--round-trip=401", a=text).stdout
    assert "bad calls: 1 of 4 " in plain and "MOS" not in plain


@pytest.mark.parametrize("options, calls", [    # a1 ended at 03:43:20, a2 a minute later, a3 the next day
    ([], "a1 a2 a3"), (["--call=a2"], "a2"), (["--from=2023-11-15 03:44"], "a2 a3"), (["--from=2023-Nov-16"], "a3"),
    (["--to=2023-11-15 03:43:21"], "a1 a2"), (["--to=2023-11-15"], ""),
])
def test_choices_over_several_files(plot, options, calls):
    files = {"live": HEADERS["QoS_Stat_Sessions_Summary.txt"] + call("a3", EOS, 86400) + call("a2", EOS, 60),
             "archive": call("a1", EOS) + call("none", EOS, -START)}
    done = plot("--list", *options, **files, status=0 if calls else 1)
    assert sorted(row.split()[0] for row in done.stdout.splitlines()[1:-1]) == calls.split()
    assert "reports without a time stamp, left out: 1\n" in done.stderr
    assert "other has session reports" in plot("--list", **files, other=call("a4"), status=1).stderr


@DRAWS
def test_names_unreadable_lines_and_draws_the_rest(plot):
    good = call("good", loss=1.5)
    done = plot(a=HEADERS["QoS_Stat.txt"] + good + "no stamp\n\n\n" + good[:70] + "\n" + good[:100] + "\n"
                + good[:40] + "x" + good[41:] + call("x", EOS) + good + good[:60])
    assert [row.split(": ")[0] for row in done.stderr.splitlines()] == [
        "a:3", "a:4-5", "a:6", "a:7", "a:8", "a:9", "a:11"]
    assert done.stdout == "it.svg: session reports: 2, calls: 1\n"
    assert "1.5 % at 03:43:20, good near end" in done.picture


@DRAWS
def test_pictures_say_what_is_known(plot):
    red = "rgb(214,39,40)"
    calls = call("bad", loss=1.0) + call("fine", "QOS_FAREND", loss=0.9)
    svg = plot(a=calls).picture
    assert red in svg and "Jitter, as reported" in svg and "MOS" not in svg
    svg = plot("--unit=ms", "--loss=1.1", a=calls).picture
    assert red not in svg.replace(" ", "") and all(text in svg for text in ("Jitter, ms", "Round trip, ms", "MOS, est"))
    svg = plot(a=call("sum", EOS) + call("sum", "QOS_EOS_FAREND", loss=1)).picture
    assert re.findall(r'fill="([^"]*)"[^>]*>\s*<text[^>]*> *sum +2.1 +(.*?) end ', svg) == [
        ("rgb(0,0,0)", "near"), (red, "far")]


@DRAWS
def test_summary_of_500_calls(plot):
    text = "".join(call(f"c{i}", f"QOS_EOS_{end}END", i, loss=i / 10)
                   for i in range(500) for end in ("NEAR", "FAR"))
    assert struct.unpack(">I", plot(a=text, picture="it.png").picture[20:24].encode("latin-1"))[0] <= 1600
    svg = plot(a=text).picture
    assert "the worst 40 are shown, 460 more are not" in svg
    assert re.findall(r" (c\d+) +2.1 +(near|far) end", svg) == [
        (f"c{i}", end) for i in range(499, 459, -1) for end in ("near", "far")]
