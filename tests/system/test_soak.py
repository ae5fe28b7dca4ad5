"""Minutes of mixed traffic with a server that is sometimes down: no resource grows, and every loss is counted."""
import re
import time
from pathlib import Path

import pytest

from conftest import SANITIZERS, report, voice_record, wait_for

pytestmark = pytest.mark.long
SECONDS = 120
GARBAGE = ["", "\0", "=" * 1023, "QOS_EV_TYPE\n" * 80, "QOS_EV_TYPE=QOS_NEAREND\nQOS_EV_PORT=" + "9" * 900]


def use(daemon):
    """Kilobytes of memory; descriptors and threads."""
    process = Path(f"/proc/{daemon.process.pid}")
    memory = int(re.search(r"VmRSS:\s*(\d+)", (process / "status").read_text())[1])
    return memory, len(list(process.glob("fd/*"))) + len(list(process.glob("task/*")))


def test_soak(start, web):
    daemon = start(elastic_url=web.url, max_file_size_rtp=100000, max_archived_files_rtp=3)
    begun, sent, samples = time.monotonic(), 0, []
    while (passed := time.monotonic() - begun) < SECONDS:
        daemon.send(*(report(RTCP_CNAME=f"soak-{sent + i}") for i in range(20)), *GARBAGE)
        daemon.send(report("QOS_EOS_NEAREND", RTCP_CNAME="x" * 900))
        daemon.send_voice(*[voice_record(b"v" * 160)] * 20, b"garbage")
        sent += 20
        wait_for(daemon.drained)
        phase = int(passed) // 5 % 4
        web.closing, web.status = phase == 1, 500 if phase == 2 else 200
        web.speaks.clear() if phase == 3 else web.speaks.set()
        if passed > len(samples):
            web.requests.clear()
            samples.append(use(daemon))
    web.speaks.set()
    assert sum(dropped for _, dropped in daemon.sockets()) == 0      # by the kernel, because a socket was full
    daemon.stop()
    # The allocator keeps a little; a connection to the server is open now and then.
    warm, late = (list(zip(*some)) for some in (samples[SECONDS // 4:SECONDS // 2], samples[3 * SECONDS // 4:]))
    assert (SANITIZERS or max(late[0]) <= max(warm[0]) + 1024) and max(late[1]) <= max(warm[1])
    texts = "".join(path.read_text() for path in sorted(daemon.stat.glob("QoS_Stat_2*.txt"))) + daemon.text()
    numbers = [int(number) for number in re.findall(r" soak-(\d+)\n", texts)]
    lost = sum(map(int, re.findall(r"QoS WRITE OVERFLOW: (\d+)messages lost", daemon.output())))
    assert numbers == sorted(set(numbers)) and sent - lost <= len(numbers) <= sent
