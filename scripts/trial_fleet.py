#!/usr/bin/env python3
"""Runs a fleet on loopback: two engine nodes, the gateway, and twenty daemons with simulated calls.

Prints the answers of the queries, takes a picture of the page, and runs until Ctrl-C. With --once, exits after the picture.
"""
import contextlib
import json
import re
import signal
import subprocess
import sys
import tempfile
import time
from pathlib import Path

from loopback_fleet import free_port, run, running_fleet, wait_for

ROOT = Path(__file__).resolve().parents[1]
BUILD = ROOT / "build/release"
UNITS = 20
PICTURE = ROOT / "build/fleet.png"


@contextlib.contextmanager
def running_units(store, count):
    """Runs this many daemons, which post to the store, until the end of the block. Yields their ports."""
    units = {}
    try:
        for number in range(count):
            directory, port = store.directory / f"unit{number}", free_port()
            directory.mkdir()
            (directory / "sn").write_text(f"serial: {10000 + number}\n")
            (directory / "voxstat.cfg").write_text(
                f"qos_port={port}\nqos_stat_dir={directory}/stat\nsn_file_path={directory}/sn\n"
                f"elastic_url={store.elastic_url()}\n")
            units[port] = run([BUILD / "voxstat", "-f", "voxstat.cfg"], directory)
        wait_for(lambda: all(map(bound, units)), 30, "the daemons' ports")
        yield list(units)
    finally:
        for process in units.values():
            process.kill()
            process.wait()


def bound(port):
    """Whether both ports of a unit are open: the port and the one above it."""
    table = Path("/proc/net/udp").read_text()
    return all(f":{number:04X} " in table for number in (port, port + 1))


def show(store, query, **parameters):
    rows = json.loads(store.query(query, **parameters)[1])["data"]
    print(f"\n=== {query}: {len(rows)} rows")
    for row in rows[:5]:
        print("  " + "  ".join(f"{key}={round(value, 2) if isinstance(value, float) else value}"
                               for key, value in row.items() if not key.endswith("_hex")))


def take_picture(store, path):
    address = store.url.replace("//", f"//viewer:{store.passwords['viewer']}@")
    subprocess.run(["chromium", "--headless", "--no-sandbox", "--disable-gpu", "--hide-scrollbars",
                    f"--user-data-dir={store.directory}/chromium", "--virtual-time-budget=10000",
                    "--window-size=1300,1500", f"--screenshot={path}", address],
                   check=True, capture_output=True, timeout=120)


def trial(directory, once):
    with running_fleet(directory) as store, running_units(store, UNITS) as units:
        print(f"Two engine nodes, the gateway and {UNITS} daemons are up; half a minute of traffic follows.",
              flush=True)
        traffic = [subprocess.Popen([BUILD / "tools/voxstat-sim", "--port", str(port), "--speed", "10",
                                     "--seed", str(seed), *([] if seed == 7 else ["--bad", "0"])],
                                    stdout=subprocess.PIPE, text=True) for seed, port in enumerate(units)]
        sent = sum(int(re.search(r"(\d+) session reports", player.communicate()[0])[1]) for player in traffic)
        wait_for(lambda: store.count("reports") >= sent, 30, f"{sent} reports in the store")
        print(f"{sent} session reports sent, {store.count('reports')} in the store.")
        now = int(time.time()) + 1
        period = {"from": now - 900, "to": now}
        for query in store.queries:
            if query != "call":
                show(store, query, **period, ms=1, step=60, since=now - 86400, after=600)
        worst = json.loads(store.query("worst_calls", **period, ms=1)[1])["data"][0]
        show(store, "call", **period, sn=worst["unit"], gcid=worst["call"], tid=worst["terminal"])
        take_picture(store, PICTURE)
        print(f"\nPicture of the page: {PICTURE}", flush=True)
        if not once:
            print(f"The page itself: {store.url}/ (user viewer, password {store.passwords['viewer']})\n"
                  "Press Ctrl-C to stop.", flush=True)
            signal.pause()


def main():
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    with tempfile.TemporaryDirectory(prefix="voxstat.") as name:
        try:
            trial(Path(name), "--once" in sys.argv)
        except KeyboardInterrupt:
            pass


if __name__ == "__main__":
    main()
