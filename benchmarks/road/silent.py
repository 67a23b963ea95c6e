"""Connections to the product's ports that complete the handshake and then send nothing."""

import contextlib
import itertools
import resource
import socket

import zmtp

SPARE_DESCRIPTORS = 200

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


def connect(socket_type):
    connection = socket.create_connection(("127.0.0.1", zmtp.PORTS[socket_type]), timeout=10)
    connection.sendall(zmtp.GREETING + zmtp.ready(socket_type))
    receive(connection, len(zmtp.GREETING))
    receive(connection, receive(connection, COMMAND_HEADER)[1])
    return connection


@contextlib.contextmanager
def silent_connections(count):
    """Spreads the connections over the ports, so that no port exceeds its limit."""
    allow_descriptors(count)
    with contextlib.ExitStack() as stack:
        for socket_type in itertools.islice(itertools.cycle(zmtp.PORTS), count):
            stack.enter_context(connect(socket_type))
        yield
