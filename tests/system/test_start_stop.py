"""How the daemon starts and stops."""
import signal

import pytest

from conftest import HEADERS, line, report


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT, signal.SIGQUIT])
def test_each_signal_ends_it(daemon, number):
    daemon.send(report(RTCP_CNAME="first"))
    daemon.stop(number)
    assert daemon.text() == HEADERS["QoS_Stat.txt"] + line(RTCP_CNAME="first")
    assert daemon.log()[-2:] == ["[INFO] Terminating application...", "[INFO] Terminating SimpleLogger thread..."]
