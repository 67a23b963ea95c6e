"""A network for this process alone, so that its broker meets no other one on the same ports."""

import contextlib
import ctypes
import errno
import fcntl
import os
import socket
import struct
import threading

_NEW_USER = 0x10000000
_NEW_NETWORK = 0x40000000
_GET_FLAGS, _SET_FLAGS, _UP = 0x8913, 0x8914, 0x1


class NetworkError(Exception):
    """This process cannot get a network of its own."""


def enter_own_network() -> None:
    """Move this process to a new network that has only a loopback interface, for ever.

    Threads that exist already stay where they are. Without root's rights, the kernel allows this only to a process
    with one thread.
    """
    user, group = os.geteuid(), os.getegid()
    try:
        _unshare(_NEW_NETWORK)
    except PermissionError:
        _enter_user_namespace(user, group)
    try:
        _bring_loopback_up()
    except OSError as error:
        raise NetworkError(f"the loopback interface cannot be used: {error}") from None


def _enter_user_namespace(user: int, group: int) -> None:
    try:
        _unshare(_NEW_USER | _NEW_NETWORK)
        with contextlib.suppress(FileNotFoundError):
            _write("/proc/self/setgroups", "deny")
        _write("/proc/self/uid_map", f"{user} {user} 1")
        _write("/proc/self/gid_map", f"{group} {group} 1")
    except OSError as error:
        if error.errno == errno.EINVAL:
            raise NetworkError(
                f"without root's rights, only a process with one thread can get a network of its own, and this one has "
                f"{len(os.listdir('/proc/self/task'))}, {threading.active_count()} of them Python's; "
                "run the tests with 'statusctl sandbox' and --statusbroker-network=shared"
            ) from None
        raise NetworkError(f"the kernel gives no network of its own: {error.strerror}") from None


def _unshare(flags: int) -> None:
    # os.unshare() came with Python 3.12.
    libc = ctypes.CDLL(None, use_errno=True)
    if libc.unshare(flags) != 0:
        code = ctypes.get_errno()
        raise OSError(code, os.strerror(code))


def _write(path: str, text: str) -> None:
    with open(path, "w", encoding="ascii") as file:
        file.write(text)


def _bring_loopback_up() -> None:
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as control:
        request = struct.pack("16sH14x", b"lo", 0)
        flags = struct.unpack("16sH14x", fcntl.ioctl(control, _GET_FLAGS, request))[1]
        fcntl.ioctl(control, _SET_FLAGS, struct.pack("16sH14x", b"lo", flags | _UP))
