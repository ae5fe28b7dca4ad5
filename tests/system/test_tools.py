"""The tools: voxstat-sim sends what it says, voxstat-plot finds and draws what stands in files made by hand."""
import re
import shutil
import socket
import struct
import subprocess
import time

import pytest
from conftest import BUILD, HEADERS, ROOT, free_ports, line, voice_record

START = 1700000000      # 03:43:20 on the 15th of November 2023 in the zone of the tests
KEYS = set(re.findall(r"^\.It QOS_EV_(\w+)", (ROOT / "packaging/voxstat-input.7").read_text(), re.M))


def run(tool, *options, **keywords):
    path = BUILD / "tools" / ("check" if tool == "voxstat-check" else "") / tool
    return subprocess.run([path, *options], capture_output=True, text=True, timeout=60, **keywords)


@pytest.mark.parametrize("tool, options, said", [
    ("voxstat-sim", "--port=0", 'voxstat-sim: --port does not take "0"; see --help'),
    ("voxstat-sim", "--first=4294967295 --count=2", "voxstat-sim: the numbers go up to 4294967295"),
    ("voxstat-plot", "--list -o it.png it", "voxstat-plot: --list draws no picture; see --help"),
    ("voxstat-check", "it", f'{BUILD}/tools/check/voxstat-check: what is "it"? Try --help.'),
])
def test_command_lines(tool, options, said):
    wrong, version, usage = run(tool, *options.split()), run(tool, "--version"), run(tool, "--help")
    assert (wrong.returncode, wrong.stdout, wrong.stderr) == (2, "", said + "\n")
    assert version.returncode == 0 and re.fullmatch(tool + r" [\d.]+\n", version.stdout)
    assert usage.returncode == 0 and usage.stdout.startswith(f"Usage: {tool} [")


def sim(*options):
    """What voxstat-sim says, and the datagrams that come to the report and to the voice port."""
    port, got = free_ports(), []
    with socket.socket(type=socket.SOCK_DGRAM) as one, socket.socket(type=socket.SOCK_DGRAM) as two:
        for number, each in enumerate((one, two)):
            each.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 20)    # all has room there
            each.bind(("127.0.0.1", port + number))
        done = run("voxstat-sim", f"--port={port}", *options)
        for each in (one, two):
            each.sendto(b"", each.getsockname())
            got.append(list(iter(lambda each=each: each.recv(65536), b"")))
    assert (done.returncode, done.stderr) == (0, "")
    return done.stdout, *got


def fields(datagram):
    """The values of a report by their keys; a time is one number, of microseconds."""
    got = dict(row.removeprefix("QOS_EV_").split("=") for row in datagram.decode().split("\n"))
    assert set(got) <= KEYS
    for key in [key[:-4] for key in got if key.endswith("_SEC")]:
        got[key] = int(got.pop(key + "_SEC")) * 10**6 + int(got.pop(key + "_USEC"))
    return got


def test_sim_plays_calls():
    """Three calls in 45 seconds, from second 5 i to 35 + 5 i; the second is bad, the first silent for 4 seconds."""
    said, reports, voice = sim("--calls=3", "--duration=45", "--interval=10", "--speed=30")
    told = re.fullmatch(
        rf"45 simulated seconds of 3 calls in (\S+) s, to 127.0.0.1 ports \d+ and \d+:\n +{len(reports) - 6} session reports\n"
        r" +6 end-of-session reports\n +80 voice datagrams with 400 voice records\n"
        rf" +{sum(map(len, reports + voice))} bytes\n", said)
    assert float(told[1]) >= 1.5
    streams = {}
    for report in map(fields, reports):
        streams.setdefault((report["GCID"], "NEAR" in report["TYPE"]), []).append(report)
    start = fields(reports[0])["TIME_STAMP"] - 10 * 10**6
    assert abs(time.time() - start / 10**6 - 45) < 30
    for call, near in [(call, near) for call in range(3) for near in (True, False)]:
        *parts, total = streams.pop((f"3-{1016 + call}", near))
        begin, end = 5 * call, 35 + 5 * call
        assert [part["TIME_STAMP"] for part in parts] == [
            start + second * 10**6 for second in range(begin + (10 if near else 15), end + 1, 10)]
        lost, jitter, rtt = ([int(part[key]) for part in parts]
                             for key in ("LOST_SINCE_LAST_REPORT", "JITTER_AVG", "RTT_AVG"))
        assert [float(part["LOST_LOST_SINCE_LAST_REPORT_PERCENT"]) for part in parts] == [number / 5 for number in lost]
        assert (max(lost) >= 5) == (call == 1)      # five packets of an interval are a percent
        same = {"GCID": f"3-{1016 + call}", "TID": f"2.{117 + call}", "FAR_END_IP": f"203.0.113.{5 + call}",
                "PORT": str(5004 + 2 * call), "SSRC": total["SSRC"], "RTCP_CNAME": "unit7@192.0.2.7"}
        assert all((same | {"PACKETS": "500"}).items() <= part.items() for part in parts)
        numbers = {"DURATION": 35, "PACKETS": 1750, "LOST": sum(lost), "LOST_PERCENT": f"{sum(lost) / 17.5:.1f}",
                   "JITTER_AVG": sum(jitter) // len(jitter), "JITTER_MAX": max(jitter),
                   "RTT_AVG": sum(rtt) // len(rtt), "RTT_MAX": max(rtt), "RTT_MIN": min(rtt)}
        assert total == same | {key: str(value) for key, value in numbers.items()} | {
            "TYPE": f"QOS_EOS_{'NEAR' if near else 'FAR'}END", "TIME_STAMP": start + end * 10**6,
            "FIRST_PACKET": start + begin * 10**6, "LAST_PACKET": start + end * 10**6 - 20000}
        if call == 0:
            packets = b"".join(voice[0 if near else 1::2])
            sequence, stamp = struct.unpack(">HI", packets[26:32])
            source, target = [("192.0.2.7", 16384), ("203.0.113.5", 5004)][::1 if near else -1]
            assert packets == b"".join(voice_record(
                struct.pack(">HHII", 0x8000, (sequence + i) % 2**16, (stamp + 160 * i) % 2**32, int(total["SSRC"]))
                + 160 * b"\xff", None, source, target, *divmod(start + 20000 * i, 10**6)) for i in range(200))
    assert streams == {}


def test_sim_varies_by_seed():
    one, other, again = ([[value for value in fields(report).values() if isinstance(value, str)] for report in
                          sim("--duration=20", "--speed=10000", f"--seed={seed}")[1]] for seed in (1, 2, 1))
    assert one == again != other


def test_sim_sends_load():
    for kind, event, sizes in (("reports", "QOS_NEAREND", [500]), ("eos", "QOS_EOS_NEAREND", range(600, 640))):
        said, reports, _ = sim(f"--load={kind}", "--first=7", "--count=20", "--rate=1", "--burst=20")
        assert [(got["TYPE"], got["SSRC"], got["RTCP_CNAME"]) for got in map(fields, reports)] == [
            (event, str(number), f"{number:05}") for number in range(7, 27)]
        seconds = re.fullmatch(rf"load={kind} first=7 count=20 sent=20 bytes={sum(map(len, reports))} refused=0 no_buffer=0 "
                               r"failed=0 seconds=(\S+) per_second=\d+\n", said)[1]
        assert float(seconds) < 10 and all(len(report) in sizes for report in reports)
    said, _, voice = sim("--load=voice", "--count=50", "--rate=100")
    assert float(re.search(r"seconds=(\S+)", said)[1]) >= 0.49
    assert [(datagram[:4], datagram[36:]) for datagram in voice] == [
        (struct.pack(">I", 160), struct.pack(">I", number) + 144 * b"\xff") for number in range(1, 51)]
    done = run("voxstat-sim", f"--port={free_ports()}", "--load=eos", "--count=4")      # nobody listens
    sent, refused = map(int, re.search(r" sent=(\d) .* refused=(\d) ", done.stdout).groups())
    assert done.returncode == 1 and refused > 0 and sent + refused == 4


EOS = "QOS_EOS_NEAREND"


def call(gcid, event="QOS_NEAREND", seconds=0, loss=0, jitter=0, rtt=0):
    """A session's line, or the summary of a call of a minute."""
    now = START + seconds
    return line(event, GCID=gcid, TID="2.1", TIME_STAMP_SEC=now, FIRST_PACKET_SEC=now - 60, LAST_PACKET_SEC=now,
                LOST_PERCENT=loss, LOST_LOST_SINCE_LAST_REPORT_PERCENT=loss, JITTER_AVG=jitter, RTT_AVG=rtt)


@pytest.fixture
def plot(tmp_path):
    """Runs voxstat-plot on files with these texts; its picture, if it draws one, is the result's."""
    def draw(*options, status=0, picture="it.svg", **texts):
        if "--list" not in options and not shutil.which("gnuplot"):
            pytest.skip("no gnuplot")
        for name, text in texts.items():
            (tmp_path / name).write_text(text)
        options = options if "--list" in options else (*options, "-o", picture)
        done = run("voxstat-plot", *options, *texts, cwd=tmp_path)
        assert done.returncode == status, done.stderr
        done.picture = (tmp_path / picture).read_bytes().decode("latin-1") if "-o" in options else None
        return done
    return draw


def texts(svg):
    """What is written in a picture, in its order, but for plain numbers; a "!" stands before what is red."""
    found = re.findall(r'fill="([^"]*)"[^>]*>\s*<text[^>]*>(.+?)</text>', svg)
    return ["!" * (colour == "rgb(214,39,40)") + " ".join(text.split()) for colour, text in found
            if text.strip("0123456789. ")]


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
        assert rows[0].split() == "GCID TID Far_End_IP Date Time Loss/% Jitter/ms RTT/ms R MOS".split()
        assert {len(row) for row in rows[:-1]} == {100}
        assert [row.split() for row in rows[1:-1]] == [
            [row[0], "2.1", "-", "2023-Nov-15", "03:43:20", f"{row[1]}.0", *map(str, row[2:4]), *row[place:place + 2]]
            for row in QUALITY]
    assert rows[-1] == "bad calls: 3 of 4 (loss 1 %, jitter 30 ms or round trip 300 ms and above)"
    plain = plot("--list", "--loss=5.1", "--jitter=51", "--round-trip=401", a=text).stdout
    assert plain.endswith("bad calls: 1 of 4 (loss 5.1 %, jitter 51 or round trip 401 and above)\n") and "MOS" not in plain


@pytest.mark.parametrize("options, calls", [    # a1 lasted to 03:43:20, a2 a minute longer, a3 to the next day
    ([], "a1 a2 a3"), (["--call=a2"], "a2"), (["--from=2023-11-15 03:44"], "a2 a3"), (["--from=2023-Nov-16"], "a3"),
    (["--to=2023-11-15 03:43:19"], "a1"), (["--to=2023-11-15"], ""),
])
def test_choices_over_several_files(plot, options, calls):
    files = {"live": HEADERS["QoS_Stat_Sessions_Summary.txt"] + call("a3", EOS, 86400) + call("a2", EOS, 60),
             "archive": call("a1", EOS) + call("none", EOS, -START)}
    done = plot("--list", *options, **files, status=0 if calls else 1)
    assert sorted(row.split()[0] for row in done.stdout.splitlines()[1:-1]) == calls.split()
    assert done.stderr == "voxstat-plot: reports without a time stamp, left out: 1\n" + (
        "" if calls else "voxstat-plot: no such reports in these files\n")
    assert plot("--list", **files, other=call("a4"), status=1).stderr == (
        "voxstat-plot: other has session reports, the files before it have end-of-session reports; give each kind a run "
        "of its own\n")


def test_names_unreadable_lines_and_draws_the_rest(plot):
    good = call("good", loss=1.5)
    done = plot(a=HEADERS["QoS_Stat.txt"] + good + "no stamp\n\n\n" + good[:70] + "\n" + good[:100] + "\n"
                + good[:40] + "x" + good[41:] + call("x", EOS) + good + good[:60])
    assert done.stderr.splitlines() == [f"a:{row}" for row in (
        "3: cannot be read: does not begin with a time stamp", "4-5: cannot be read: empty",
        "6: cannot be read: ends too early", "7: cannot be read: numbers are missing or are none",
        "8: cannot be read: columns are not in their places", "9: cannot be read: belongs in the other kind of file",
        "11: cannot be read: not complete yet")]
    assert done.stdout == "it.svg: session reports: 2, calls: 1\n"
    assert "1.5 % at 03:43:20, good near end" in done.picture


def test_picture_of_sessions(plot):
    rows = "".join(call("bad", loss=loss, jitter=40, rtt=seconds, seconds=seconds)
                   for seconds, loss in ((0, 2), (10, 2), (20, 3), (100, 2)))
    rows += call("fine", "QOS_FAREND", loss=0.9) + "".join(call(f"c{i}") for i in range(7))
    svg = plot("--unit=ms", a=rows, b="").picture
    assert texts(svg) == [
        "a + 1 2023-Nov-15 03:43:20 to 03:45:00 +0530", "!worst call: bad 2.1 to , loss up to 3.0 %, jitter up to 40 ms, "
        "round trip up to 100 ms, R down to 80.9", "bad calls: 1 of 9 (loss 1 %, jitter 30 ms or round trip 300 ms and "
        "above)", "Loss, %", "worst calls first (GCID TID)", "bad 2.1", "fine 2.1", "c0 2.1", "c1 2.1", "c2 2.1", "c3 2.1",
        "3 more calls", "near end", "far end", "bad from here on", "!3.0 % at 03:43:40, bad near end",
        "Jitter, ms", "!40 ms at 03:43:20, bad near end", "Round trip, ms", "!100 ms at 03:45:00, bad near end",
        "03:43:30", "03:43:45", "03:44:00", "03:44:15", "03:44:30", "03:44:45", "03:45:00", "MOS, estimated",
        "time of the report, +0530", "!4.1 at 03:43:40, bad near end"]
    worst = re.findall(r"<path stroke='rgb\(214, +39, +40\)' +d='([^']*)'", svg)
    assert [(path.count("M"), path.count(",")) for path in worst] == [(1, 2)] + 4 * [(2, 4)]     # a gap breaks the curve
    plain = texts(plot("--loss=3.1", "--jitter=41", a=rows).picture)
    assert {"3.0 % at 03:43:40, bad near end", "Jitter, as reported", "Round trip, as reported"} < set(plain)


def test_picture_of_summaries(plot):
    rows = call("sum", EOS, jitter=12) + call("sum", "QOS_EOS_FAREND", loss=1) + call("0", EOS, -START)
    assert texts(plot("--unit=ms", a=rows).picture) == [
        "03:42:30", "03:43:00", "a 2023-Nov-15 03:42:20 to 03:43:20 +0530", "bad calls: 1 of 1 (loss 1 %, jitter 30 ms or "
        "round trip 300 ms and above)", "jitter and round trip, ms: average/maximum",
        "reports without a time stamp, left out: 1", "GCID TID stream far end", "loss jitter round trip R MOS",
        "sum 2.1 near end", "0.0% 12/0 0/0 92.6 4.4", "!sum 2.1 far end", "!1.0% 0/0 0/0 89.6 4.3",
        "time from the first packet to the last one, +0530", "loss in %, 5 and more in red"]


def test_summary_of_500_calls(plot):
    text = "".join(call(f"c{i}", f"QOS_EOS_{end}END", i, loss=i / 10)
                   for i in range(500) for end in ("NEAR", "FAR"))
    assert struct.unpack(">I", plot(a=text, picture="it.png").picture[20:24].encode("latin-1"))[0] <= 1600
    svg = plot(a=text).picture
    assert "the worst 40 are shown, 460 more are not" in svg
    assert re.findall(r" (c\d+) +2.1 +(near|far) end", svg) == [
        (f"c{i}", end) for i in range(499, 459, -1) for end in ("near", "far")]
