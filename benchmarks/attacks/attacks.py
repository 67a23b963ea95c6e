"""The attacks. tests/broker/attacks/ has many of the same, and counts where this measures."""

import dataclasses

import zmtp
from crowd import Crowd, Knockers
from posts import LONG_VALUE, MEGABYTE, document, long_values


@dataclasses.dataclass(frozen=True)
class Attack:
    name: str
    title: str
    crowds: tuple = ()


def posters(count, size):
    """They change the values each time."""
    return Crowd(count, b"PUB", endless=tuple(
        zmtp.frame(document("postStatus", long_values("k", size, filler))) for filler in "xy"))


def posters_of(text):
    return Crowd(1, b"PUB", endless=(zmtp.frame(text),))


def posters_of_escapes():
    """Each character takes more time than plain text. An é becomes six bytes in the notification."""
    return Crowd(1, b"PUB", endless=tuple(
        zmtp.frame(document("postEvent", {f"k{number}": filler for number in range(16)}))
        for filler in ("é" * (LONG_VALUE // 2), "\x7f" * LONG_VALUE)))


def askers(count, text, reads=True, at_once=20):
    return Crowd(count, b"REQ", endless=(zmtp.request(text) * at_once,), reads=reads)


def subscribers(count, prefixes, **details):
    return Crowd(count, b"SUB", opening=b"".join(zmtp.command(b"SUBSCRIBE", prefix) for prefix in prefixes), **details)


def many_prefixes():
    return [b'{"statusUpdate":{"%d%s' % (number, b"x" * 200) for number in range(1170)] + [b""]


def dawdlers():
    """Together they send 1.2 KB/s, and each is always within a message."""
    return Crowd(60, b"PUB", opening=zmtp.header(MEGABYTE), endless=(b"x",), pause=0.05)


ALL = b'{"getClientInfo":"null"}'
ONE = b'{"getClientInfoValue":"long"}'
EMPTY_FRAMES = zmtp.frame(b"", zmtp.MORE) * 300_000 + zmtp.frame(b"")
SUBSCRIBE_AND_CANCEL = (zmtp.command(b"SUBSCRIBE") + zmtp.command(b"CANCEL")) * 300
SMALL_POSTS = tuple(zmtp.frame(b'{"postStatus":{"f":"%d"}}' % number) for number in range(2))
PINGS = zmtp.command(b"PING", bytes(2) + b"c" * 16) * 400

ATTACKS = (
    Attack("none", "no attack"),
    Attack("identities", "100 that claim each other's identities, ask and vanish", (
        Crowd(100, b"REQ", opening=zmtp.request(ONE), vanishes=True, identities=20),)),
    Attack("vanishing", "2 processes of 100 that post or subscribe, and vanish", (
        Crowd(100, b"PUB", opening=SMALL_POSTS[0], vanishes=True), subscribers(100, [b""], vanishes=True))),
    Attack("poster", "1 poster of messages of 1 MB", (posters(1, MEGABYTE),)),
    Attack("posters10", "10 posters of messages of 1 MB", (posters(10, MEGABYTE),)),
    Attack("posters100", "100 posters of messages of 10 KiB", (posters(100, 10 * 1024),)),
    Attack("numbers", "1 MB of numbers where names belong",
           (posters_of(b'{"resetStatus":[' + b"1," * (MEGABYTE // 2) + b"1]}"),)),
    Attack("brackets", "1 MB of brackets", (posters_of(b"[" * MEGABYTE),)),
    Attack("unfinished", "900 unfinished messages of 1 MB",
           (Crowd(900, b"PUB", opening=zmtp.frame(b"x" * MEGABYTE, zmtp.MORE)),)),
    Attack("unread", "300 clients that do not read their replies", (askers(300, ALL, reads=False),)),
    Attack("prefixes", "200 unreading subscribers with many prefixes, 1 poster of 1 MB",
           (subscribers(200, many_prefixes()), posters(1, MEGABYTE))),
    Attack("emptyFrames", "messages of 300,000 empty frames", (Crowd(1, b"PUB", endless=(EMPTY_FRAMES,)),)),
    Attack("stopped", "900 stopped subscribers, 1 poster of 64 KiB",
           (subscribers(900, [b""]), posters(1, LONG_VALUE))),
    Attack("closing", "20 subscribers to 256 KiB of prefixes, connecting and closing",
           (subscribers(20, many_prefixes(), vanishes=True),)),
    Attack("cancelling", "500 that subscribe and cancel without end",
           (Crowd(500, b"SUB", endless=(SUBSCRIBE_AND_CANCEL,), reads=True),)),
    Attack("dawdling", "60 always within a message, and endless Syncs of another",
           (dawdlers(), askers(1, b"Sync", at_once=1))),
    Attack("idle", "900 idle request connections", (Crowd(900, b"REQ"),)),
    Attack("silent", "900 post connections that answer no PING, 900 that ask",
           (Crowd(900, b"PUB"), askers(900, b"Sync", at_once=1))),
    Attack("flood", "60 posters that flood", (Crowd(60, b"PUB", endless=(b"".join(SMALL_POSTS) * 1000,)),)),
    Attack("pings", "900 that PING", (Crowd(900, b"SUB", endless=(PINGS,), reads=True),)),
    Attack("askAll", "900 that ask for the whole state", (askers(900, ALL),)),
    Attack("askOne", "900 that ask for a value of 64 KiB", (askers(900, ONE),)),
    Attack("escapes", "1 poster of texts of 1 MB that need escapes", (posters_of_escapes(),)),
    Attack("knocking", "2 processes that only connect and close", (Knockers(1000), Knockers(1000))),
)
