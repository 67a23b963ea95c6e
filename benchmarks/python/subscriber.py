#!/usr/bin/python3
"""A Python process that follows keys in one of the compared systems, as its users would write it.

    subscriber.py CLIENT KEYS LAST ARGUMENT...

Prints a line of JSON after the first value, and another one when the value has come that ends with LAST. The arguments
are those of the clients in road/. Probes come before: their values have run 0.
"""

import asyncio
import json
import sys
import time

PROBE = "a" * 8
VALUE = 32  # characters


class Counting:
    """Counts values between the first one that is no probe and the last one."""

    def __init__(self, last):
        self._last = last
        self._has_started = False
        self.count = 0
        self.begin = self.cpu = None

    def take(self, value):
        """Returns whether this was the last one."""
        if value[16:24] == PROBE:
            if not self._has_started:
                self._has_started = True
                print("{}", flush=True)
            return False
        if self.begin is None:
            self.begin, self.cpu = time.monotonic(), time.process_time()
        self.count += 1
        return value.endswith(self._last)

    def report(self):
        seconds, cpu = time.monotonic() - self.begin, time.process_time() - self.cpu
        print(json.dumps({"rate": self.count / seconds, "count": self.count, "cpu": cpu / self.count * 1e6}), flush=True)


def watch(keys, counting, _):
    import statusmanager

    async def follow():
        async with statusmanager.connect() as status:
            async for change in status.watch(*keys):
                if isinstance(change, statusmanager.Change) and counting.take(change.value):
                    break

    asyncio.run(follow())


def blocking(keys, counting, _):
    import statusmanager

    with statusmanager.connect_blocking() as status:
        for change in status.watch(*keys):
            if isinstance(change, statusmanager.Change) and counting.take(change.value):
                break


def zmq_json(keys, counting, _):
    import zmq

    wanted = set(keys)
    socket = zmq.Context().socket(zmq.SUB)
    socket.connect("tcp://127.0.0.1:5557")
    socket.subscribe(b"")
    while True:
        text = b"".join(socket.recv_multipart())
        if text == b"Sync":
            continue
        for key, value in json.loads(text).get("statusUpdate", {}).items():
            if key in wanted and counting.take(value):
                return


def zmq_plain(keys, counting, arguments):
    import zmq

    socket = zmq.Context().socket(zmq.SUB)
    socket.set_hwm(0)
    socket.connect(f"tcp://127.0.0.1:{arguments[3]}")
    for key in keys:
        socket.subscribe(key.encode())
    while True:
        value = socket.recv().decode()[-VALUE:]
        if counting.take(value):
            return


def redis(keys, counting, arguments):
    import redis as client

    subscription = client.Redis(port=int(arguments[0]), decode_responses=True).pubsub(ignore_subscribe_messages=True)
    subscription.subscribe(*keys)
    for message in subscription.listen():
        if counting.take(message["data"]):
            return


def mqtt(keys, counting, arguments):
    import paho.mqtt.client as paho

    def on_message(client, _, message):
        if counting.take(message.payload.decode()):
            client.disconnect()

    client = paho.Client()
    client.on_message = on_message
    client.connect("127.0.0.1", int(arguments[1]))
    client.subscribe([(key, int(arguments[0])) for key in keys])
    client.loop_forever()


def main():
    name, keys, last, *arguments = sys.argv[1:]
    counting = Counting(last)
    globals()[name]([f"key.{number:05}" for number in range(int(keys))], counting, arguments)
    counting.report()
    sys.stdin.read()  # until the CPU time of this process has been read


if __name__ == "__main__":
    main()
