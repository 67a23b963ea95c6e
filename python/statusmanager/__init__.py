"""The status of a device: values, events, timers and counters that its processes share.

With asyncio::

    async with statusmanager.connect() as status:
        await status.post({"door": "open"})
        async for change in status.watch("door", events=["bell"]):
            print(change)

Without, in scripts and tests::

    with statusmanager.connect_blocking() as status:
        status.post({"door": "open"})

The package uses the library libstatusmanager-c. No thread of the library ever calls into the interpreter. Connect after
fork(): in a child of a process that is connected, every call raises ForkedError.
"""

from statusmanager.blocking import BlockingCounter, BlockingStatus, BlockingTimer, BlockingWatch, connect_blocking
from statusmanager.client import Connecting, Counter, Status, Timer, Watch, connect
from statusmanager.errors import (
    ClosedError,
    ForkedError,
    InvalidArgumentError,
    LimitError,
    LostError,
    NotUnicodeError,
    ResourceError,
    StatusError,
    StatusTimeoutError,
    TooLongError,
    UnsendableError,
    UnusableError,
)
from statusmanager.items import Change, Event, Synced, WatchItem

__all__ = [
    "BlockingCounter",
    "BlockingStatus",
    "BlockingTimer",
    "BlockingWatch",
    "Change",
    "ClosedError",
    "Connecting",
    "Counter",
    "Event",
    "ForkedError",
    "InvalidArgumentError",
    "LimitError",
    "LostError",
    "NotUnicodeError",
    "ResourceError",
    "Status",
    "StatusError",
    "StatusTimeoutError",
    "Synced",
    "Timer",
    "TooLongError",
    "UnsendableError",
    "UnusableError",
    "Watch",
    "WatchItem",
    "connect",
    "connect_blocking",
]
