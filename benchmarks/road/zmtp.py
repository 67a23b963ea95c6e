"""The bytes that peers of the broker send: ZMTP 3.1."""

PORTS = {b"REQ": 5555, b"PUB": 5556, b"SUB": 5557}

GREETING = b"\xff" + bytes(8) + b"\x7f\x03\x01" + b"NULL".ljust(20, b"\0") + bytes(32)

MORE, LONG, COMMAND = 1, 2, 4


def header(size, flags=0):
    if size > 255:
        return bytes([flags | LONG]) + size.to_bytes(8, "big")
    return bytes([flags, size])


def frame(body, flags=0):
    return header(len(body), flags) + body


def command(name, details=b""):
    return frame(bytes([len(name)]) + name + details, COMMAND)


def ready(socket_type, identity=None):
    properties = {b"Socket-Type": socket_type} | ({} if identity is None else {b"Identity": identity})
    return command(b"READY", b"".join(
        bytes([len(name)]) + name + len(value).to_bytes(4, "big") + value for name, value in properties.items()))


def request(text):
    return frame(b"", MORE) + frame(text)
