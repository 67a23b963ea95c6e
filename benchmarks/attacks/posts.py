"""The texts of posts."""

import json

MEGABYTE = 1_000_000
LONG_VALUE = 60_000


def document(name, members):
    return json.dumps({name: members}, ensure_ascii=False, separators=(",", ":")).encode()


def long_values(key, size, filler):
    return {f"{key}{number}": filler * min(LONG_VALUE, size) for number in range(-(-size // LONG_VALUE))}


def state():
    """The posts after which the device holds nearly as much as it may."""
    posts = [document("postStatus", long_values(f"full{number}.", MEGABYTE, "x")) for number in range(3)]
    posts += [document("postStatus", {f"short{number}": "a value of some length"}) for number in range(4000)]
    return posts + [document("postStatus", {"long": "x" * 65_000})]
