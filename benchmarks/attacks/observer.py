#!/usr/bin/env python3
"""A well-behaved client that measures what it is served. It executes the commands that it reads, one a line:

    connect                           as a client that posts, asks and subscribes
    fill                              posts as much as the broker may hold
    observe SECONDS COUNT LONGEST     at least so long and so often, but no longer than LONGEST; times in seconds
    start                             as a new client: from its connections to the answer to its first Sync

It answers each with a line of JSON. One thread does everything, because a second one would delay the measured times.
"""

import contextlib
import json
import os
import select
import socket
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "../road"))

import zmtp  # noqa: E402
from posts import state  # noqa: E402

PATIENCE = 10  # seconds
PAUSE = 0.002  # between two measurements
KEY = "observer"


class Peer:
    """A connection, and what it has received. It answers each PING."""

    def __init__(self, socket_type):
        self.socket = socket.create_connection(("127.0.0.1", zmtp.PORTS[socket_type]), timeout=PATIENCE)
        self.socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self.received = bytearray()
        self.text = b""  # of the message that is being received
        self.is_greeted = False
        self.send(zmtp.GREETING + zmtp.ready(socket_type))

    def send(self, data):
        self.socket.sendall(data)

    def receive(self):
        """The texts of the messages that have arrived. An empty message tells nothing."""
        part = self.socket.recv(1 << 18)
        if not part:
            raise ConnectionError("the broker has closed a connection of the observer")
        self.received += part
        if not self.is_greeted:
            if len(self.received) < len(zmtp.GREETING):
                return []
            self.is_greeted = True
            del self.received[:len(zmtp.GREETING)]
        return [text for text in self.messages() if text]

    def messages(self):
        for flags, body in self.frames():
            if flags & zmtp.COMMAND:
                self.reply(body)
                continue
            self.text += body
            if not flags & zmtp.MORE:
                yield self.text
                self.text = b""

    def frames(self):
        while len(self.received) >= 2:
            flags = self.received[0]
            begin = 9 if flags & zmtp.LONG else 2
            if len(self.received) < begin:
                return
            end = begin + int.from_bytes(self.received[1:begin], "big")
            if len(self.received) < end:
                return
            body = bytes(self.received[begin:end])
            del self.received[:end]
            yield flags, body

    def reply(self, body):
        if body.startswith(b"\4PING"):
            self.send(zmtp.command(b"PONG", body[7:]))


class Observer:
    """Its post and request connections, and a subscription to its own value."""

    def __init__(self):
        self.post = Peer(b"PUB")
        self.request = Peer(b"REQ")
        self.notify = None
        self.poll = select.poll()
        self.peers = {}
        self.answer = None
        self.unconfirmed = 0
        self.delivered = {}  # the time at which each value came
        self.add(self.post)
        self.add(self.request)

    def add(self, peer):
        self.peers[peer.socket.fileno()] = peer
        self.poll.register(peer.socket, select.POLLIN)

    def subscribe(self):
        self.notify = Peer(b"SUB")
        self.add(self.notify)
        self.notify.send(zmtp.command(b"SUBSCRIBE", b'{"statusUpdate":{"%s"' % KEY.encode()))

    def wait_for(self, condition, what):
        deadline = time.monotonic() + PATIENCE
        while not condition():
            left = deadline - time.monotonic()
            if left <= 0:
                raise TimeoutError(f"no {what} within {PATIENCE} s")
            self.serve(left)

    def serve(self, seconds):
        for descriptor, _ in self.poll.poll(seconds * 1e3):
            peer = self.peers[descriptor]
            for text in peer.receive():
                if peer is self.request:
                    self.answer = text
                elif peer is self.notify:
                    self.delivered[json.loads(text)["statusUpdate"][KEY]] = time.monotonic()

    def ask(self, text):
        """Seconds until the answer."""
        self.answer = None
        begin = time.monotonic()
        self.request.send(zmtp.request(text))
        self.wait_for(lambda: self.answer is not None, f"answer to {text.decode()}")
        return time.monotonic() - begin

    def sync(self):
        """After posters were closed for lack of memory, the broker cannot confirm: the lost posts could be anyone's."""
        seconds = self.ask(b"Sync")
        self.unconfirmed += self.answer != b"SyncAck"
        return seconds

    def fill(self):
        for post in state():
            self.post.send(zmtp.frame(post))
        self.sync()
        if self.ask(b'{"getBrokerStatistics":"null"}') and json.loads(self.answer)["stored.keys"] < len(state()):
            raise ValueError("the broker has not stored the state")

    def round(self, value):
        """Posts the value. Returns the seconds of a query, a Sync and the delivery."""
        begin = time.monotonic()
        self.post.send(zmtp.frame(json.dumps({"postStatus": {KEY: value}}).encode()))
        query = self.ask(json.dumps({"getClientInfoValue": KEY}).encode())
        sync = self.sync()
        self.wait_for(lambda: value in self.delivered, "delivery")
        return query, sync, self.delivered.pop(value) - begin

    def observe(self, seconds, count, longest):
        begin = time.monotonic()
        rounds = []
        while (passed := time.monotonic() - begin) < seconds or len(rounds) < count and passed < longest:
            rounds.append(self.round(f"{begin} {len(rounds)}"))
            self.serve(PAUSE)
        return dict(zip(("query", "sync", "delivery"), zip(*rounds))) | {"unconfirmed": self.unconfirmed}


def start():
    """A client of the library connects again by itself, so a start goes on over closed connections."""
    begin = time.monotonic()
    while time.monotonic() < begin + PATIENCE:
        with contextlib.suppress(ConnectionError):
            newcomer = Observer()
            newcomer.sync()
            return {"start": time.monotonic() - begin, "unconfirmed": newcomer.unconfirmed}
    raise TimeoutError(f"no start within {PATIENCE} s")


def main():
    observer = None
    for line in sys.stdin:
        name, *numbers = line.split()
        result = None
        if name == "start":
            result = start()
        elif name == "connect":
            observer = Observer()
            observer.sync()
            observer.subscribe()
        elif name == "fill":
            observer.fill()
        else:
            result = observer.observe(*map(float, numbers))
        print(json.dumps(result), flush=True)


if __name__ == "__main__":
    main()
