"""If a system call fails, the daemon reports it, loses little and continues.

In each short run of the daemon, one call fails: once, or every time from then on. There is a run for each call that can
fail, and for each allocation. In each of them:

- The daemon runs and stops as usual, unless it cannot receive; then it logs the reason and exits with status 0.
- It loses no more than the table below allows, and nothing without logging the message in the table.
- It loses nothing that arrives after the last failure.
- Files contain only complete records, older archives are kept, and no descriptor is left open.

The program is linked with the wrappers of tests/faults, whose switches are in a file that it shares with the test.
"""
import ctypes
import errno
import itertools
import mmap
import os
import re
import signal
import tempfile
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path
from typing import NamedTuple

import pytest

from conftest import (BUILD, HEADERS, PCAP_HEADER, ROOT, STAMP, Daemon, Recorder, batch, line, pcap_record, report,
                      voice_record, wait_for)

# --- what a failure may lose --------------------------------------------------------------------

ALL, SHORT_COUNT = 99, -1       # as an error of write(), SHORT_COUNT writes half of the bytes


class Failure(NamedTuple):
    function: str
    error: int
    says: str | None            # an error, or a text with its level; * is any text. None: no message is needed
    once: tuple = (0, 0)        # how many records and posts may be lost if one call fails
    onwards: tuple = (0, 0)     # the same if all later calls fail too; a file's header counts as a record
    ends: bool = False          # the daemon exits immediately


RECORDS, POSTS = (ALL, 0), (0, ALL)
ENDED = "Caught an exception: NetReceiver() fa"
FAILURES = [    # for each function in the order of its calls
    Failure("open", errno.EMFILE, "Failed to open *", (1, 0), RECORDS),
    *(row for error, reason in ((errno.ENOSPC, "No space left on device (28)"), (errno.EIO, "Input/output error (5)"))
      for row in (Failure("write", error, None),        # it was a block of the log
                  Failure("write", error, f"[DEBUG] {reason} on writing to file *", (1, 0), RECORDS),
                  Failure("write", error, "Failed to write header to the *", (2, 0), RECORDS))),
    Failure("write", SHORT_COUNT, None, (1, 0), RECORDS),
    Failure("write", SHORT_COUNT, "Failed to write header to the *", (1, 0), RECORDS),
    Failure("fsync", errno.EIO, None),
    Failure("stat", errno.EACCES, None),                # it was for the age of an archive
    Failure("stat", errno.EACCES, "Failed to retrieve file size of *", (2, 0), RECORDS),
    Failure("rename", errno.EACCES, "Permission denied (13) on rotation (::rename) of * to *; deleted file instead.",
            (2, 0), (4, 0)),
    Failure("remove", errno.EACCES, "FileObject::fobj_cleanup: failed to delete *; Permission denied (13)"),
    Failure("mkdir", errno.EACCES, "Failed to create directory * (13: Permission denied)"),
    Failure("chown", errno.EPERM, None),
    Failure("opendir", errno.EMFILE, "FileObject::fobj_cleanup: failed to open *; Too many open files (24)"),
    Failure("socket", errno.EMFILE, ENDED + "iled to create socket", ends=True),
    Failure("bind", errno.EACCES, "NetReceiver() unable to bind to port: QOS(errno: 13)", ends=True),
    Failure("bind", errno.EACCES, "NetReceiver() unable to bind to port: VOICE(errno: 13)", ends=True),
    Failure("fcntl", errno.EPERM, None),                # it was for a standard descriptor
    Failure("fcntl", errno.EPERM, "NetReceiver() unable to set O_NONBLOCK to port: QOS(errno: 1)", ends=True),
    Failure("fcntl", errno.EPERM, "NetReceiver() unable to set O_NONBLOCK to port: VOICE(errno: 1)", ends=True),
    Failure("poll", errno.EINTR, "NetReceiver select() failed: -1", onwards=(ALL, ALL)),
    Failure("recvfrom", errno.EIO, "NetReceiver() recvfrom failed on port: *(errno: 5)", onwards=(ALL, ALL)),
    Failure("pthread_create", errno.EAGAIN, "Unable to create new thread for SimpleLogger. Error: 11"),
    Failure("pthread_create", errno.EAGAIN, "Unable to create new thread for FileLogger. Error: 11", RECORDS, RECORDS),
    Failure("pthread_create", errno.EAGAIN, "Unable to create new thread for WebClient. Error: 11", onwards=POSTS),
    Failure("pthread_mutex_init", errno.ENOMEM, "Unable to init mutex for SimpleLogger. Error: 12"),
    Failure("pthread_mutex_init", errno.ENOMEM, "Unable to init mutex for FileLogger. Error: 12,*", RECORDS, RECORDS),
    Failure("pthread_mutex_init", errno.ENOMEM, "Unable to init mutex for FileLogger. Error: *,12", RECORDS, RECORDS),
    Failure("pthread_mutex_init", errno.ENOMEM, "Unable to init mutex for WebClient. Error: 12", POSTS, POSTS),
    Failure("signal", errno.EINVAL, None),              # it was for a signal that would end the daemon on a full disk
    *(Failure("signal", errno.EINVAL, f"Failed to register SIG{name} signal handler...")
      for name in ("TERM", "INT", "QUIT")),
    Failure("asprintf", errno.ENOMEM, "Failed to allocate _log_string event for QoS packet...", (1, 1), (ALL, ALL)),
    Failure("asprintf", errno.ENOMEM, "Failed to allocate _http_log_string event for QoS packet...", (0, 1), POSTS),
    Failure("curl_global_init", 2, "Unable to init curl library...", POSTS, POSTS),
    Failure("curl_easy_init", 2, "Failed to initialize curl handle", onwards=POSTS),
    Failure("curl_easy_setopt", 48, None),              # it was for the headers of a request
    *(Failure("curl_easy_setopt", 48, f"{name}) failed...", onwards=POSTS) for name in (
        "curl_easy_setopt(CURLOPT_HEADER", "curl_easy_setopt(CURLOPT_VERBOSE", "curl_easy_setopt(CURLOPT_DEBUGFUNCTION",
        "curl_easy_setopt(CURLOPT_DEBUGDATA", "curl_easy_setopt(CURLOPT_URL", "curl_easy_setopt(CURLOPT_WRITEFUNCTION",
        "curl_easy_setopt(CURLOPT_WRITEDATA", "ccurl_easy_setopt(CURLOPT_FAILONERROR")),
    Failure("curl_easy_setopt", 48, "curl_easy_setopt(CURLOPT_POSTFIELDS) failed...", (0, 1), POSTS),
    Failure("curl_easy_setopt", 48, "curl_easy_setopt(CURLOPT_POSTFIELDSIZE) failed...", (0, 1), POSTS),
    Failure("curl_easy_perform", 7, "Unable to transmitt http - curl_easy_perform failed: 7", (0, 1), POSTS),
    Failure("allocation", errno.ENOMEM, None, (1, 1), (10, 3)),     # onwards: ten in a row
]


# --- the switches -------------------------------------------------------------------------------

FUNCTIONS = re.findall(r'"(\w+)"', re.search(r"FUNCTIONS = {(.*?)}", (ROOT / "tests/faults/faults.h").read_text(),
                                             re.DOTALL)[1])
NEVER = 2**31 - 1


class Calls(ctypes.Structure):
    """The number of calls made; those from first until before end fail with the error."""
    _fields_ = [(name, ctypes.c_int) for name in ("made", "first", "end", "error")]


class Faults(ctypes.Structure):
    """The layout of the start of the file, as in faults.h."""
    _fields_ = [("calls", Calls * len(FUNCTIONS)), ("clock_shift", ctypes.c_long), ("root", ctypes.c_char * 256)]

    def of(self, function):
        return self.calls[FUNCTIONS.index(function)]


def faults_in(path):
    path.write_bytes(bytes(ctypes.sizeof(Faults)))
    with open(path, "r+b") as file:
        return Faults.from_buffer(mmap.mmap(file.fileno(), 0))


# --- one run of the daemon ---------------------------------------------------------------------

# In each phase, the daemon receives a summary, a voice record and a session report. The next phase starts after they
# have been written and the report has been posted.
PHASES = 4
FILES_OF = {"s": "QoS_Stat.txt", "e": "QoS_Stat_Sessions_Summary.txt", "v": "RTP_Streams_No_Voice.pcap"}
EVENTS = {"s": "QOS_FAREND", "e": "QOS_EOS_FAREND"}
SURPLUS = "QoS_Stat_Sessions_Summary_2000-01-01_00-00-00.txt"      # one more than the daemon keeps
OLDER = ["QoS_Stat_Sessions_Summary_2001-01-01_00-00-00.txt", "QoS_Stat_Sessions_Summary_2002-01-01_00-00-00.txt",
         "QoS_Stat_2001-01-01_00-00-00.txt", "RTP_Streams_No_Voice_2001-01-01_00-00-00.pcap"]
OWN_FILES = {*(f"stat/{name}" for name in FILES_OF.values()), "root/var/log/current/d.log", "out", "err",
             "/dev/null"}       # as its standard input


def record(kind, phase):
    """The data that the phase adds to the file of this kind."""
    if kind == "v":
        return pcap_record(voice_record(f"v{phase}".encode()))
    return line(EVENTS[kind], RTCP_CNAME=f"{kind}{phase}").encode()


SESSIONS = {phase: record("s", phase).decode() for phase in range(1, PHASES + 1)}


def content(path):
    try:
        return path.read_bytes()
    except FileNotFoundError:   # already an archive, or not created yet
        return b""


class FaultyRun:
    """The n-th call of the function fails. With onwards, all later ones fail too, and the log is printed."""

    def __init__(self, directory, function, error, n, onwards):
        self.directory, self.n, self.onwards = directory, n, onwards
        self.rows = [row for row in FAILURES if (row.function, row.error) == (function, error)]
        self.cuts_log = function in ("open", "write", "stat")       # with a block of it
        self.afterwards = []    # the phases that started after the last failure
        self.stat = directory / "stat"
        self.stat.mkdir()
        for name in (SURPLUS, *OLDER):
            (self.stat / name).write_text(name)
        (directory / "root/var/log").mkdir(parents=True)
        self.faults = faults_in(directory / "faults")
        self.faults.root = bytes(directory / "root")
        memory = function == "allocation"
        self.calls = self.faults.of(function)
        self.calls.error, self.calls.first = error, n
        self.calls.end = n + 1 if not onwards else n + 10 if memory else NEVER
        self.web = Recorder()
        self.daemon = Daemon(
            directory, ["env", f"VOXSTAT_FAULTS={directory}/faults"], BUILD / "tests/faults/voxstat-faulty",
            elastic_url=self.web.url, max_file_size_rtp=50, log__file=None if onwards else "d",
            log__default=4, log__http=4 if memory else 2, log__network=4 if memory else None)

    # Events.

    def run(self):
        wait_for(lambda: self.has_ended() or self.faults.of("poll").made)
        ends = self.has_ended()
        if not ends:
            for phase in range(1, PHASES + 1):
                self.run_phase(phase)
            wait_for(self.holds_only_its_files, what="for files to be closed")
            self.stop()
        self.daemon.wait()
        assert ends == any(row.ends for row in self.logged_rows())
        assert self.logged_rows() or not self.has_failed(), "the failure is not logged"
        assert ends or self.loses_no_more()
        self.check_files()
        self.check_posts()
        text = self.output()
        assert self.cuts_log or "] [0x" not in STAMP.sub("", text), "the log has an incomplete line"
        ends = r"(Terminating (application|SimpleLogger thread)\.{3}|Failed to open /var/log/current/d\.log)\n+\Z"
        assert PHASES not in self.afterwards or re.search(ends, text), "the log does not continue"

    def has_ended(self):
        return self.daemon.process.poll() is not None

    def has_failed(self):
        return self.calls.made >= self.n

    def run_phase(self, phase):
        if self.calls.made >= self.calls.end - 1:
            self.afterwards.append(phase)
        self.daemon.send(report(EVENTS["e"], RTCP_CNAME=f"e{phase}"))
        self.daemon.send_voice(voice_record(f"v{phase}".encode()))
        self.daemon.send(report(EVENTS["s"], RTCP_CNAME=f"s{phase}"))
        is_last = phase == PHASES
        looks = itertools.count()

        def has_arrived():
            assert not self.has_ended()
            if next(looks) % 50 == 0:   # again if a writer set its time after the jump
                self.faults.clock_shift += 50 if is_last else 100   # the last summary is not yet due
            return self.loses_no_more(phase, phase - is_last)
        wait_for(has_arrived, what=f"in phase {phase}")

    def stop(self):
        """Sends the signal repeatedly: one between the check of the flag and the wait is noticed late."""
        number = signal.SIGINT if "Failed to register SIGTERM" in self.output() else signal.SIGTERM
        wait_for(lambda: self.has_ended() or self.daemon.process.send_signal(number))

    # Messages and losses.

    def output(self):
        return self.daemon.output() + content(self.directory / "root/var/log/current/d.log").decode(errors="replace")

    def logged_rows(self):
        """The rows of the table whose message is in the log, and the one that needs no message."""
        text = STAMP.sub(r"\1", self.output())
        text = text.replace(str(self.daemon.port), "QOS").replace(str(self.daemon.port + 1), "VOICE")

        def is_logged(message):
            return re.search(r"^(\[ERROR\] )?" + re.escape(message).replace(r"\*", ".*") + "$", text, re.MULTILINE)
        return [row for row in self.rows if row.says is None or is_logged(row.says)]

    def loses_no_more(self, phases=PHASES, summaries=PHASES):
        """Whether the records and posts of this many phases have arrived, except for those that may be lost."""
        files = {kind: self.files(kind) for kind in FILES_OF}
        posted = "".join(body for _, _, body in list(self.web.requests))
        records = [phase for kind, texts in files.items() for phase in range(1, phases + 1)
                   if (kind != "e" or phase <= summaries) and b"".join(texts).count(record(kind, phase)) != 1]
        records += [0 for kind, texts in files.items() for text in texts if not text.startswith(header_of(kind))]
        posts = [phase for phase in range(1, phases + 1) if posted.count(batch([SESSIONS[phase]])[2:-2]) != 1]
        costs = [row.onwards if self.onwards else row.once for row in self.logged_rows() if self.has_failed()]
        return all(sum(allowed) >= ALL or (len(lost) <= sum(allowed) and not set(lost) & set(self.afterwards))
                   for lost, allowed in zip((records, posts), zip((0, 0), *costs)))

    # Results.

    def files(self, kind):
        """The contents of the files of this kind, without the older ones."""
        stem, extension = FILES_OF[kind].split(".")
        archives = [path for path in self.stat.glob(f"{stem}_2*.{extension}") if path.name not in (SURPLUS, *OLDER)]
        return [content(path) for path in (*archives, self.stat / FILES_OF[kind]) if path.exists()]

    def check_files(self):
        assert all(content(self.stat / name) == name.encode() for name in OLDER)
        for kind in FILES_OF:
            for rest in self.files(kind):
                for part in (header_of(kind), *(record(kind, phase) for phase in range(1, PHASES + 1))):
                    rest = rest.replace(part, b"")
                if self.calls.error == errno.ENOMEM:
                    rest = rest.strip(b"\n")    # a report without memory for its line leaves an empty line
                assert not rest or self.calls.error == SHORT_COUNT

    def check_posts(self):
        """They are complete, except for one whose body could not be set."""
        bodies = [(body, re.findall('"message": "(.*)"', body)) for _, _, body in self.web.requests]
        whole = [rows for body, rows in bodies if body == batch(rows)]
        assert {row + "\n" for rows in whole for row in rows if "Service_Packet" not in row} <= {*SESSIONS.values()}
        assert len(whole) == len(bodies) or any("POSTFIELDS" in (row.says or "") for row in self.logged_rows())

    def holds_only_its_files(self):
        """Each file is open once, and no deleted file is; a directory is open only while it is read."""
        held = []
        for descriptor in Path(f"/proc/{self.daemon.process.pid}/fd").iterdir():
            try:
                held.append(os.readlink(descriptor))
            except FileNotFoundError:
                return False
        place = f"{self.directory}/"
        own = [path.removeprefix(place) for path in held if path.startswith((place, "/dev/"))]
        return len(own) == len(set(own)) and set(own) <= OWN_FILES


def header_of(kind):
    name = FILES_OF[kind]
    return HEADERS[name].encode() if name in HEADERS else PCAP_HEADER


# --- all calls ----------------------------------------------------------------------------------

KINDS = list(dict.fromkeys((row.function, row.error) for row in FAILURES))


def faulty_run(function, error, n, onwards):
    """The number of calls of each function, and the expected messages of the run."""
    with tempfile.TemporaryDirectory(prefix="voxstat.") as name:
        run = FaultyRun(Path(name), function, error, n, onwards)
        try:
            run.run()
        except Exception as reason:
            call = f"{function} ({error}) #{n}{' and on' if onwards else ''}"
            raise AssertionError(f"{call}:\n{run.output()}") from reason
        finally:
            run.daemon.kill()
            run.web.close()
        return {function: run.faults.of(function).made for function in FUNCTIONS}, run.logged_rows()


def sweep(kinds, onwards, step=1):
    """One run for each call of these kinds, or for every n-th; several in parallel. Returns the expected messages in
    the order of the runs."""
    made, _ = faulty_run(*KINDS[0], NEVER, onwards)
    runs = [(function, error, n, onwards) for function, error in kinds for n in range(1, made[function] + 1, step)]
    with ThreadPoolExecutor(8) as pool:
        return dict.fromkeys(row for _, rows in pool.map(faulty_run, *zip(*runs)) for row in rows)


def test_each_call_once():
    said = sweep(KINDS, onwards=False)
    assert said.keys() == set(FAILURES)
    assert [row for row in said if row.function != "write"] == [row for row in FAILURES if row.function != "write"]


def test_ten_allocations_in_a_row():
    sweep([("allocation", errno.ENOMEM)], onwards=True, step=5)


@pytest.mark.long
def test_all_calls_from_one_on():
    # Without its signal handlers, the daemon could not be stopped.
    sweep([kind for kind in KINDS if kind[0] != "signal"], onwards=True)
