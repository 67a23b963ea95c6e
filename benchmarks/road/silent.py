"""Connections to the product's ports that complete the handshake and then send nothing."""

import contextlib
import itertools
import resource
import socket

PEERS = ((5555, b"REQ"), (5556, b"PUB"), (5557, b"SUB"))
SPARE_DESCRIPTORS = 200

# ZMTP 3.1.
GREETING = b"\xff" + bytes(8) + b"\x7f\x03\x01" + b"NULL".ljust(20, b"\0") + bytes(32)
COMMAND_HEADER = 2


def allow_descriptors(count):
    _, most = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (min(most, count + SPARE_DESCRIPTORS), most))


def receive(connection, count):
    received = b""
    while len(received) < count:
        part = connection.recv(count - len(received))
        if not part:
            raise ConnectionError("closed in its handshake")
        received += part
    return received


def connect(port, socket_type):
    connection = socket.create_connection(("127.0.0.1", port), timeout=10)
    ready = b"\x05READY\x0bSocket-Type" + len(socket_type).to_bytes(4, "big") + socket_type
    connection.sendall(GREETING + b"\x04" + bytes([len(ready)]) + ready)
    receive(connection, len(GREETING))
    receive(connection, receive(connection, COMMAND_HEADER)[1])
    return connection


@contextlib.contextmanager
def silent_connections(count):
    """Spreads the connections over the ports, so that no port exceeds its limit."""
    allow_descriptors(count)
    with contextlib.ExitStack() as stack:
        for peer in itertools.islice(itertools.cycle(PEERS), count):
            stack.enter_context(connect(*peer))
        yield
