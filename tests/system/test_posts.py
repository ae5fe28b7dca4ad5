"""The posted batches, their format, and the messages of the web client."""
import re

from conftest import batch, line, report, wait_for


def test_first_line_is_posted_at_once(start, web):
    daemon = start(elastic_url=web.url + "?a=b", log__http=4)
    daemon.send(report("QOS_EOS_NEAREND"), report("QOS"), report(RTCP_CNAME="first"))
    daemon.logged("Total idle curl handles: 5")
    daemon.stop()
    body = batch([line(RTCP_CNAME="first")])
    (path, headers, posted), = web.requests
    assert (path, headers["Content-Type"], posted) == ("/qos?a=b", "application/json", body)
    assert "[DEBUG] WebClient::WC_Write() new event: " + body[2:-2] in daemon.log()
    # The web client's own messages, without libcurl's trace.
    own = ("[INFO]", "[TRACE] Starting", "[TRACE] Total", "[DEBUG] HTTP")
    handle, = {number for entry in daemon.log() for number in re.findall("handle:? (0x[0-9a-f]+)", entry)}
    transmission = f"http transmission of {len(body)} bytes for the curl handle {handle}"
    assert [entry for entry in daemon.log() if entry.startswith(own)] == [
        "[TRACE] Total idle curl handles: 4", f"[TRACE] Starting {transmission}",
        f"[DEBUG] HTTP buffer sent for the handle: {handle}\n{body}", f"[INFO] Finished {transmission}",
        "[TRACE] Total idle curl handles: 5", *5 * ["[INFO] Terminating WebClient thread..."],
        f"[INFO] WebClient stat: Lines Sent=1; Bytes Sent={len(body)}"]


def test_everything_once_and_in_order(start, web):
    """The same for every answer of the server."""
    web.status = 500
    daemon = start(elastic_url=web.url)
    lines = [line(RTCP_CNAME=f"n{i}") for i in range(2000)]
    for at in range(0, len(lines), 50):
        daemon.send(*(report(RTCP_CNAME=f"n{i}") for i in range(at, at + 50)))
        wait_for(lambda: min(len(web.lines()), daemon.text().count("\n")) > at - 100)  # fewer may still be waiting
    daemon.stop()
    assert daemon.log() == ["[WARN] Caught an exception: Failed to open config file: DIR/sn"]
    assert daemon.text().splitlines(keepends=True)[1:] == lines
    assert sorted(web.lines(), key=lines.index) == lines[:len(web.lines())]
    for _, _, body in web.requests:
        first = lines.index(body.splitlines()[1][13:].split('"')[0] + "\n")
        assert body == batch(lines[first:first + body.count("message")])
