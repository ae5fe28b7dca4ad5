"""The batches that are posted, their form, and what the web client says of them."""
import re

from conftest import batch, expected, line, report, wait_for

def test_first_line_goes_at_once(start, web):
    daemon = start(elastic_url=web.url + "?a=b", log__http=4, log__network=1)
    daemon.send(report("QOS_EOS_NEAREND"), report("QOS"), report(RTCP_CNAME="first"))
    daemon.logged("Total idle curl handles: 5")
    daemon.stop()
    body = batch([line(RTCP_CNAME="first")])
    (path, headers, posted), = web.requests
    assert (path, headers["Content-Type"], posted) == ("/qos?a=b", "application/json", body)
    assert "[DEBUG] WebClient::WC_Write() new event: " + body[2:-2] in daemon.log()
    # What the web client says by itself, without libcurl's trace.
    own = ("[INFO]", "[WARN]", "[ERROR]", "[TRACE] Starting", "[TRACE] Total", "[DEBUG] HTTP")
    said = "".join(entry + "\n" for entry in daemon.log() if entry.startswith(own))
    assert re.sub("0x[0-9a-f]+", "HANDLE", said) == expected("first_post.log")


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
