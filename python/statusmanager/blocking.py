"""The client for programs without an event loop: scripts, and tests."""

import itertools
import math
import select
import threading
import time
import weakref
from typing import Callable, Dict, Iterable, Iterator, List, Mapping, Optional, Sequence

from statusmanager.client import BATCH, subscribe, updates
from statusmanager.errors import ClosedError, LimitError, StatusTimeoutError
from statusmanager.handle import ANOTHER_MS, Handle, Opener, Question, TimerAction
from statusmanager.items import Answer, Change, Synced, WatchItem
from statusmanager.opening import open_handle
from statusmanager.times import Pauses, limit, milliseconds

# A thread notices within this time that another one has closed what it waits for.
_LOOK_SECONDS = 0.2


class BlockingStatus:
    """The status of the device, for programs without an event loop. Made by :func:`connect_blocking`.

    The same as Status, but every call waits. Any thread may call any method. Signals, so Ctrl-C, end every wait.
    """

    def __init__(self, handle: Handle, opener: Opener, timeout: float) -> None:
        """Use connect_blocking() instead."""
        self._handle = handle
        self._opener = opener
        self._timeout = timeout
        self._tags = itertools.count(1)
        self._asking = threading.Lock()
        self._closing = threading.Lock()
        self._watches: "weakref.WeakSet[BlockingWatch]" = weakref.WeakSet()
        self._is_closed = False

    def __enter__(self) -> "BlockingStatus":
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def close(self) -> None:
        """Close: ends all watches; calls of other threads that still wait raise ClosedError."""
        with self._closing:
            self._is_closed = True
            watches = list(self._watches)
        for watch in watches:
            watch.close()
        self._handle.close()

    # ---------------------------------------------------------------------------------------------------- posts

    def post(self, values: Mapping[str, str]) -> None:
        """Post values together. See Status.post()."""
        self._send(lambda: self._handle.post(values))

    def reset(self, *keys: str) -> None:
        """Reset keys. See Status.reset()."""
        self.post({key: "" for key in keys})

    def event(self, name: str, value: str = "", *, delay: float = 0) -> None:
        """Post an event. See Status.event()."""
        delay_ms = milliseconds(delay)
        self._send(lambda: self._handle.post_event(name, value, delay_ms))

    def sync(self, *, timeout: Optional[float] = None) -> None:
        """Wait until the broker has all posts made before. See Status.sync()."""
        self._ask(Question.SYNC, (), timeout)

    # ------------------------------------------------------------------------------------------------ questions

    def get(self, key: str, *, timeout: Optional[float] = None) -> Optional[str]:
        """Return the value of a key: "" if it was reset, None if it is unknown."""
        return self._answer(Question.VALUE, [key], timeout).value_if_known()

    def get_many(self, *keys: str, timeout: Optional[float] = None) -> Dict[str, str]:
        """Return the values of those of the keys that are known."""
        return self._ask(Question.VALUES, keys, timeout).values

    def get_all(self, *, timeout: Optional[float] = None) -> Dict[str, str]:
        """Return all values."""
        return self._ask(Question.ALL, (), timeout).values

    def timer(self, name: str) -> "BlockingTimer":
        """Return a timer of the device."""
        return BlockingTimer(self, name)

    def counter(self, name: str) -> "BlockingCounter":
        """Return a counter of the device."""
        return BlockingCounter(self, name)

    # ------------------------------------------------------------------------------------------------- changes

    def watch(
        self, *keys: str, events: Iterable[str] = (), timeout: float = math.inf
    ) -> "BlockingWatch":
        """Watch keys and events, from now on. See Status.watch().

        `timeout` is the longest wait for the next item; after StatusTimeoutError the iteration can continue.
        """
        watch = BlockingWatch(self._opener(ANOTHER_MS), keys, list(events), timeout)
        with self._closing:
            if not self._is_closed:
                self._watches.add(watch)
                return watch
        watch.close()
        raise ClosedError

    def wait_for(
        self, key: str, predicate: Callable[[str], bool], *, timeout: Optional[float] = None
    ) -> str:
        """Wait until the key has a value for which the predicate is true, and return the value.

        See Status.wait_for().
        """
        until = time.monotonic() + limit(timeout, self._timeout)
        with self.watch(key) as watch:
            while True:
                item = watch._next(until)
                if isinstance(item, Change) and predicate(item.value):
                    return item.value

    # ------------------------------------------------------------------------------------------------ internals

    def _send(self, action: Callable[[], None]) -> None:
        pauses = Pauses(self._timeout)
        while True:
            try:
                return action()
            except LimitError:
                if pauses.are_over():
                    raise
            time.sleep(pauses.next())

    def _ask(self, question: Question, names: Sequence[str], timeout: Optional[float]) -> Answer:
        return self._answer(question, names, timeout).checked()

    def _answer(self, question: Question, names: Sequence[str], timeout: Optional[float]) -> Answer:
        seconds = limit(timeout, self._timeout)
        until = time.monotonic() + seconds
        if not self._asking.acquire(timeout=max(0, min(seconds, threading.TIMEOUT_MAX))):
            raise StatusTimeoutError
        try:
            tag = next(self._tags)
            self._handle.ask(question, names, tag)
            while True:
                for item in self._handle.take(BATCH):
                    # Others are answers to questions that timed out.
                    if isinstance(item, Answer) and item.tag == tag:
                        return item
                _wait_until_readable(self._handle, until)
        finally:
            self._asking.release()


class BlockingWatch(Iterator[WatchItem]):
    """The iterator of BlockingStatus.watch(). Only one thread may iterate over it at a time.

    It ends with its last reference, with close(), and with its BlockingStatus.
    """

    def __init__(self, handle: Handle, keys: Sequence[str], events: Sequence[str], timeout: float) -> None:
        """Use BlockingStatus.watch() instead."""
        self._handle = handle
        self._timeout = timeout
        self._taken: List[WatchItem] = []  # the next one is the last
        self._is_closed = False
        subscribe(handle, keys, events)
        if not keys:
            self._taken.append(Synced())

    def __enter__(self) -> "BlockingWatch":
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def __iter__(self) -> "BlockingWatch":
        return self

    def __next__(self) -> WatchItem:
        if self._taken:
            return self._taken.pop()
        try:
            return self._next(time.monotonic() + self._timeout)
        except ClosedError:
            raise StopIteration from None

    @property
    def dropped(self) -> int:
        """The number of events that were dropped because the program took items too slowly."""
        return self._handle.dropped()

    def close(self) -> None:
        """End the iteration. Closing twice does nothing."""
        self._is_closed = True
        self._taken.clear()
        self._handle.close()

    def _next(self, until: float) -> WatchItem:
        while not self._taken:
            self._taken = updates(self._handle.take(BATCH))
            self._taken.reverse()
            if not self._taken:
                _wait_until_readable(self._handle, until)
        return self._taken.pop()


class BlockingTimer:
    """A timer of the device. See Timer."""

    def __init__(self, status: BlockingStatus, name: str) -> None:
        """Use BlockingStatus.timer() instead."""
        self._status = status
        self._name = name

    def start(self) -> None:
        """Start the timer, which continues from its present time. Does nothing while it runs."""
        self._act(TimerAction.START)

    def stop(self) -> None:
        """Stop the timer and keep its time."""
        self._act(TimerAction.STOP)

    def reset(self) -> None:
        """Clear the time of earlier runs. A run in progress still counts from its start."""
        self._act(TimerAction.RESET)

    def restart(self) -> None:
        """Clear the timer and start it from now."""
        self._act(TimerAction.RESTART)

    def elapsed(self, *, timeout: Optional[float] = None) -> float:
        """Return how many seconds the timer has run."""
        return self._status._ask(Question.TIMER_ELAPSED, [self._name], timeout).number / 1e6

    def started(self, *, timeout: Optional[float] = None) -> Optional[float]:
        """Return when the timer was last started, in seconds since the Unix epoch; None if never."""
        number = self._status._ask(Question.TIMER_STARTED, [self._name], timeout).number
        return number / 1e6 if number else None

    def _act(self, action: TimerAction) -> None:
        self._status._send(lambda: self._status._handle.act_on_timer(self._name, action))


class BlockingCounter:
    """A counter of the device. See Counter."""

    def __init__(self, status: BlockingStatus, name: str) -> None:
        """Use BlockingStatus.counter() instead."""
        self._status = status
        self._name = name

    def get(self, *, timeout: Optional[float] = None) -> int:
        """Return the counter's value."""
        return self._status._ask(Question.COUNTER, [self._name], timeout).number

    def set(self, value: int) -> None:
        """Set the counter, to a number below 2 to the power of 32."""
        self._status._send(lambda: self._status._handle.set_counter(self._name, value))

    def increment(self, *, timeout: Optional[float] = None) -> int:
        """Add one and return the new value. See Counter.increment()."""
        return self._status._ask(Question.INCREMENT, [self._name], timeout).number


def connect_blocking(*, timeout: float = 5) -> BlockingStatus:
    """Connect to the broker: ``with statusmanager.connect_blocking() as status:``. See connect()."""
    return open_blocking(open_handle, timeout)


def open_blocking(opener: Opener, timeout: float) -> BlockingStatus:
    """Open a status. Waits in short steps, so that signals are handled."""
    until = time.monotonic() + timeout
    while True:
        left = until - time.monotonic()
        try:
            return BlockingStatus(opener(_milliseconds_to_look(left)), opener, timeout)
        except StatusTimeoutError:
            if time.monotonic() >= until:
                raise


def _wait_until_readable(handle: Handle, until: float) -> None:
    left = until - time.monotonic()
    if left <= 0:
        raise StatusTimeoutError
    poll = select.poll()
    poll.register(handle.fileno(), select.POLLIN)
    poll.poll(_milliseconds_to_look(left))


# At least 1, because with 0 a loop would turn without a pause in its last millisecond.
def _milliseconds_to_look(left: float) -> int:
    return max(1, round(min(left, _LOOK_SECONDS) * 1000))
