"""The batches that are posted: their form, and when they are due."""
import re

from conftest import batch, line, report, wait_for

START = 1700000000


def row(name, size=0):
    """A line's name with which its JSON takes so many bytes."""
    return name + "-" * max(0, size - len(batch([line(RTCP_CNAME=name)])) + 4)


def web_log(daemon):
    """What the web client says by itself, without libcurl's trace and the addresses of handles."""
    own = ("[INFO]", "[WARN]", "[ERROR]", "[TRACE] Starting", "[TRACE] Total", "[DEBUG] HTTP")
    return [re.sub("0x[0-9a-f]+", "HANDLE", entry) for entry in daemon.log() if entry.startswith(own)]


def test_first_line_goes_at_once(start, web):
    daemon = start(elastic_url=web.url + "?a=b", log__http=4, log__network=1)
    daemon.send(report("QOS_EOS_NEAREND"), report("QOS"), report(RTCP_CNAME="first"))
    daemon.logged("Total idle curl handles: 5")
    daemon.stop()
    body = batch([line(RTCP_CNAME="first")])
    (path, headers, posted), = web.requests
    assert (path, headers["Content-Type"], posted) == ("/qos?a=b", "application/json", body)
    assert web_log(daemon) == [
        "[WARN] Caught an exception: Failed to open config file: DIR/sn",
        "[ERROR] Failed to allocate _log_string event for QoS packet...",
        "[TRACE] Total idle curl handles: 4",
        f"[TRACE] Starting http transmission of {len(body)} bytes for the curl handle HANDLE",
        "[DEBUG] HTTP buffer sent for the handle: HANDLE\n" + body,
        f"[INFO] Finished http transmission of {len(body)} bytes for the curl handle HANDLE",
        "[TRACE] Total idle curl handles: 5",
        *["[INFO] Terminating WebClient thread..."] * 5,
        f"[INFO] WebClient stat: Lines Sent=1; Bytes Sent={len(body)}"]
    assert "[DEBUG] WebClient::WC_Write() new event: " + body[2:-2] in daemon.log()


def test_when_a_batch_is_due(start, web, clock):
    clock.set(START)
    daemon = start(elastic_url=web.url, launch=clock.launch)
    ten = [row(f"{i}", 920) for i in range(10)]
    lines = [[row("first")], [row("a"), row("b")], [*ten, row("c", 1019)], [*ten, row("d", 1020)]]
    for number, names in enumerate(lines):
        daemon.send(*(report(RTCP_CNAME=name) for name in names))
        if number in (1, 2):    # too few bytes, and too early for them
            clock.set(START + 6 * number - 1)
            wait_for(daemon.drained)
            daemon.passes("QoS_Web")
            assert len(web.requests) == number
            clock.set(START + 6 * number)
        wait_for(lambda: len(web.requests) > number)
    assert [body for _, _, body in web.requests] == [
        batch(line(RTCP_CNAME=name) for name in names) for names in lines]
    assert len(batch(line(RTCP_CNAME=name) for name in lines[3])) == 10240 + 4
    daemon.stop()


def test_everything_once_and_in_order(start, web):
    """Whatever the server answers."""
    web.status = 500
    daemon = start(elastic_url=web.url)
    lines = [line(RTCP_CNAME=f"n{i}") for i in range(2000)]
    for at in range(0, len(lines), 50):
        daemon.send(*(report(RTCP_CNAME=f"n{i}") for i in range(at, at + 50)))
        wait_for(lambda: min(len(web.lines()), daemon.text().count("\n")) > at - 100)  # less may wait for its time
    daemon.stop()
    assert daemon.log() == ["[WARN] Caught an exception: Failed to open config file: DIR/sn"]
    assert daemon.text().splitlines(keepends=True)[1:] == lines
    assert sorted(web.lines(), key=lines.index) == lines[:len(web.lines())]
    for _, _, body in web.requests:
        first = lines.index(body.splitlines()[1][13:].split('"')[0] + "\n")
        assert body == batch(lines[first:first + body.count("message")])
