"""What every Python program here needs that runs daemons on loopback: ports for them, and waiting until something is so.

It lies beside the commands because the tests, the benchmarks, the fleet's trial and the commands share it, and none of
these should need another. Each of them puts this directory on its path.
"""
import itertools
import random
import socket
import time

# Below the range that the kernel gives to clients. No process gets a port twice, though it may open it late.
_PORTS = itertools.cycle(random.sample(range(10000, 32000, 2), 11000))


def free_port():
    """A port that nobody has now, nor the one above it, for datagrams and for connections."""
    for port in _PORTS:
        try:
            for kind in (socket.SOCK_STREAM, socket.SOCK_DGRAM):
                with socket.socket(type=kind) as one, socket.socket(type=kind) as two:
                    one.bind(("", port))
                    two.bind(("", port + 1))
            return port
        except OSError:
            continue


def wait_for(condition, seconds=30, what=""):
    """Returns what the condition gives as soon as it is true; raises TimeoutError after that many seconds."""
    deadline = time.monotonic() + seconds
    while not (result := condition()):
        if time.monotonic() > deadline:
            raise TimeoutError(f"waited {seconds} s in vain: {what}")
        time.sleep(0.01)
    return result
