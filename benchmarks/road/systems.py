"""The compared systems: how to start each system's broker, and its client programs."""

import getpass
import os
import shutil
import socket

from processes import Process, RunFailed, wait_until

PRODUCT_PORTS = (5555, 5556, 5557)


def free_ports(count):
    sockets = [socket.socket() for _ in range(count)]
    try:
        for one in sockets:
            one.bind(("127.0.0.1", 0))
        return [one.getsockname()[1] for one in sockets]
    finally:
        for one in sockets:
            one.close()


def accepts(port):
    with socket.socket() as one:
        return one.connect_ex(("127.0.0.1", port)) == 0


def write(path, text):
    with open(path, "w", encoding="ascii") as file:
        file.write(text)
    return path


class System:
    """`start` returns the broker and the arguments for the clients."""

    name = title = client = broker = ""
    packages = ()
    keeps_values = True
    can_be_asked = True

    def __init__(self, build):
        self.build = build

    def client_program(self):
        return os.path.join(self.build, "benchmarks/road", self.client)

    def broker_program(self):
        return shutil.which(self.broker, path=os.environ.get("PATH", "") + ":/usr/sbin:/sbin")

    def is_there(self):
        return self.broker_program() is not None and os.access(self.client_program(), os.X_OK)

    def start(self, folder):
        raise NotImplementedError


class Product(System):
    name, title, client = "product", "statusbroker", "road-product"

    def broker_program(self):
        return os.path.join(self.build, "broker/statusbroker")

    def start(self, folder, *options):
        taken = [port for port in PRODUCT_PORTS if accepts(port)]
        if taken:
            raise SystemExit(f"bench: the product's port {taken[0]} is in use; stop what uses it")
        broker = Process([self.broker_program(), *options], folder)
        broker.wait_for_log("Serving")
        return broker, []


class Floor(System):
    client = "road-floor"
    format = ""

    def broker_program(self):
        return os.path.join(self.build, "benchmarks/floor/floorbroker")

    def start(self, folder):
        arguments = [self.format, *map(str, free_ports(3))]
        broker = Process([self.broker_program(), *arguments], folder)
        broker.wait_for_log("ready")
        return broker, arguments


class JsonFloor(Floor):
    name, title, format = "json", "floor: ZeroMQ and JSON", "json"


class RawFloor(Floor):
    name, title, format = "raw", "floor: ZeroMQ alone", "raw"


class Mqtt(System):
    client, broker = "road-mqtt", "mosquitto"
    packages = ("mosquitto", "libmosquitto1")
    can_be_asked = False
    qos = 0

    def start(self, folder):
        port = free_ports(1)[0]
        # Without limits, because messages beyond a limit would be lost.
        configuration = write(
            os.path.join(folder, "mosquitto.conf"),
            f"listener {port} 127.0.0.1\nallow_anonymous true\npersistence false\nlog_type error\n"
            f"user {getpass.getuser()}\nset_tcp_nodelay true\nmax_queued_messages 0\n"
            "max_inflight_messages 0\n")
        broker = Process([self.broker_program(), "-c", configuration], folder)
        wait_for_port(broker, port)
        return broker, [str(self.qos), str(port)]


class Mqtt0(Mqtt):
    name, title, qos = "mqtt0", "mosquitto, QoS 0", 0


class Mqtt1(Mqtt):
    name, title, qos = "mqtt1", "mosquitto, QoS 1", 1


class Redis(System):
    name, title, client, broker = "redis", "Redis", "road-redis", "redis-server"
    packages = ("redis-server", "libhiredis0.14")

    def start(self, folder):
        port = free_ports(1)[0]
        configuration = write(os.path.join(folder, "redis.conf"),
                              f'bind 127.0.0.1\nport {port}\nsave ""\nappendonly no\ndir {folder}\n')
        broker = Process([self.broker_program(), configuration], folder)
        wait_for_port(broker, port)
        return broker, [str(port)]


class Dbus(System):
    name, title, client, broker = "dbus", "D-Bus", "road-dbus", "dbus-daemon"
    packages = ("dbus-daemon", "libsystemd0")
    keeps_values = False

    def start(self, folder):
        path = os.path.join(folder, "bus")
        # The limits of the session bus; the system bus limits its queues more tightly.
        limits = "".join(f'<limit name="{name}">1000000000</limit>' for name in (
            "max_incoming_bytes", "max_outgoing_bytes", "max_message_size"))
        configuration = write(
            os.path.join(folder, "bus.conf"),
            '<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN" '
            '"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">\n'
            f"<busconfig><type>session</type><listen>unix:path={path}</listen><auth>EXTERNAL</auth>"
            '<policy context="default"><allow send_destination="*" eavesdrop="true"/>'
            f'<allow eavesdrop="true"/><allow own="*"/></policy>{limits}</busconfig>\n')
        if os.path.exists(path):
            os.unlink(path)
        broker = Process([self.broker_program(), f"--config-file={configuration}", "--nofork", "--nopidfile"],
                         folder)
        wait_until(lambda: os.path.exists(path) or broker.has_ended(), 10, "dbus-daemon made no socket")
        broker.check_alive()
        return broker, [f"unix:path={path}"]


def wait_for_port(broker, port):
    wait_until(lambda: accepts(port) or broker.has_ended(), 10, f"{broker.name} did not listen")
    broker.check_alive()


ALL = (Product, JsonFloor, RawFloor, Mqtt0, Mqtt1, Redis, Dbus)
