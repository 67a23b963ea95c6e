"""Peers that send whatever they like. Each crowd is a process of its own."""

import contextlib
import dataclasses
import select
import socket
import time

import zmtp

SMALL_BUFFER = 4096
TURN = 1 << 18  # bytes


@dataclasses.dataclass(frozen=True)
class Crowd:
    """Equal peers. They do not wait for the broker's part of the handshake, which the protocol allows."""

    count: int
    socket_type: bytes
    opening: bytes = b""  # sent once on each connection
    endless: tuple = ()  # sent again and again, as fast as the broker takes it
    pause: float = 0  # seconds between two of the endless
    reads: bool = False
    vanishes: bool = False  # closes its connection when it has sent the opening, and connects again
    identities: int = 0  # so many different ones are claimed; 0: none

    def run(self, is_over):
        return Running(self).run(is_over)


class Member:
    """A peer. If its connection is closed, it connects again."""

    def __init__(self, crowd, number):
        self.crowd = crowd
        self.identity = b"%d" % (number % crowd.identities) if crowd.identities else None
        self.socket = None
        self.rest = memoryview(b"")
        self.sent = 0
        self.next = 0  # of the endless
        self.due = 0.0

    def connect(self):
        self.close()
        self.socket = socket.socket()
        self.socket.setblocking(False)
        if not self.crowd.reads:
            self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, SMALL_BUFFER)
        self.socket.connect_ex(("127.0.0.1", zmtp.PORTS[self.crowd.socket_type]))
        ready = zmtp.ready(self.crowd.socket_type, self.identity)
        self.rest = memoryview(zmtp.GREETING + ready + self.crowd.opening)

    def close(self):
        if self.socket is not None:
            self.socket.close()

    def has_more(self, now):
        return bool(self.rest) or (bool(self.crowd.endless) and now >= self.due)

    def send(self, now):
        """Returns whether it goes on with this connection."""
        if not self.rest and self.crowd.endless:
            self.rest = memoryview(self.crowd.endless[self.next % len(self.crowd.endless)])
            self.next += 1
            self.due = now + self.crowd.pause
        count = self.socket.send(self.rest[:TURN])
        self.sent += count
        self.rest = self.rest[count:]
        return bool(self.rest) or not self.crowd.vanishes

    def receive(self):
        return self.socket.recv(TURN) != b""


class Running:
    """A crowd at work."""

    def __init__(self, crowd):
        self.crowd = crowd
        self.members = [Member(crowd, number) for number in range(crowd.count)]
        self.connections = 0
        self.epoll = select.epoll()
        self.by_descriptor = {}
        self.idle = set()  # they wait for their time to send

    def run(self, is_over):
        for member in self.members:
            self.connect(member)
        while not is_over():
            for descriptor, events in self.epoll.poll(0.01):
                self.act(self.by_descriptor[descriptor], events)
            self.wake()
        return {"connections": self.connections, "bytes": sum(member.sent for member in self.members)}

    def interest(self, sends):
        return select.EPOLLRDHUP | (select.EPOLLIN if self.crowd.reads else 0) | (select.EPOLLOUT if sends else 0)

    def connect(self, member):
        self.idle.discard(member)
        member.connect()
        self.connections += 1
        self.by_descriptor[member.socket.fileno()] = member
        self.epoll.register(member.socket, self.interest(True))

    def act(self, member, events):
        now = time.monotonic()
        goes_on = not events & (select.EPOLLRDHUP | select.EPOLLHUP | select.EPOLLERR)
        with contextlib.suppress(BlockingIOError):
            try:
                if goes_on and events & select.EPOLLIN:
                    goes_on = member.receive()
                if goes_on and events & select.EPOLLOUT:
                    goes_on = member.send(now)
            except ConnectionError:
                goes_on = False
        if not goes_on:
            self.connect(member)
        elif not member.has_more(now) and member not in self.idle:
            self.epoll.modify(member.socket, self.interest(False))
            if self.crowd.endless:
                self.idle.add(member)

    def wake(self):
        now = time.monotonic()
        for member in [one for one in self.idle if one.has_more(now)]:
            self.idle.remove(member)
            self.epoll.modify(member.socket, self.interest(True))


@dataclasses.dataclass(frozen=True)
class Knockers:
    """They only connect and close."""

    held: int  # connections at a time

    @property
    def count(self):
        return self.held

    def run(self, is_over):
        connections = 0
        held = [socket.socket() for _ in range(self.held)]
        ports = list(zmtp.PORTS.values())
        while not is_over():
            place = connections % self.held
            held[place].close()
            held[place] = socket.socket()
            held[place].setblocking(False)
            held[place].connect_ex(("127.0.0.1", ports[connections % len(ports)]))
            connections += 1
        return {"connections": connections, "bytes": 0}
