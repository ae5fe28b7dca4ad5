"""voxstat-check --live: its output about a running daemon, for people and for monitoring systems."""
import json
import os
import pwd
import re
import shutil
import signal
import subprocess
import time
from pathlib import Path

import pytest

from conftest import BUILD, PCAP_HEADER, ROOT, expected, free_port, pcap_record, report, sysctl, voice_record, wait_for

CHECK = BUILD / "tools/check/voxstat-check"
SELF = pwd.getpwuid(os.geteuid()).pw_name
SUMMARY = "QoS_Stat_Sessions_Summary"
MANUAL = (ROOT / "packaging/voxstat-check.8").read_text()
KINDS = re.findall(r"^\.It Li (\w+)$", MANUAL, re.M)     # of losses
RULES = ROOT / "packaging/examples/voxstat-alerts.yml"
IN_A_FILE = ["bash", "-c", 'exec "$@" >>log', "bash"]
DUMP = "RTP_Streams_No_Voice.pcap"

LOSSES = [      # a message as in voxstat(8), with 400 for each N; its level; the counter, and how much it adds
    ("WARN QoS WRITE OVERFLOW: Nmessages lost", "", "text_lines", 400),
    ("WARN VOICE DUMP WRITE OVERFLOW: Nmessages lost", "", "voice_records", 400),
    ("WARN LOG FILE WRITE OVERFLOW: Nmessages lost", "", "log_lines", 400),
    ("ERROR Unable to transmitt http - curl_easy_perform failed: N", "", "batches_failed", 1),
    ("Failed to open PATH", "ERROR ", "blocks_unopened", 1),
    ("Failed to retrieve file size of PATH", "ERROR ", "blocks_unopened", 1),
    ("Failed to write header to the PATH", "ERROR ", "blocks_unopened", 1),
    ("DEBUG TEXT (N) on writing to file PATH", "", "blocks_unwritten", 1),
    ("ERROR TEXT (N) on rotation (::rename) of PATH to PATH; deleted file instead.", "", "rotations", 1),
    ("ERROR Failed to allocate _http_log_string event for QoS packet...", "", "allocations", 1),
    ("ERROR Failed to allocate _log_string event for QoS packet...", "", "untyped_reports", 1),
    ("ERROR Unable to create new thread for FileLogger. Error: N", "", "components", 1),
    ("ERROR PATH Unable to open: TEXT", "", "components", 1),
    ("WARN Dropped the rest of a voice datagram: no whole record at offset N, N bytes left", "", "voice_datagram_ends", 1),
    ("WARN ignoring what follows the first N characters of a QoS report", "", "report_ends", 1),
]
ONE_REPORT = " WebClient OVERFLOW\n"
NOT_LOSSES = ["WARN ignoring unknown key: QoS WRITE OVERFLOW: 7", "DEBUG QoS WRITE OVERFLOW: 7",
              "TRACE HTTP/1.1 399 OK", "WARN HTTP/1.1 500", "INFO Failed to open /x"]


def check(daemon, *options, within=()):
    """The exit status and the output, with DIR for the directory, for a daemon or for a directory of one."""
    directory = getattr(daemon, "directory", daemon)
    run = subprocess.run([*within, CHECK, "-f", directory / "voxstat.cfg", "--user", SELF, "--live", *options],
                         capture_output=True, text=True, timeout=60, cwd=directory)
    return run.returncode, run.stdout.replace(str(directory), "DIR") + run.stderr


def samples(text):
    """{(name, the label's value): number}, as Prometheus reads them."""
    return {(name, label): int(number) for name, label, number
            in re.findall(r'^(\w+)(?:{\w+="(.*)"})? (\d+)$', text, re.M)}


def lost(daemon, **options):
    found = samples(check(daemon, "--format", "prometheus", **options)[1])
    return {label: number for (name, label), number in found.items() if name == "voxstat_lost_total" and number}


def entry(message, age=0):
    """A line of the log."""
    level, text = message.split(" ", 1)
    return time.strftime("%b-%d %H:%M:%S.000", time.localtime(time.time() - age)) + f"  [{level}] [0x1f] {text}\n"


def logged_losses():
    manual = (ROOT / "packaging/voxstat.8").read_text()
    for message, level, _, _ in LOSSES:
        assert f"\n.It {message}\n" in manual
        text = re.sub(r"\bN(?=messages)|\bN\b", "400", message).replace("first 400", "first 1023").replace("PATH", "/x")
        yield level + text
    yield from ("ERROR std::bad_alloc", "TRACE HTTP/1.1 400 Bad Request\r", "TRACE HTTP/2 503")
    yield "WARN WebClient OVERFLOW: 400"    # the total includes the reports logged before


EXPECTED = {what: sum(count for _, _, kind, count in LOSSES if kind == what) for _, _, what, _ in LOSSES}
EXPECTED |= {"batches_refused": 2, "allocations": 2, "posted_reports": 402}


def drop_reports(daemon, count):
    """Sends until the kernel has dropped this many more."""
    goal = daemon.sockets()[0][1] + count
    daemon.process.send_signal(signal.SIGSTOP)
    while daemon.sockets()[0][1] < goal:
        daemon.send(report())
    daemon.process.send_signal(signal.SIGCONT)
    wait_for(daemon.drained, what="for the rest")


def test_every_format(start):
    """A daemon that was stopped for a while, whose file has been moved, and whose log contains every loss."""
    daemon = start(serial="ABC12", log__default=0, launch=IN_A_FILE)
    config, begun, limit = daemon.directory / "voxstat.cfg", time.time(), sysctl("net/core/rmem_default")
    os.utime(config, (0, 0))
    status, text = check(daemon)
    assert status == 0 and "note: nothing was lost, according to the receive queues and the log\n" in text
    assert re.fullmatch(r"VOXSTAT OK - no problems found \|( '[^'=|]+'=\d+[csB]?)+\n", check(daemon, "--nagios")[1])
    drop_reports(daemon, 3)
    wait_for(lambda: daemon.read("QoS_Stat.txt"), what="for the file")
    (daemon.stat / "QoS_Stat.txt").rename(daemon.stat / "taken")
    os.utime(config, (begun + 60, begun + 60))
    for name in (f"{SUMMARY}.txt", f"{SUMMARY}_2026-01-31_23-59-59.txt", f"{SUMMARY}_other.txt"):
        (daemon.stat / name).write_text("2023-Nov-15 03:43:20.999 +0530 12345\n")
    with (daemon.directory / "log").open("a") as log:
        for message in logged_losses():
            log.write(entry(message, 86400) + ONE_REPORT + entry(message) + 2 * ONE_REPORT)
        log.write("".join(map(entry, NOT_LOSSES)) + "QoS WRITE OVERFLOW: 7\n")

    status, text = check(daemon)
    since = re.search(r"since (\S+ \S+)", text)[1]
    assert status == 2 and abs(time.mktime(time.strptime(since, "%Y-%m-%d %H:%M:%S")) - begun) < 20
    for value, name in ((r"(?<!\n) +", " "), (since, "TIME"), (r"\d+ MiB", "N MiB"),
                        (rf"\b{daemon.process.pid}\b", "PID"),
                        (rf"\b{daemon.port}\b", "QOS"), (rf"\b{daemon.port + 1}\b", "VOICE"),
                        (rf"\b{limit}\b", "LIMIT"), (rf"\b{limit // 1280}\b", "LIMIT/1280")):
        text = re.sub(value, name, text)
    assert re.sub("DIR/voxstat.cfg: ?", "", text) == expected("live.txt")

    status, text = check(daemon, "--format", "json")
    found = json.loads(text)
    numbers = found["metrics"]
    assert (status, found["status"], found["configuration"]) == (2, 2, "DIR/voxstat.cfg")
    assert numbers["voxstat_receive_queue_dropped_datagrams_total"] == {str(daemon.port): 3, str(daemon.port + 1): 0}
    assert {what: count for what, count in numbers["voxstat_lost_total"].items() if count} == EXPECTED
    assert numbers["voxstat_posts_failed_total"] == 3
    assert numbers["voxstat_file_last_line_timestamp_seconds"] == {f"{SUMMARY}.txt": 1700000000}
    assert [row["text"] for row in found["findings"] if row["severity"] == "error"] == [
        row[7:] for row in expected("live.txt").splitlines() if row.startswith("error: ")]

    status, text = check(daemon, "--format", "prometheus")
    found_there = samples(text)
    for name, value in numbers.items():
        for label, number in (value if isinstance(value, dict) else {"": value}).items():
            assert found_there.pop((name, label)) == number or "free" in name     # other programs write there too
    assert (status, found_there) == (2, {})
    if shutil.which("promtool"):
        linted = subprocess.run(["promtool", "check", "metrics"], input=text, capture_output=True, text=True)
        assert (linted.returncode, linted.stderr) == (0, "")
    described = re.findall(r"^\.It Cm (voxstat_\w+)(?: Ns Brq Cm (\w+))?$", MANUAL, re.M)
    assert set(described) == set(re.findall(r"^(voxstat_\w+)(?:{(\w+)=.*)? \d+$", text, re.M))
    assert [*found] == re.findall(r"^\.It Cm (\w+)$", MANUAL.partition("Sh JSON")[2].partition(".Sh")[0], re.M)
    assert KINDS == [*numbers["voxstat_lost_total"]]

    daemon.stop()
    status, text = check(daemon, "--nagios")
    assert status == 2 and text.startswith(f"VOXSTAT CRITICAL - no daemon listens on ports {daemon.port} and ")
    assert samples(check(daemon, "--format", "prometheus")[1])["voxstat_up", ""] == 0


def test_since(start):
    """Old losses do not count. Earlier runs record when the kernel dropped datagrams."""
    daemon = start(serial="ABC12", launch=IN_A_FILE)
    os.utime(daemon.directory / "voxstat.cfg", (0, 0))

    def counted(*options):
        found = json.loads(check(daemon, "--format", "json", *options)[1])["metrics"]
        return (found["voxstat_receive_queue_dropped_datagrams_total"][str(daemon.port)],
                found["voxstat_lost_total"]["text_lines"])

    with (daemon.directory / "log").open("a") as log:
        log.write(entry("WARN QoS WRITE OVERFLOW: 7"))
    drop_reports(daemon, 2)
    assert counted("--since", "1h", "--state", "state") == (2, 7)
    wait_for(lambda: counted("--since", "1s", "--state", "state") == (0, 0), what="for the second to pass")
    assert check(daemon, "--nagios", "--since", "1s", "--state", "state")[0] == 0
    drop_reports(daemon, 1)
    assert [counted("--since", since, "--state", "state")[0] for since in ("1s", "1h")] == [1, 3]
    assert counted("--since", "1s") == (3, 0) and counted() == (3, 7)


def stat_line(minute):
    return f"2026-Nov-24 19:{minute:02}:00.500 -0100    3-1016\n"


DUMPED = [pcap_record(voice_record(b"x", seconds=second)) for second in (1700000000, 1700000060)]
FILES = {      # contents of the files, and the times of their last lines
    "text": ({"QoS_Stat.txt": "header\n" + stat_line(1) + stat_line(2) + "broken"}, {"QoS_Stat.txt": 1795550520}),
    "a block was lost": ({"QoS_Stat.txt": stat_line(1) + stat_line(2)[9:]}, {"QoS_Stat.txt": 1795550460}),
    "just rotated": ({"QoS_Stat.txt": "header\n", "QoS_Stat_2026-01-31_23-59-59.txt": stat_line(1),
                      "QoS_Stat_2026-02-01_23-59-59.txt": stat_line(2)}, {"QoS_Stat.txt": 1795550520}),
    "dump": ({DUMP: PCAP_HEADER + b"".join(DUMPED)}, {DUMP: 1700000060}),
    "dump with a lost block": ({DUMP: PCAP_HEADER + DUMPED[0] + b"\xff" * 8 + bytes(991) + DUMPED[1]}, {DUMP: 1700000000}),
    "dump with a length that is none": ({DUMP: PCAP_HEADER + DUMPED[0] + bytes(8) + b"\xff" * 8}, {DUMP: 1700000000}),
    "nothing": ({DUMP: PCAP_HEADER, "QoS_Stat.txt": ""}, {}),
}


@pytest.mark.parametrize("what", FILES)
def test_last_line(tmp_path, what):
    files, times = FILES[what]
    (tmp_path / "voxstat.cfg").write_text(f"qos_stat_dir = {tmp_path}\nqos_port = {free_port()}\n")
    for name, content in files.items():
        (tmp_path / name).write_bytes(content if isinstance(content, bytes) else content.encode())
    found = json.loads(check(tmp_path, "--format", "json")[1])["metrics"]
    assert found["voxstat_file_last_line_timestamp_seconds"] == times


JOURNAL = """mount -t tmpfs tmpfs /run && mkdir -p /run/systemd/journal /run/log/journal && exec "$0" """
BLIND = """mount -t tmpfs tmpfs /run && mount -t tmpfs tmpfs /var/log && exec "$@" """
JOURNALD = shutil.which("systemd-journald", path="/usr/lib/systemd:/lib/systemd")


@pytest.mark.skipif(os.geteuid() != 0 or not JOURNALD, reason="needs root and systemd-journald")
def test_journal(start, tmp_path):
    """Only the log of this daemon counts, and the number of messages that journald has suppressed."""
    journald = subprocess.Popen(["setpriv", "--pdeathsig", "KILL", "unshare", "-m", "sh", "-c", JOURNAL, JOURNALD])
    try:
        within = ["nsenter", "-m", "-t", str(journald.pid)]
        wait_for(Path(f"/proc/{journald.pid}/root/run/systemd/journal/stdout").exists, what="for the journal")
        log = ["sh", "-c", 'cd "$0" && exec systemd-cat "$@"', tmp_path]
        other, daemon = (start(directory=tmp_path, serial="ABC12", launch=[*within, *log]) for _ in range(2))
        os.utime(tmp_path / "voxstat.cfg", (0, 0))
        assert check(daemon, "--nagios", within=within)[0] == 0
        other.send("QOS_EV_TYPE=QOS_OTHER")
        daemon.send("QOS_EV_TYPE=QOS_OTHER", report(RTCP_CNAME="x" * 1024))
        subprocess.run([*within, "logger", "--journald"], check=True, text=True,
                       input=f"MESSAGE=Suppressed 42 messages from voxstat.service\nOBJECT_PID={daemon.process.pid}\n")
        losses = {"journal_lines": 42, "untyped_reports": 1, "report_ends": 1}
        wait_for(lambda: lost(daemon, within=within) == losses, 20, "for the log")
        blind = ["unshare", "-m", "sh", "-c", BLIND, "sh"]
        assert "warning: the log could not be read" in check(daemon, within=blind)[1]
    finally:
        journald.kill()
        journald.wait()


ALERTS = [      # problem, series, values per minute, alert
    ("nothing", 'voxstat_lost_total{what="text_lines"}', "5x20", None),
    ("not running", "voxstat_up", "0x20", "VoxstatDown"),
    ("restart", "voxstat_start_time_seconds", "1x15 2x5", "VoxstatRestarted"),
    ("kernel", 'voxstat_receive_queue_dropped_datagrams_total{port="49999"}', "0x15 3x5", "VoxstatDatagramsDropped"),
    ("slow reader", 'voxstat_receive_queue_bytes{port="49999"}', "600x20", "VoxstatQueueFilling"),
    ("server", "voxstat_posts_failed_total", "2x15 3x5", "VoxstatPostsLost"),
    ("no space", 'voxstat_filesystem_free_bytes{directory="/x"}', "9e9x15 4096x5", "VoxstatDiskFull"),
    ("little space", 'voxstat_filesystem_free_bytes{directory="/x"}', "9e8x20", "VoxstatDiskFilling"),
    ("no reports", 'voxstat_file_last_line_timestamp_seconds{file="QoS_Stat.txt"}', "-50000x20", "VoxstatNoReports"),
    ("errors", 'voxstat_check_problems{severity="error"}', "1x20", "VoxstatMisconfigured"),
    ("log out of reach", "voxstat_log_read", "0x20", "VoxstatLogLost"),
    ("timer", 'node_textfile_mtime_seconds{file="/d/voxstat.prom"}', "-1000x20", "VoxstatNotMonitored"),
    ("no metrics", "voxstat_up", "_x20", "VoxstatNotMonitored"),
]
ALERTS += [(what, f'voxstat_lost_total{{what="{what}"}}', "0x15 1x5",
            {"posted_reports": "VoxstatPostsLost", "log_lines": "VoxstatLogLost", "journal_lines": "VoxstatLogLost"}
            .get(what, "VoxstatDataLost"))
           for what in KINDS if not what.startswith("batches_")]
HEALTHY = {"voxstat_up": "1x20", "voxstat_receive_queue_limit_bytes": "1000x20", "voxstat_log_read": "1x20",
           'node_textfile_mtime_seconds{file="/d/voxstat.prom"}': "0+60x20"}


@pytest.mark.skipif(not shutil.which("promtool"), reason="no promtool")
def test_alerts(tmp_path):
    """For each way to lose data, exactly its alert fires."""
    cases = [{"name": what, "interval": "1m", "input_series": [
                {"series": key, "values": value} for key, value in {**HEALTHY, series: values}.items()],
              "promql_expr_test": [{"expr": 'count by (alertname) (ALERTS{alertstate="firing"})', "eval_time": "19m",
                                    "exp_samples": [{"labels": f'{{alertname="{alert}"}}', "value": 1}] if alert else []}]}
             for what, series, values, alert in ALERTS]
    (tmp_path / "alerts.yml").write_text(json.dumps({"rule_files": [str(RULES)], "tests": cases}))
    told = subprocess.run(["promtool", "test", "rules", tmp_path / "alerts.yml"], capture_output=True, text=True)
    assert told.returncode == 0, told.stdout + told.stderr
    assert {alert for *_, alert in ALERTS if alert} == set(re.findall(r"alert: (\w+)", RULES.read_text()))


@pytest.mark.parametrize("options, status, text", [
    ("--nagios", 3, "VOXSTAT UNKNOWN - DIR/voxstat.cfg: the file does not exist"),
    ("--format json", 2, ""),
    ("--nagios --since 5", 3, ""),
    ("--format prometheus --since 1h", 2, ""),
    ("--format yaml", 2, ""),
])
def test_no_answer(tmp_path, options, status, text):
    result, printed = check(tmp_path, *options.split())
    assert result == status and printed.startswith(text) and "{" not in printed
