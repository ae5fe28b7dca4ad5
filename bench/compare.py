"""Measures the CPU time and memory of the daemon and of bare programs that do part of its work, and prints ratios.

    compare.py BUILD          everything; about three minutes; only an idle machine gives useful figures
    compare.py BUILD --once   each measurement once and briefly, to check that it works

BUILD is a build directory with the daemon, its tools and bench/. The kernel counts the CPU time of all threads
of a process, in nanoseconds. The programs to compare run at the same time and get the same load in turn; the
figures are medians of the turns. docs/performance.md explains them.
"""

import contextlib
import glob
import json
import os
import pathlib
import random
import signal
import statistics
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "scripts"))
from loopback import free_port, wait_for  # noqa: E402

BUILD = pathlib.Path(sys.argv[1]).resolve()
ONCE = "--once" in sys.argv[2:]
ROUNDS = 1 if ONCE else 9
PACED = ("--rate", "5000", "--burst", "20")
SCRATCH = pathlib.Path(tempfile.mkdtemp(prefix="voxstat-bench-"))
PROGRAMS = []  # all programs that were started


def scaled(count):
    return count // 10 if ONCE else count


def table(title, *columns):
    print(f"\n{title}\n\n| {' | '.join(columns)} |\n|{'---|' * len(columns)}", flush=True)


def row(*cells):
    print(f"| {' | '.join(f'{c:.2f}' if isinstance(c, float) else str(c) for c in cells)} |", flush=True)


# --- programs under load ---


def sockets(port):
    """For each of the two UDP ports: the waiting bytes and the dropped datagrams, according to the kernel."""
    wanted = (f":{port:04X}", f":{port + 1:04X}")
    with open("/proc/net/udp", encoding="ascii") as lines:
        cells = [line.split() for line in lines]
    return [(int(cell[4].split(":")[1], 16), int(cell[12])) for cell in cells if cell[1].endswith(wanted)]


class Program:
    """The daemon or a bare program, running, with its two ports if it has any."""

    def __init__(self, command, port=None):
        self.port = port
        self.process = subprocess.Popen(command, stdout=subprocess.DEVNULL)
        PROGRAMS.append(self)
        if port is not None:
            wait_for(lambda: len(sockets(port)) == 2 or self.process.poll() is not None, what="open ports")

    def running(self):
        return self.process.poll() is None

    def end(self):
        self.process.terminate()
        if self.process.wait(70) not in (0, -signal.SIGTERM):
            sys.exit(f"{self.process.args} failed")

    def cpu_ns(self):
        files = glob.glob(f"/proc/{self.process.pid}/task/*/schedstat")
        return sum(int(pathlib.Path(file).read_text(encoding="ascii").split()[0]) for file in files)

    def peak_kb(self):
        status = pathlib.Path(f"/proc/{self.process.pid}/status").read_text(encoding="ascii")
        return int(status.split("VmHWM:")[1].split()[0])

    def drops(self):
        return sum(dropped for _, dropped in sockets(self.port))

    def load(self, kind, count, *options):
        """Sends datagrams and waits until they are received, and until the writer has run twice."""
        subprocess.run(
            [BUILD / "tools/voxstat-sim", "--port", str(self.port), "--load", kind, "--count", str(count), *options],
            stdout=subprocess.DEVNULL, check=True)
        wait_for(lambda: not any(waiting for waiting, _ in sockets(self.port)), what="an empty receive queue")
        time.sleep(0.25)

    def cost(self, kind, count, *options):
        """Nanoseconds of CPU time per received datagram."""
        before, dropped = self.cpu_ns(), self.drops()
        self.load(kind, count, *options)
        return (self.cpu_ns() - before) / (count - self.drops() + dropped)

    def idle_us(self, seconds):
        """Microseconds of CPU time per second without load."""
        before = self.cpu_ns()
        time.sleep(seconds)
        return (self.cpu_ns() - before) / seconds / 1000


def start_on_ports(make_command):
    """Starts the program on free ports."""
    for _ in range(20):
        port = free_port()
        program = Program(make_command(port), port)
        if program.running():
            return program
    sys.exit("no program starts")


def bare_drain(*queue):
    """The bare drain; with BYTES and PAUSE_MS, the queueing drain."""
    if queue:
        queue = (*map(str, queue), str(SCRATCH / f"queued-{random.random()}"))
    return start_on_ports(lambda port: [BUILD / "bench" / "bare-drain", str(port), *queue])


def daemon(**settings):
    directory = pathlib.Path(tempfile.mkdtemp(dir=SCRATCH))

    def command(port):
        settings.update(qos_port=port, qos_stat_dir=directory)
        config = directory / "voxstat.cfg"
        config.write_text("".join(f"{key} = {value}\n" for key, value in settings.items()), encoding="ascii")
        return [BUILD / "voxstat", "-f", config]

    program = start_on_ports(command)
    program.directory = directory
    return program


@contextlib.contextmanager
def together(*programs):
    yield programs
    for program in programs:
        program.end()


# --- measurements ---


def compare_report():
    """Parsing a report and queueing its lines, compared with the C library's calls alone."""
    options = ["--benchmark_enable_random_interleaving=true"]
    options += ["--benchmark_min_time=0.01"] if ONCE else ["--benchmark_min_time=0.2", f"--benchmark_repetitions={ROUNDS}"]
    output = subprocess.run([BUILD / "bench" / "report-bench", *options], stdout=subprocess.PIPE, check=True).stdout
    times = {}
    for run in json.loads(output)["benchmarks"]:
        if run["run_type"] == "iteration":
            times.setdefault(run["run_name"], []).append(run["cpu_time"])
    bare, own = (statistics.median(times[name]) for name in ("c_library_of_one_report", "text_to_both_lines_queued"))
    table("Parsing a report and queueing the line and the JSON object", "bare program", "ns", "daemon, ns", "ratio")
    row("the C library's calls alone", round(bare), round(own), own / bare)


def compare_datagrams():
    table("CPU time per datagram, at 5,000/s in bursts of 20, or as fast as they can be sent",
          "load", "bare drain, ns", "queueing drain, ns", "daemon, ns", "daemon / bare", "daemon / queueing")
    # The size of a statistics line and of a pcap record, and the writer's pause under each load.
    for kind, size, pause_ms in (("reports", 140, 100), ("voice", 218, 10)):
        with together(bare_drain(), bare_drain(size, pause_ms), daemon()) as programs:
            for what, count, pace in (("", 10000, PACED), (", as fast as possible", 100000, ())):
                if kind == "reports" and not pace:
                    continue  # this would measure the receive queue
                turns = [[p.cost(kind, scaled(count), *pace) for p in programs] for _ in range(ROUNDS + 1)]
                floor, queueing, own = map(statistics.median, zip(*turns[1:]))  # the first turn warms up
                row(kind + what, round(floor), round(queueing), round(own), own / floor, own / queueing)


def found(program):
    """The numbers of the reports that the daemon's statistics file contains."""
    lines = (program.directory / "QoS_Stat.txt").read_text(encoding="ascii").splitlines()[1:]
    return {int(line.split()[-1]) for line in lines}


def check_losses():
    table("Losses", "load", "reports", "lost", "of these in the socket's queue")
    for rate in (5000, 7000):
        count = scaled(10 * rate)
        program = daemon(rtp_logging=0)
        program.load("reports", count, "--rate", str(rate), "--burst", "20")
        drops = program.drops()
        program.end()
        row(f"{rate}/s in bursts of 20", count, count - len(found(program)), drops)
    for burst in (150, 400):
        program = daemon(rtp_logging=0)
        firsts = range(1, 5 * burst, burst)
        for first in firsts:
            program.load("reports", burst, "--first", str(first))
        drops = program.drops()
        program.end()
        whole = sum(found(program).issuperset(range(first, first + burst)) for first in firsts)
        row(f"{burst} back to back, five times", 5 * burst, f"{5 - whole} of 5 bursts incomplete", drops)


def compare_rest():
    table("Idle, and memory", "what", "bare program", "daemon", "ratio")
    for what, arguments, settings in (
            ("files only", ("2", "0"), {}), ("with a server", ("7", "5"), {"elastic_url": "http://127.0.0.1:9/"})):
        with together(Program([BUILD / "bench" / "bare-pool", *arguments]), daemon(**settings)) as (bare, own):
            time.sleep(1)  # right after its start, the program is not idle
            turns = [[p.idle_us(1 if ONCE else 2) for p in (bare, own)] for _ in range(ROUNDS)]
            bare_us, own_us = map(statistics.median, zip(*turns))
            row(f"idle, CPU time per second, {what}, µs", round(bare_us), round(own_us), own_us / bare_us)
            own.load("reports", scaled(25000), *PACED)
            row(f"peak memory under load, {what}, kB", bare.peak_kb(), own.peak_kb(), own.peak_kb() / bare.peak_kb())


print(f"{os.cpu_count()} cores, load average {os.getloadavg()[0]:.2f}, {ROUNDS} rounds")
try:
    compare_report()
    compare_datagrams()
    check_losses()
    compare_rest()
finally:
    for program in filter(Program.running, PROGRAMS):
        program.process.kill()
    subprocess.run(["rm", "-rf", SCRATCH], check=True)
