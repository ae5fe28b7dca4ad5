#!/usr/bin/env python3
"""Runs the daemon on simulated traffic, with a web server for its posts; shows and counts what arrives.

The files are in build/run, which each run empties first; while another run uses it, in build/run.2 to build/run.5.
"""
import fcntl
import os
import re
import shutil
import signal
import subprocess
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parents[1]
os.environ["VOXSTAT_BUILD"] = str(ROOT / "build/release")
from loopback import BUILD, Daemon, Recorder, wait_for  # noqa: E402

TOOLS = BUILD / "tools"


def title(text):
    print(f"\n=== {text}", flush=True)


def take_directory():
    """Returns an empty directory that no other run uses, and the lock on it."""
    for suffix in ("", ".2", ".3", ".4", ".5"):
        place = ROOT / f"build/run{suffix}"
        try:
            lock = open(f"{place}.lock", "w")
            fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
        except OSError:
            continue
        shutil.rmtree(place, ignore_errors=True)
        place.mkdir()
        return place, lock
    sys.exit("run: no free directory below build/: five other runs are in progress, or you cannot write to it")


def simulate(port):
    """Runs the simulator; prints its output and returns it."""
    text = ""
    with subprocess.Popen([TOOLS / "voxstat-sim", "--port", str(port)], stdout=subprocess.PIPE, text=True) as simulator:
        for row in simulator.stdout:
            print(row, end="", flush=True)
            text += row
    return text


def show_batches(requests):
    """Prints each batch with its first and last line."""
    for path, headers, body in requests:
        first, *lines, last = body.splitlines()
        print("POST", path, headers["Content-Type"])
        print(first, lines[0], *([f"... {len(lines) - 2} more lines"] if len(lines) > 2 else []), *lines[1:][-1:], last,
              sep="\n")


def show_head(text):
    lines = text.splitlines()
    print(*lines[:8], f"... {len(lines)} lines in total", sep="\n")


def decode(dump, *options):
    """Returns what tshark prints about the dump when it looks for RTP in UDP."""
    end = subprocess.run(["tshark", "-r", dump, "--enable-heuristic", "rtp_udp", *options],
                         capture_output=True, text=True)
    if end.returncode != 0:
        sys.exit(f"run: tshark cannot read the dump: {end.stderr}")
    return end.stdout       # without the warning about running as root


def compare(sent, *found):
    """Compares counts. Each item of found is a title, the simulator's word for it, and the number that arrived."""
    whole = True
    for what, word, count in found:
        number = int(re.search(rf"(\d+) {word}", sent)[1])
        print(f"{what:40} {number:6} sent, {count:6} found")
        whole = whole and number == count
    if not whole:
        sys.exit("run: data was lost")


def main():
    place, lock = take_directory()
    title("Starting a web server and the daemon with this configuration")
    web = Recorder()
    daemon = Daemon.ready(place, serial="40731", elastic_url=web.url, log__default=2, log__network=2, log__http=2)
    dump = daemon.stat / "RTP_Streams_No_Voice.pcap"
    print((place / "voxstat.cfg").read_text(), end="")

    title("Sending the traffic of a telephony unit: six calls, one of them bad for a while")
    sent = simulate(daemon.port)

    title("Posts: batches of session reports, as JSON arrays")
    reports = int(re.search(r"(\d+) session reports", sent)[1])
    # The daemon posts the last lines more than five seconds after the previous batch.
    wait_for(lambda: len(web.lines()) >= reports, 20, "for the session reports to be posted")
    show_batches(web.requests)

    title("Stopping the daemon")
    daemon.stop()
    print("It exited with status 0 after SIGTERM.")
    statistics, summaries = daemon.text(), daemon.text("QoS_Stat_Sessions_Summary.txt")
    compare(sent, ("session reports, statistics file", "session reports", statistics.count("_end ")),
            ("session reports, web server", "session reports", len(web.lines())),
            ("session summaries, summary file", "session summaries", summaries.count("_end ")),
            ("voice records, dump", "voice records", decode(dump).count("\n")))

    title("The statistics file: one line per session report")
    show_head(statistics)
    title("The session-summary file: one line per session summary")
    show_head(summaries)
    title("The dump: RTP streams without voice, decoded by tshark")
    print(decode(dump, "-c", "4"), decode(dump, "-q", "-z", "rtp,streams"), sep="", end="")
    title("The log")
    print(re.sub("\n+", "\n", daemon.output()), end="")

    title("Pictures of both files")
    for name, picture in (("QoS_Stat_Sessions_Summary.txt", "summary.png"), ("QoS_Stat.txt", "calls.png")):
        subprocess.run([TOOLS / "voxstat-plot", daemon.stat / name, "-o", place / picture], check=True)


signal.signal(signal.SIGINT, signal.SIG_DFL)    # exits without a traceback; the daemon exits with its parent
try:
    main()
except (RuntimeError, TimeoutError) as failure:
    sys.exit(f"run: {failure}")
