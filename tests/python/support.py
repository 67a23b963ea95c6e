"""What the tests share."""

import asyncio
import functools
import os
from typing import Any, Awaitable, Callable, Coroutine, List, TypeVar

from statusmanager import Synced, Watch, WatchItem

T = TypeVar("T")

TIME_FACTOR = int(os.environ.get("TEST_TIME_FACTOR", "1"))
DEADLINE = 30.0 * TIME_FACTOR
#: For what must not come: as long as a client may wait in a test that passes.
MOMENT = 0.05


def asynchronous(test: Callable[..., Coroutine[Any, Any, None]]) -> Callable[..., None]:
    """Run a test in an event loop, with a deadline."""

    @functools.wraps(test)
    def run(*arguments: Any, **named: Any) -> None:
        asyncio.run(asyncio.wait_for(test(*arguments, **named), DEADLINE))

    return run


async def until_synced(watch: Watch) -> List[WatchItem]:
    """Return the first items, up to Synced."""
    items: List[WatchItem] = []
    while not items or not isinstance(items[-1], Synced):
        items.append(await watch.__anext__())
    return items


async def next_other_than(watch: Watch, *known: WatchItem) -> WatchItem:
    """Return the next item that is new: the same value may come twice."""
    while True:
        item = await watch.__anext__()
        if item not in known:
            return item


async def eventually(condition: Callable[[], Awaitable[bool]]) -> None:
    """Wait until a condition holds."""
    while not await condition():
        await asyncio.sleep(0.01)


