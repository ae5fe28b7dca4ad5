"""A call that fails costs no more than it may, and is reported.

In short lives of the daemon, each call that can fail does so: once, or from then on. So does each allocation: once,
or ten in a row. The program is linked with the wrappers of tests/faults, whose switches lie in a file that both share.
"""
import ctypes
import errno
import itertools
import math
import mmap
import os
import re
import signal
import subprocess
import tempfile
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass, field
from pathlib import Path

import pytest

from conftest import (BUILD, HEADERS, PCAP_HEADER, ROOT, STAMP, Daemon, Recorder, batch, line, pcap_record, report,
                      voice_record, wait_for)

# --- the switches -------------------------------------------------------------------------------

FUNCTIONS = re.findall(r'"(\w+)"', re.search(r"FUNCTIONS = {(.*?)}", (ROOT / "tests/faults/faults.h").read_text(),
                                             re.DOTALL)[1])
NEVER = 2**31 - 1
SHORT_COUNT = -1    # as the error of write(): half of the bytes go out


class Calls(ctypes.Structure):
    """How many were made; those from the first to before the end fail with the error."""
    _fields_ = [(name, ctypes.c_int) for name in ("made", "first", "end", "error")]


class Faults(ctypes.Structure):
    """What faults.h lays at the start of the file."""
    _fields_ = [("calls", Calls * len(FUNCTIONS)), ("clock_shift", ctypes.c_long), ("root", ctypes.c_char * 256)]

    def of(self, function):
        return self.calls[FUNCTIONS.index(function)]


def faults_in(path):
    path.write_bytes(bytes(ctypes.sizeof(Faults)))
    with open(path, "r+b") as file:
        return Faults.from_buffer(mmap.mmap(file.fileno(), 0))


# --- what each call may cost --------------------------------------------------------------------

# In each phase of a life come a summary, a voice record and a session report. They are written, and the last is
# posted, before the next phase begins.
PHASES = 4
ALL = 3 * PHASES


@dataclass
class Cost:
    """The most records and posts that may be missing, cut, or there twice, and of which kinds."""
    records: int = 0
    posts: int = 0
    manner: str = "said"    # or "said when lost", "silent", "no files", "ends"
    kinds: str = "sev"      # session report, summary, voice

    def lasts(self):
        return self.records == ALL or self.posts == PHASES


@dataclass
class Row:
    function: str
    error: int
    messages: list          # one of them is said; * stands for any text
    costs: dict             # from this call on: (once, with all after it)
    in_turn: dict = field(default_factory=dict)     # and this message for this call


NONE, NOTICE, SHORT = Cost(), Cost(manner="silent"), Cost(1, manner="silent")
BLOCK, BLOCKS = Cost(1, manner="said when lost"), Cost(ALL, manner="said when lost")
FILES, BOTH = Cost(ALL, manner="no files"), Cost(ALL, PHASES, "no files")
POST, POSTS, HEARING, LIFE = Cost(posts=1), Cost(posts=PHASES), Cost(ALL, PHASES), Cost(ALL, PHASES, "ends")
ENDED = "[ERROR] Caught an exception: NetReceiver() "
FATAL = ENDED + "fatal error..."
UNBOUND = "[ERROR] NetReceiver() unable to bind to port: {}(errno: 13)"
BLOCKING = "[ERROR] NetReceiver() unable to set O_NONBLOCK to port: {}(errno: 1)"
HANDLER = "[ERROR] Failed to register SIG{} signal handler..."
THREAD = "Unable to create new thread for {}. Error: 11"
MUTEX = "Unable to init mutex for {}"
OPTION = "curl_easy_setopt(CURLOPT_{}) failed..."


def either(text):
    """In the log, or on standard output where the log itself is at stake."""
    return ["[ERROR] " + text, text]


def in_turn(text, *values, first=1):
    return {call: text.format(value) for call, value in enumerate(values, first)}


MEMORY = Row("allocation", errno.ENOMEM, [], {1: (Cost(1, 1, "silent"), Cost(10, 3, "silent"))})    # once, ten in a row
ROWS = [
    Row("open", errno.EMFILE, either("Failed to open *"), {1: (Cost(1), Cost(ALL))}),
    *(Row("write", error, [f"[DEBUG] {reason} on writing to file *", *either("Failed to write header to the *")],
          {1: (BLOCK, BLOCKS)})
      for error, reason in ((28, "No space left on device (28)"), (5, "Input/output error (5)"))),
    Row("write", SHORT_COUNT, [], {1: (SHORT, Cost(ALL, manner="silent"))}),
    Row("fsync", errno.EIO, [], {1: (NOTICE, NOTICE)}),
    Row("stat", errno.EACCES, either("Failed to retrieve file size of *"), {1: (BLOCK, BLOCKS)}),
    Row("rename", errno.EACCES,
        ["[ERROR] Permission denied (13) on rotation (::rename) of * to *; deleted file instead."],
        {1: (Cost(2), Cost(4))}),
    Row("remove", errno.EACCES, ["[ERROR] FileObject::fobj_cleanup: failed to delete *; Permission denied (13)"],
        {1: (NONE, NONE)}),
    Row("mkdir", errno.EACCES, either("Failed to create directory * (13: Permission denied)"), {1: (NONE, NONE)}),
    Row("chown", errno.EPERM, [], {1: (NOTICE, NOTICE)}),
    Row("opendir", errno.EMFILE, ["[ERROR] FileObject::fobj_cleanup: failed to open *; Too many open files (24)"],
        {1: (NONE, NONE)}),
    Row("socket", errno.EMFILE, [ENDED + "failed to create socket"], {1: (LIFE, LIFE)}),
    Row("bind", errno.EACCES, [FATAL], {1: (LIFE, LIFE)}, in_turn(UNBOUND, "QOS", "VOICE")),
    Row("fcntl", errno.EPERM, [FATAL], {1: (NOTICE, LIFE), 4: (LIFE, LIFE)},    # 1 to 3: the standard descriptors
        in_turn(BLOCKING, "QOS", "QOS", "VOICE", "VOICE", first=4)),
    Row("poll", errno.EINTR, ["[ERROR] NetReceiver select() failed: -1"], {1: (NONE, HEARING)}),
    Row("recvfrom", errno.EIO, ["[ERROR] NetReceiver() recvfrom failed on port: *(errno: 5)"], {1: (NONE, HEARING)}),
    Row("pthread_create", errno.EAGAIN, either(THREAD.format("*")),
        {1: (NONE, BOTH), 2: (FILES, BOTH), 3: (NONE, POSTS), 4: (NONE, NONE)},     # one web worker will do
        in_turn(THREAD, "SimpleLogger") | in_turn("[ERROR] " + THREAD, "FileLogger", "WebClient", first=2)),
    Row("pthread_mutex_init", errno.ENOMEM, either(MUTEX.format("*")),
        {1: (NONE, BOTH), 2: (FILES, BOTH), 4: (POSTS, POSTS)},
        in_turn(MUTEX, "SimpleLogger. Error: 12") | in_turn(
            "[ERROR] " + MUTEX, "FileLogger. Error: 12,0", "FileLogger. Error: 0,12", "WebClient. Error: 12", first=2)),
    Row("signal", errno.EINVAL, [HANDLER.format("*")], {1: (NOTICE, NOTICE), 3: (NONE, NONE)},
        in_turn(HANDLER, "TERM", "INT", "QUIT", first=3)),
    Row("asprintf", errno.ENOMEM, ["[ERROR] Failed to allocate _*"],
        {1: (Cost(1, 1, kinds="se"), Cost(ALL, PHASES, kinds="se"))},
        in_turn("[ERROR] Failed to allocate _{} event for QoS packet...", "log_string", "http_log_string")),
    Row("curl_global_init", 2, ["[ERROR] Unable to init curl library..."], {1: (POSTS, POSTS)}),
    Row("curl_easy_init", 2, ["[ERROR] Failed to initialize curl handle"], {1: (NONE, POSTS), 2: (NONE, NONE)}),
    Row("curl_easy_setopt", 48, [*either(OPTION.format("*")), "[ERROR] c" + OPTION.format("FAILONERROR")],
        {1: (NONE, POSTS), 9: (Cost(manner="said when lost"), POSTS), 46: (POST, POSTS)},    # 5 handles, then bodies
        in_turn(OPTION, "HEADER", "VERBOSE", "DEBUGFUNCTION", "DEBUGDATA")
        | in_turn("[ERROR] " + OPTION, "URL", "WRITEFUNCTION", "WRITEDATA", first=5)
        | in_turn("[ERROR] c" + OPTION, "FAILONERROR", first=8)
        | in_turn("[ERROR] " + OPTION, "POSTFIELDS", "POSTFIELDSIZE", first=46)),
    Row("curl_easy_perform", 7, ["[ERROR] Unable to transmitt http - curl_easy_perform failed: 7"],
        {1: (POST, POSTS)}),
    MEMORY,
]


# --- a life -------------------------------------------------------------------------------------

FILES_OF = {"s": "QoS_Stat.txt", "e": "QoS_Stat_Sessions_Summary.txt", "v": "RTP_Streams_No_Voice.pcap"}
EVENTS = {"s": "QOS_FAREND", "e": "QOS_EOS_FAREND"}
SURPLUS = "QoS_Stat_Sessions_Summary_2000-01-01_00-00-00.txt"      # one too many of its kind
OLDER = [SURPLUS, "QoS_Stat_Sessions_Summary_2001-01-01_00-00-00.txt",
         "QoS_Stat_Sessions_Summary_2002-01-01_00-00-00.txt", "QoS_Stat_2001-01-01_00-00-00.txt",
         "RTP_Streams_No_Voice_2001-01-01_00-00-00.pcap"]
OWN_FILES = {*(f"stat/{name}" for name in FILES_OF.values()), "root/var/log/current/d.log", "out", "err"}


def record(kind, phase):
    """What the phase adds to the file of this kind."""
    if kind == "v":
        return pcap_record(voice_record(f"v{phase}".encode()))
    return line(EVENTS[kind], RTCP_CNAME=f"{kind}{phase}").encode()


def session(phase):
    return record("s", phase).decode().rstrip("\n")


def content(path):
    try:
        return path.read_bytes()
    except FileNotFoundError:   # an archive by now, or not there yet
        return b""


class Life:
    """The n-th call of the row's function fails. Without a log file the log goes to standard output."""

    def __init__(self, directory, row, n, onwards=False, log_file=True):
        self.directory, self.row, self.n, self.onwards, self.log_file = directory, row, n, onwards, log_file
        self.stat = directory / "stat"
        self.stat.mkdir()
        for name in OLDER:
            (self.stat / name).write_text(name)
        (directory / "root/var/log").mkdir(parents=True)
        self.faults = faults_in(directory / "faults")
        self.faults.root = bytes(directory / "root")
        memory = row == MEMORY
        self.calls = self.faults.of(row.function)
        self.calls.error, self.calls.first = row.error, n
        self.calls.end = n + 1 if not onwards else n + 10 if memory else NEVER
        # The phases that the failure may hurt: those after the first number, to the second.
        self.before, self.last = 0, PHASES
        self.web = Recorder()
        self.daemon = Daemon(
            directory, ["env", f"VOXSTAT_FAULTS={directory}/faults"], BUILD / "tests/faults/voxstat-faulty",
            elastic_url=self.web.url, max_file_size_rtp=50, log__file="d" if log_file else None,
            log__default=4, log__http=4 if memory else 2, log__network=4 if memory else None)

    def reached(self):
        return self.calls.made >= self.n

    def cost(self):
        """What the failure may cost, once it has come."""
        costs = [pair[self.onwards] for first, pair in self.row.costs.items() if self.n >= first]
        return costs[-1] if self.reached() else NONE

    # What happens.

    def run(self):
        wait_for(lambda: self.has_ended() or self.faults.of("poll").made)
        ends = self.cost().manner == "ends"
        if not ends:
            for phase in range(1, PHASES + 1):
                self.live_through(phase)
            wait_for(self.holds_its_files_only, what="for files to be closed")
            self.stop()
        self.daemon.wait()
        self.judge_files()
        self.judge_posts()
        self.judge_log()

    def has_ended(self):
        return self.daemon.process.poll() is not None

    def live_through(self, phase):
        if self.calls.made < self.calls.end - 1 or self.cost().lasts():
            self.last = phase
        self.daemon.send(report(EVENTS["e"], RTCP_CNAME=f"e{phase}"))
        self.daemon.send_voice(voice_record(f"v{phase}".encode()))
        self.daemon.send(report(EVENTS["s"], RTCP_CNAME=f"s{phase}"))
        is_last = phase == PHASES
        looks = itertools.count()

        def has_arrived():
            assert not self.has_ended()
            if next(looks) % 50 == 0:   # again when a writer set its time after the jump
                self.faults.clock_shift += 50 if is_last else 100   # the last summary is not yet due
            return self.costs_no_more(phase, phase - is_last)
        wait_for(has_arrived, what=f"in phase {phase}")
        if not self.reached():
            self.before = phase - 2     # a dump that cannot be moved away holds the two before

    def stop(self):
        """The signal comes again now and then: the one between the look at the flag and the wait is noticed late."""
        deaf = self.row.function == "signal" and self.n == 3    # to SIGTERM
        for _ in range(20):
            self.daemon.process.send_signal(signal.SIGINT if deaf else signal.SIGTERM)
            try:
                self.daemon.process.wait(1)
                break
            except subprocess.TimeoutExpired:
                pass

    # What is left.

    def files(self, kind):
        """The contents of this kind's files, without the older ones."""
        stem, extension = FILES_OF[kind].split(".")
        archives = [path for path in self.stat.glob(f"{stem}_2*.{extension}") if path.name not in OLDER]
        return [content(path) for path in (*archives, self.stat / FILES_OF[kind]) if path.exists()]

    def costs_no_more(self, phases=PHASES, summaries=PHASES):
        """Whether all records and posts of so many phases are there, but for what may be lost."""
        cost = self.cost()
        texts = {kind: b"".join(self.files(kind)) for kind in FILES_OF}
        posted = "".join(body for _, _, body in list(self.web.requests))
        records = [(kind, phase) for kind, text in texts.items() for phase in range(1, phases + 1)
                   if (kind != "e" or phase <= summaries) and text.count(record(kind, phase)) != 1]
        posts = [("s", phase) for phase in range(1, phases + 1) if posted.count(batch([session(phase)])[2:-2]) != 1]
        self.lost = len(records)
        return (self.lost <= cost.records and len(posts) <= cost.posts
                and all(self.before < phase <= self.last and kind in cost.kinds for kind, phase in records + posts))

    def judge_files(self):
        cost = self.cost()
        assert self.costs_no_more(), "records or posts are lost"
        self.headless = 0
        for kind, name in FILES_OF.items():
            header = HEADERS[name].encode() if name in HEADERS else PCAP_HEADER
            for text in self.files(kind):
                assert not text or cost.manner not in ("no files", "ends")
                self.headless += not text.startswith(header)
                rest = text.removeprefix(header)
                for phase in range(1, PHASES + 1):
                    rest = rest.replace(record(kind, phase), b"")
                # An empty line stands for a report that had no memory for its line.
                assert self.row.error == SHORT_COUNT or not rest.strip(b"\n" if self.row.error == errno.ENOMEM else b"")
        assert self.headless <= (cost.records if self.row.function in ("write", "stat") else 0)
        assert all(content(self.stat / name) == name.encode() for name in OLDER if name != SURPLUS)
        assert self.reached() or not (self.stat / SURPLUS).exists()

    def judge_posts(self):
        """They are whole, but for one that could not be set up: it is empty, or has the size of one before."""
        sent = {session(phase) for phase in range(1, PHASES + 1)}
        sizes = {0}
        for _, _, body in self.web.requests:
            rows = re.findall('"message": "(.*)"', body)
            assert {row for row in rows if "Service_Packet" not in row} <= sent
            assert body == batch(rows) or (len(body) in sizes and self.cost().posts)
            sizes.add(len(body))

    def judge_log(self):
        cost = self.cost()
        text = self.output()
        bare = STAMP.sub(r"\1", text)
        if self.row.function not in ("open", "write", "stat"):  # a lost block cuts lines
            assert "] [0x" not in bare and text.endswith("\n")
        rows = bare.replace(str(self.daemon.port), "QOS").replace(str(self.daemon.port + 1), "VOICE").splitlines()

        def is_said(message):
            form = re.compile(re.escape(message).replace(r"\*", ".*"))
            return any(form.fullmatch(row) for row in rows)
        assert is_said(ENDED + "fa*") == (cost.manner == "ends")
        in_vain = self.onwards and self.log_file    # the log cannot be written any more
        quiet = cost.manner == "said when lost" and (in_vain or self.lost + self.headless == 0)
        if self.reached() and cost.manner != "silent" and not quiet:
            assert any(is_said(message) for message in self.row.messages)
            assert self.onwards or is_said(self.row.in_turn.get(self.n, "*"))

    def output(self):
        return self.daemon.output() + content(self.directory / "root/var/log/current/d.log").decode(errors="replace")

    def holds_its_files_only(self):
        """Each once, and none that has gone; a directory is open only while it is read."""
        held = []
        for descriptor in Path(f"/proc/{self.daemon.process.pid}/fd").iterdir():
            try:
                held.append(os.readlink(descriptor))
            except FileNotFoundError:
                return False
        own = [path.removeprefix(f"{self.directory}/") for path in held if path.startswith(f"{self.directory}/")]
        return len(own) == len(set(own)) and set(own) <= OWN_FILES


# --- the sweeps ---------------------------------------------------------------------------------

def live(row, n, onwards=False, log_file=True):
    """How many calls of each function there were. The n-th of the row's own has failed, if there was one."""
    with tempfile.TemporaryDirectory(prefix="voxstat.") as name:
        life = Life(Path(name), row, n, onwards, log_file)
        try:
            life.run()
        except Exception as error:
            raise AssertionError(f"{row.function} ({row.error}) #{n}{' and on' if onwards else ''}, "
                                 f"log {'in a file' if log_file else 'printed'}:\n{life.output()}") from error
        finally:
            life.daemon.kill()
            life.web.close()
        return {function: life.faults.of(function).made for function in FUNCTIONS}


def calls_of_a_life(log_file=True):
    """How many calls of each function there are when none fails."""
    return live(ROWS[0], NEVER - 10, False, log_file)


def sweep(lives):
    """Several at a time. All calls must come that are named in a row; a life with a failure may have fewer others."""
    with ThreadPoolExecutor(8) as pool:
        for (row, n, *_), made in zip(lives, pool.map(live, *zip(*lives))):
            assert made[row.function] >= n or n not in (*row.costs, *row.in_turn), f"no {row.function} #{n}"


def test_some_calls():
    """Those that are named and a few of the others; each allocation of a phase."""
    made = calls_of_a_life()
    lives = [(row, n, onwards) for row in ROWS for onwards in (False, True)[:1 + (row == MEMORY)]
             for n in {*range(1, made[row.function], math.ceil(made[row.function] / 8)), *row.costs, *row.in_turn}]
    a_phase = range(made["allocation"] // 4, made["allocation"] // 2)
    sweep(lives + [(MEMORY, n) for n in a_phase])


@pytest.mark.long
@pytest.mark.parametrize("log_file", [True, False])
@pytest.mark.parametrize("onwards", [False, True])
def test_every_call(onwards, log_file):
    made = calls_of_a_life(log_file)
    sweep([(row, n, onwards, log_file) for row in ROWS for n in range(1, made[row.function] + 1)
           if not (onwards and row.function == "signal")])    # nothing would stop it
