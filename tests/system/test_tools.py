"""voxstat-sim sends what it says, and voxstat-plot lists and draws the contents of handmade files."""
import csv
import re
import shutil
import signal
import socket
import struct
import subprocess
import time

import pytest
from conftest import BUILD, HEADERS, ROOT, expected, free_port, line

START = 1700000000      # 03:43:20 on the 15th of November 2023 in the zone of the tests


def run(tool, *options, **keywords):
    path = BUILD / "tools" / ("check" if tool == "voxstat-check" else "") / tool
    return subprocess.run([path, *options], capture_output=True, text=True, timeout=60, **keywords)


@pytest.mark.parametrize("tool, options, said", [
    ("voxstat-sim", "--port=0", 'voxstat-sim: invalid value "0" for --port; see --help'),
    ("voxstat-sim", "--load=eos --first=4294967295 --count=2",
     "voxstat-sim: the last number is greater than 4294967295; see --help"),
    ("voxstat-sim", "--load=eos --calls=1", "voxstat-sim: --calls cannot be combined with --load; see --help"),
    ("voxstat-sim", "--bad=7", "voxstat-sim: --bad 7 is more than --calls 6; see --help"),
    ("voxstat-sim", "--count=1", "voxstat-sim: --count needs --load; see --help"),
    ("voxstat-plot", "--list -o it.png it", "voxstat-plot: --list cannot be combined with --output; see --help"),
    ("voxstat-check", "it", 'voxstat-check: unexpected argument "it"; see --help'),
])
def test_command_lines(tool, options, said):
    wrong, version, usage = run(tool, *options.split()), run(tool, "--version"), run(tool, "--help")
    assert (wrong.returncode, wrong.stdout, wrong.stderr) == (2, "", said + "\n")
    assert version.returncode == 0 and re.fullmatch(tool + r" [\d.]+\n", version.stdout)
    assert usage.returncode == 0 and usage.stdout.startswith(f"Usage: {tool} [")


def sim(*options):
    """The output of voxstat-sim, and the datagrams that arrive on the report port and on the voice port."""
    port, got = free_port(), []
    with socket.socket(type=socket.SOCK_DGRAM) as one, socket.socket(type=socket.SOCK_DGRAM) as two:
        for number, each in enumerate((one, two)):
            each.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 20)    # large enough for everything
            each.bind(("127.0.0.1", port + number))
            each.settimeout(60)
        done = run("voxstat-sim", f"--port={port}", *options)
        for each in (one, two):
            each.sendto(b"", each.getsockname())
            got.append(list(iter(lambda each=each: each.recv(65536), b"")))
    assert (done.returncode, done.stderr) == (0, "")
    return done.stdout, *got


def fields(datagram):
    """The values of a report by key; each time is a number of microseconds."""
    got = dict(row.removeprefix("QOS_EV_").split("=") for row in datagram.decode().split("\n"))
    for key in [key[:-4] for key in got if key.endswith("_SEC")]:
        got[key] = int(got.pop(key + "_SEC")) * 10**6 + int(got.pop(key + "_USEC"))
    return got


def packets_of(voice):
    """The records of voice datagrams by SSRC: when captured in microseconds, RTP sequence number and time stamp."""
    streams = {}
    for datagram in voice:
        for at in range(0, len(datagram), 24 + 172):
            size, *ends, seconds, micros, flags, sequence, stamp, ssrc = struct.unpack(">IIIHHIIHHII", datagram[at:at + 36])
            assert (size, flags, {0xC0000207, 0xCB007105} >= set(ends[:2])) == (172, 0x8000, True)
            streams.setdefault(str(ssrc), []).append((seconds * 10**6 + micros, sequence, stamp))
    return streams


def test_sim_plays_calls():
    """Three calls in 45 seconds, from second 5 i to 35 + 5 i. The second is bad; the first has a silent interval."""
    said, reports, voice = sim("--calls=3", "--duration=45", "--interval=10", "--speed=30")
    told = re.fullmatch(
        rf"45 simulated seconds of 3 calls in (\S+) s, to 127.0.0.1 ports \d+ and \d+:\n +{len(reports) - 6} session "
        rf"reports\n +6 session summaries\n +{len(voice)} voice datagrams with 998 voice records\n"
        rf" +{sum(map(len, reports + voice))} bytes\n", said)
    assert float(told[1]) >= 1.5
    start = fields(reports[0])["TIME_STAMP"] - 10 * 10**6
    assert abs(time.time() - start / 10**6 - 45) < 30
    rows = [{key: (value - start) / 10**6 if isinstance(value, int) else value for key, value in fields(report).items()}
            for report in reports]
    text = "".join(" ".join(f"{key}={value}" for key, value in row.items()) + "\n" for row in rows)
    assert text == expected("calls.txt")
    said, other, _ = sim("--duration=20", "--speed=10000", "--seed=2")
    assert f"SSRC={rows[0]['SSRC']}\n".encode() not in b"".join(other)
    assert re.match(r"20 simulated seconds of 6 calls .*:\n +24 session", said)


def test_sim_sends_what_it_reports():
    """The records have the loss and the mean jitter (RFC 3550) of the report on their interval."""
    jitters = []
    for options in ("--calls=1", "--calls=3 --seed=5"):
        _, reports, voice = sim(*options.split(), "--duration=60", "--speed=100")
        streams = packets_of(voice)
        assert len(streams) == 2
        for ssrc, packets in streams.items():
            report, = [row for row in map(fields, reports) if row["SSRC"] == ssrc and row["TYPE"].count("_") == 1
                       and 0 < row["TIME_STAMP"] - packets[0][0] <= 5 * 10**6]
            first, jitter, total = packets[0], 0, 0
            for one, two in zip(packets, packets[1:]):
                sent = ((two[2] - one[2] + 2**31) % 2**32 - 2**31) / 8
                jitter += (abs((two[0] - one[0]) / 1000 - sent) - jitter) / 16
                total += jitter
            numbers = {(packet[1] - first[1]) % 2**16 for packet in packets}
            assert len(packets) == len(numbers) == 250 - int(report["LOST_SINCE_LAST_REPORT"]) and max(numbers) == 249
            assert {(packet[2] - first[2]) % 2**32 for packet in packets} == {160 * number for number in numbers}
            assert abs(total / len(packets) - int(report["JITTER_AVG"])) < 0.5
            jitters.append(int(report["JITTER_AVG"]))
    assert min(jitters) < 20 < 50 < max(jitters)


@pytest.mark.parametrize("options, said", [
    ("--interval=1 --speed=4", r"stopped after \d of 300 simulated seconds of 6 calls in .*\n +\d session reports\n"),
    ("--load=eos --rate=1 --burst=5", "load=eos first=1 count=1000 sent=5 "),
])
def test_sim_says_what_it_did_when_stopped(options, said):
    with socket.socket(type=socket.SOCK_DGRAM) as reader:
        reader.bind(("127.0.0.1", 0))
        with subprocess.Popen([BUILD / "tools/voxstat-sim", f"--port={reader.getsockname()[1]}", *options.split()],
                              stdout=subprocess.PIPE, text=True) as stopped:
            reader.recv(2000)
            stopped.send_signal(signal.SIGINT)
            assert re.match(said, stopped.communicate(timeout=10)[0]) and stopped.returncode == 1


def test_sim_sends_load():
    for kind, sizes in (("reports", [500]), ("eos", range(600, 640))):
        said, reports, _ = sim(f"--load={kind}", "--first=7", "--count=20", "--rate=1", "--burst=20")
        seconds = re.fullmatch(rf"load={kind} first=7 count=20 sent=20 bytes={sum(map(len, reports))} refused=0 no_buffer=0 "
                               r"failed=0 seconds=(\S+) per_second=\d+\n", said)[1]
        assert float(seconds) < 10 and all(len(report) in sizes for report in reports)
        for number, report in enumerate(map(fields, reports), 7):
            assert (report.pop("SSRC"), report.pop("RTCP_CNAME")) == (str(number), f"{number:05}")
            assert abs(time.time() - report.pop("TIME_STAMP") / 10**6) < 30 and int(report.pop("RTT_MIN")) == 20
            assert " ".join(f"{key}={value}" for key, value in report.items()) + "\n" in expected("load.txt")
    said, _, voice = sim("--load=voice", "--count=50", "--rate=100")
    assert float(re.search(r"seconds=(\S+)", said)[1]) >= 0.49
    assert [(datagram[:4], datagram[36:]) for datagram in voice] == [
        (struct.pack(">I", 160), struct.pack(">I", number) + 144 * b"\xff") for number in range(1, 51)]


def test_sim_counts_what_is_refused():
    load = run("voxstat-sim", f"--port={free_port()}", "--load=eos")
    sent, refused = map(int, re.match(r"load=eos first=1 count=1000 sent=(\d+) .* refused=(\d+) ", load.stdout).groups())
    assert load.returncode == 1 and refused > 0 and sent + refused == 1000
    calls = run("voxstat-sim", f"--port={free_port()}", "--duration=20", "--speed=10000")
    assert calls.returncode == 1 and re.search(
        r" ([1-9]\d*) datagrams could not be sent: \1 refused, 0 for lack of buffers, 0 for other reasons\n"
        "no program listens on one of the ports: is voxstat running with this qos_port\\?\n$", calls.stdout)


EOS = "QOS_EOS_NEAREND"
FIGURES = "loss_percent", "jitter_ms", "round_trip_ms"


def call(gcid, event="QOS_NEAREND", seconds=0, loss=0, jitter=0, rtt=0):
    """The line of a session report, or of the summary of a one-minute call."""
    now = START + seconds
    return line(event, GCID=gcid, TID="2.1", TIME_STAMP_SEC=now, FIRST_PACKET_SEC=now - 60, LAST_PACKET_SEC=now,
                LOST_PERCENT=loss, LOST_LOST_SINCE_LAST_REPORT_PERCENT=loss, JITTER_AVG=jitter, RTT_AVG=rtt)


@pytest.fixture
def plot(tmp_path):
    """Runs voxstat-plot on files with these texts. The result contains the picture, if there is one."""
    def draw(*options, status=0, picture="it.svg", **texts):
        if "--list" not in options and not shutil.which("gnuplot"):
            pytest.skip("no gnuplot")
        for name, text in texts.items():
            (tmp_path / name).write_text(text, encoding="latin-1")
        options = options if "--list" in options else (*options, "-o", picture)
        done = run("voxstat-plot", *options, *texts, cwd=tmp_path)
        assert done.returncode == status, done.stderr
        done.picture = (tmp_path / picture).read_bytes().decode("latin-1") if "-o" in options else None
        return done
    return draw


def texts(svg):
    """The sorted texts of a picture, without plain numbers; "!" marks red ones. Sorted because the order depends on the
    release of gnuplot."""
    found = re.findall(r'fill="([^"]*)"[^>]*>\s*<text[^>]*>(.+?)</text>', svg)
    return sorted("!" * (colour == "rgb(213,94,0)") + " ".join(text.split()) for colour, text in found
                  if text.strip("0123456789. "))


def test_list_estimates_quality(plot):
    """The worst call first, equally bad ones by name. The values are computed by hand from the formula."""
    with open(ROOT / "tests/system/data/speech_quality.csv", encoding="ascii") as table:
        quality = list(csv.DictReader(table))
    text = "".join(call(row["call"], "QOS_NEAREND", 0, *(float(row[key]) for key in FIGURES))
                   + call(row["call"], seconds=5) for row in quality)
    worst = "deaf nearzero tail burst slow pastknee knee typical perfect".split()
    quality.sort(key=lambda row: worst.index(row["call"]))
    for options, kind in (([], ""), (["--no-plc"], "_no_plc")):
        rows = plot("--list", "--unit=ms", *options, a=text).stdout.splitlines()
        assert rows[0].split() == "GCID TID Far_End_IP Date Time Loss/% Jitter/ms RTT/ms R MOS".split()
        assert {len(row) for row in rows[:-1]} == {100}
        assert [row.split() for row in rows[1:-1]] == [
            [row["call"], "2.1", "-", "2023-Nov-15", "03:43:20", f"{float(row['loss_percent']):.1f}", row["jitter_ms"],
             row["round_trip_ms"], f"{float(row['r' + kind]):.1f}", f"{float(row['mos' + kind]):.2f}"] for row in quality]
    assert rows[-1] == "bad calls: 7 of 9 (thresholds: loss 1 %, jitter 30 ms, round trip 300 ms)"
    plain = plot("--list", "--loss=5.1", "--jitter=51", "--round-trip=401", a=text).stdout
    assert plain.endswith("bad calls: 3 of 9 (thresholds: loss 5.1 %, jitter 51, round trip 401)\n") and "MOS" not in plain


@pytest.mark.parametrize("options, calls", [    # a1 lasted to 03:43:20, a2 a minute longer, a3 to the next day
    ([], "a1 a2 a3"), (["--call=a2"], "a2"), (["--from=2023-11-15 03:44"], "a2 a3"), (["--from=2023-Nov-16"], "a3"),
    (["--to=2023-11-15 03:43:19"], "a1"), (["--to=2023-11-15"], ""),
])
def test_choices_over_several_files(plot, options, calls):
    files = {"live": HEADERS["QoS_Stat_Sessions_Summary.txt"] + call("a3", EOS, 86400) + call("a2", EOS, 60),
             "archive": call("a1", EOS) + call("none", EOS, -START)}
    done = plot("--list", *options, **files, status=0 if calls else 1)
    assert sorted(row.split()[0] for row in done.stdout.splitlines()[1:-1]) == calls.split()
    assert done.stderr == "voxstat-plot: reports left out for lack of a time stamp: 1\n" + (
        "" if calls else "voxstat-plot: the files contain no matching reports\n")
    assert plot("--list", **files, other=call("a4"), status=1).stderr == (
        "voxstat-plot: other contains session reports, but the previous files contain session summaries; run "
        "voxstat-plot once for each kind\n")


def test_list_shows_hostile_texts(plot):
    """The daemon cuts and aligns bytes, so half a character may remain; the table aligns the visible width."""
    rows = {"Zoë 電": "Zoë 電", "\x1b[31m\x07": r"\x1b[31m\x07", "sechs äöü": r"sechs ä\xc3",
            "\u202eabc\u009b": r"\u202eabc\u009b"}
    files = {f"a{number}": call(name.encode().decode("latin-1")) for number, name in enumerate(rows)}
    table = [row[:row.index("2.1")] for row in plot("--list", **files).stdout.splitlines()[1:-1]]
    assert sorted(map(str.strip, table)) == sorted(rows.values())
    assert len({len(text) + text.count("電") for text in table}) == 1


def test_reads_a_pipe():
    """A time without a day is the latest one before the last report; reports from the far future do not count."""
    text = call("a1") + call("a2", seconds=60) + call("a3", seconds=86400) + call("far", seconds=10**9)
    for options, calls in (("", "a1 a2 a3 far"), ("--from=03:00 --to=04:00:00", "a3"), ("--from=03:44", "a2 a3 far"),
                           ("--to=03:44", "a1"), ("--from=03:44 --to=03:43:20", "a2 a3")):
        done = run("voxstat-plot", "--list", *options.split(), "-", input=text)
        assert [row.split()[0] for row in done.stdout.splitlines()[1:-1]] == calls.split(), options


def test_names_unreadable_lines_and_draws_the_rest(plot):
    good = call("good", loss=1.5)
    done = plot(a=HEADERS["QoS_Stat.txt"] + good + "no stamp\n\n\n" + good[:70] + "\n" + good[:100] + "\n"
                + good[:40] + "x" + good[41:] + call("x", EOS) + good + good[:60])
    assert done.stderr.splitlines() == [f"a:{row}" for row in (
        "3: cannot be read: does not start with a time stamp", "4-5: cannot be read: empty",
        "6: cannot be read: too short", "7: cannot be read: numbers are missing or invalid",
        "8: cannot be read: columns are misplaced", "9: cannot be read: belongs to the other kind of file",
        "11: cannot be read: incomplete")]
    assert done.stdout == "it.svg: session reports: 2, calls: 1\n"
    assert "1.5 % at 03:43:20, good near end" in done.picture


def test_plot_says_what_it_lacks(tmp_path):
    (tmp_path / "it").write_text(call("it"))
    for option, said in (("none", "none: No such file or directory"), (
            "it", "cannot start gnuplot: No such file or directory; install gnuplot-nox, or use --list")):
        done = run("voxstat-plot", option, cwd=tmp_path, env={"PATH": ""})
        assert (done.returncode, done.stderr) == (1, f"voxstat-plot: {said}\n")
    assert not (tmp_path / "it.png").exists()


def test_picture_of_sessions(plot):
    rows = "".join(call("bad", loss=loss, jitter=40, rtt=seconds, seconds=seconds)
                   for seconds, loss in ((0, 2), (10, 2), (20, 3), (30, 2), (40, 2), (100, 2)))
    rows += call("fine", "QOS_FAREND", loss=0.9) + "".join(call(f"c{i}") for i in range(7))
    svg = plot("--unit=ms", a=rows, b="").picture
    assert texts(svg) == sorted(expected("session_picture.txt").splitlines())
    assert re.findall(r"(\w+) +2.1 *<", svg) == "bad fine c0 c1 c2 c3".split()
    worst = re.findall(r"<path stroke='rgb\(213, +94, +0\)' +d='([^']*)'", svg)
    assert [(path.count("M"), path.count(",")) for path in worst] == [(1, 2)] + 4 * [(2, 6)]     # a gap breaks the curve
    plain = texts(plot("--loss=3.1", "--jitter=41", a=rows).picture)
    assert {"3.0 % at 03:43:40, bad near end", "Jitter, as reported", "Round trip, as reported"} < set(plain)


def test_picture_of_many_sessions(plot):
    """The picture has no more points than pixels, and reports from a wrong clock do not compress the others."""
    text = "".join(call(f"c{i % 100}", seconds=i // 100, jitter=i % 5) for i in range(60000)) + call("far", seconds=10**9)
    svg = plot(a=text + call("bad", loss=2), b=call("early", seconds=-10**8)).picture
    assert {"97 more calls, as a range", "reports outside the period shown (see --from and --to): 2"} < set(texts(svg))
    assert "2023-Nov-15 03:43:20 to 03:53:19" in svg and len(svg) < 2 * 10**6


def test_picture_of_summaries(plot):
    midnight = 73000
    rows = call("sum", EOS, midnight + 20, jitter=12) + call("sum", "QOS_EOS_FAREND", midnight + 20, loss=1)
    rows += call("undated", EOS, -START)
    assert texts(plot("--unit=ms", a=rows).picture) == sorted(expected("summary_picture.txt").splitlines())


def test_summary_of_500_calls(plot):
    text = "".join(call(f"c{i}", f"QOS_EOS_{end}END", i, loss=i / 10)
                   for i in range(500) for end in ("NEAR", "FAR"))
    assert struct.unpack(">I", plot(a=text, picture="it.png").picture[20:24].encode("latin-1"))[0] <= 1600
    svg = plot(a=text).picture
    assert "shown: the worst 40, not shown: 460" in svg
    assert re.findall(r" (c\d+) +2.1 +(near|far) end", svg) == [
        (f"c{i}", end) for i in range(499, 459, -1) for end in ("near", "far")]
