"""The asyncio client."""

import asyncio
import contextlib
import itertools
import math
import weakref
from types import TracebackType
from typing import (
    AsyncIterator,
    Callable,
    Dict,
    Generator,
    Iterable,
    List,
    Mapping,
    Optional,
    Sequence,
    Type,
    TypeVar,
    cast,
)

from statusmanager.errors import ClosedError, LimitError, StatusError, StatusTimeoutError
from statusmanager.handle import ANOTHER_MS, Handle, Opener, Question, TimerAction
from statusmanager.items import Answer, Change, Synced, WatchItem
from statusmanager.opening import open_handle
from statusmanager.times import Pauses, limit, milliseconds

T = TypeVar("T")

#: Items that are taken in one go.
BATCH = 64
# A watch whose queue never becomes empty lets other tasks run after this time.
_TURN_SECONDS = 0.005


class Status:
    """The status of the device, in one event loop. Made by :func:`connect`.

    Every time-out is in seconds: None stands for the time-out given to connect(), ``math.inf`` for no limit. A call
    that runs into its time-out raises StatusTimeoutError. Every call may be cancelled; an answer that comes later is
    dropped.

    Names and values are texts. After close() every call raises ClosedError.
    """

    def __init__(self, handle: Handle, opener: Opener, timeout: float) -> None:
        """Use connect() instead."""
        self._handle = handle
        self._opener = opener
        self._timeout = timeout
        self._loop = asyncio.get_running_loop()
        self._tags = itertools.count(1)
        self._answers: Dict[int, "asyncio.Future[Answer]"] = {}
        self._waits: Dict[str, List[_Wait]] = {}
        self._watches: "weakref.WeakSet[Watch]" = weakref.WeakSet()
        self._is_closed = False
        self._descriptor = handle.fileno()
        self._loop.add_reader(self._descriptor, self._receive)

    async def __aenter__(self) -> "Status":
        return self

    async def __aexit__(self, *_: object) -> None:
        self.close()

    def close(self) -> None:
        """Close: ends all watches; other calls that still wait raise ClosedError. Closing twice does nothing.

        Posts made before are still sent; await sync() first if they matter.
        """
        if self._is_closed:
            return
        self._is_closed = True
        for watch in list(self._watches):
            watch.close()
        self._loop.remove_reader(self._descriptor)
        self._handle.close()
        self._fail(ClosedError())

    # ---------------------------------------------------------------------------------------------------- posts

    async def post(self, values: Mapping[str, str]) -> None:
        """Post values; watchers on the whole device get them together. The empty value is a reset.

        Returns before the broker has them. Waits only while too many posts are on the way, and raises LimitError if
        that takes longer than the time-out of connect(). Otherwise other tasks get no turn: a task that posts without
        end awaits something else, too, such as asyncio.sleep(0).
        """
        await self._send(lambda: self._handle.post(values))

    async def reset(self, *keys: str) -> None:
        """Reset keys: set their values to "". Otherwise as post()."""
        await self.post({key: "" for key in keys})

    async def event(self, name: str, value: str = "", *, delay: float = 0) -> None:
        """Post an event, which leaves this process after `delay` seconds. Otherwise as post().

        An event is not stored: only those who watch it at that moment get it. If the process ends earlier, it is
        never sent.
        """
        delay_ms = milliseconds(delay)
        await self._send(lambda: self._handle.post_event(name, value, delay_ms))

    async def sync(self, *, timeout: Optional[float] = None) -> None:
        """Wait until the broker has all posts made before.

        Raises LostError, once, if posts may have been lost: the broker was restarted, or took them too slowly.
        """
        await self._ask(Question.SYNC, (), timeout)

    # ------------------------------------------------------------------------------------------------ questions

    async def get(self, key: str, *, timeout: Optional[float] = None) -> Optional[str]:
        """Return the value of a key: "" if it was reset, None if it is unknown."""
        return (await self._answer(Question.VALUE, [key], timeout)).value_if_known()

    async def get_many(self, *keys: str, timeout: Optional[float] = None) -> Dict[str, str]:
        """Return the values of those of the keys that are known."""
        return (await self._ask(Question.VALUES, keys, timeout)).values

    async def get_all(self, *, timeout: Optional[float] = None) -> Dict[str, str]:
        """Return all values."""
        return (await self._ask(Question.ALL, (), timeout)).values

    def timer(self, name: str) -> "Timer":
        """Return a timer of the device."""
        return Timer(self, name)

    def counter(self, name: str) -> "Counter":
        """Return a counter of the device."""
        return Counter(self, name)

    # ------------------------------------------------------------------------------------------------- changes

    def watch(self, *keys: str, events: Iterable[str] = ()) -> "Watch":
        """Watch keys and events, from now on.

        The iterator brings first the values that the keys have, as Change, then Synced, and then each Change and
        Event. Synced comes also without keys. The same value of a key may come twice. Names are full names, not
        patterns.

        If the program takes items slower than they come, values in between are left out, but never the latest value;
        events are dropped and counted: see Watch.dropped.
        """
        watch = Watch(_opened(self._opener, self._is_closed), keys, list(events))
        self._watches.add(watch)
        return watch

    async def wait_for(
        self, key: str, predicate: Callable[[str], bool], *, timeout: Optional[float] = None
    ) -> str:
        """Wait until the key has a value for which the predicate is true, and return the value.

        The predicate is called with the value that the key has, and with every later one; not while the key is
        unknown. What it raises ends the wait.
        """
        wait = _Wait(predicate, self._loop.create_future())
        waits = self._waits.setdefault(key, [])
        waits.append(wait)
        try:
            self._handle.subscribe([key])
            return await self._within(wait.future, timeout)
        finally:
            waits.remove(wait)
            if not waits:
                del self._waits[key]
                with contextlib.suppress(StatusError):  # too many posts on the way, or closed
                    self._handle.unsubscribe([key])

    # ------------------------------------------------------------------------------------------------ internals

    async def _send(self, action: Callable[[], None]) -> None:
        pauses = Pauses(self._timeout)
        while True:
            try:
                return action()
            except LimitError:
                if pauses.are_over():
                    raise
            await asyncio.sleep(pauses.next())

    async def _ask(self, question: Question, names: Sequence[str], timeout: Optional[float]) -> Answer:
        return (await self._answer(question, names, timeout)).checked()

    async def _answer(self, question: Question, names: Sequence[str], timeout: Optional[float]) -> Answer:
        tag = next(self._tags)
        self._handle.ask(question, names, tag)
        future = self._answers[tag] = self._loop.create_future()
        try:
            return await self._within(future, timeout)
        finally:
            del self._answers[tag]

    async def _within(self, future: "asyncio.Future[T]", timeout: Optional[float]) -> T:
        # Not asyncio.wait_for(): before Python 3.12 it may swallow a cancellation.
        seconds = limit(timeout, self._timeout)
        if seconds == math.inf:
            return await future
        clock = self._loop.call_later(seconds, _fail, future, StatusTimeoutError())
        try:
            return await future
        finally:
            clock.cancel()

    def _receive(self) -> None:
        if self._is_closed:
            return
        try:
            items = self._handle.take(BATCH)
            if items:
                self._loop.call_soon(self._receive)  # a failure may follow, for which the descriptor tells nothing
            for item in items:
                if isinstance(item, Answer):
                    self._take_answer(item)
                elif isinstance(item, Change):
                    for wait in self._waits.get(item.key, ()):
                        wait.offer(item.value)
        except Exception as error:  # of the queue: an answer or a value may be missing
            self._fail(error)

    def _take_answer(self, answer: Answer) -> None:
        future = self._answers.get(answer.tag)
        if future and not future.done():
            future.set_result(answer)

    def _fail(self, error: Exception) -> None:
        for future in self._answers.values():
            _fail(future, error)
        for waits in self._waits.values():
            for wait in waits:
                _fail(wait.future, error)


class Watch(AsyncIterator[WatchItem]):
    """The iterator of Status.watch(). Only one task may iterate over it at a time.

    It ends with its last reference, with close(), and with its Status. When a task is cancelled that waits for the
    next item, no item is lost: the iteration can continue.
    """

    def __init__(self, handle: Handle, keys: Sequence[str], events: Sequence[str]) -> None:
        """Use Status.watch() instead."""
        self._handle = handle
        self._loop = asyncio.get_running_loop()
        self._resumed = self._loop.time()
        self._taken: List[WatchItem] = []  # the next one is the last
        self._waiter: "Optional[asyncio.Future[None]]" = None
        self._is_closed = False
        subscribe(handle, keys, events)
        self._descriptor = handle.fileno()
        if not keys:
            self._taken.append(Synced())

    async def __aenter__(self) -> "Watch":
        return self

    async def __aexit__(self, *_: object) -> None:
        self.close()

    def __aiter__(self) -> "Watch":
        return self

    async def __anext__(self) -> WatchItem:
        while not self._taken:
            if self._is_closed:
                raise StopAsyncIteration
            if self._loop.time() - self._resumed > _TURN_SECONDS:
                await asyncio.sleep(0)
                self._resumed = self._loop.time()
            else:
                await self._take()
        return self._taken.pop()

    @property
    def dropped(self) -> int:
        """The number of events that were dropped because the program took items too slowly."""
        return self._handle.dropped()

    def close(self) -> None:
        """End the iteration. Closing twice does nothing."""
        if self._is_closed:
            return
        self._is_closed = True
        self._taken.clear()
        if self._waiter:
            self._loop.remove_reader(self._descriptor)
            _wake(self._waiter)
        self._handle.close()

    async def _take(self) -> None:
        self._taken = updates(self._handle.take(BATCH))
        self._taken.reverse()
        if not self._taken:
            await self._wait()

    async def _wait(self) -> None:
        if self._waiter:
            raise RuntimeError("another task iterates over this watch")
        self._waiter = self._loop.create_future()
        # Only while waiting: otherwise the loop would hold the watch, and would turn while nobody takes items.
        self._loop.add_reader(self._descriptor, _wake, self._waiter)
        try:
            await self._waiter
        finally:
            self._waiter = None
            if not self._is_closed:
                self._loop.remove_reader(self._descriptor)
            self._resumed = self._loop.time()


class Timer:
    """A timer of the device, which the broker keeps. Its first use makes it. Made by Status.timer()."""

    def __init__(self, status: Status, name: str) -> None:
        """Use Status.timer() instead."""
        self._status = status
        self._name = name

    async def start(self) -> None:
        """Start the timer, which continues from its present time. Does nothing while it runs."""
        await self._act(TimerAction.START)

    async def stop(self) -> None:
        """Stop the timer and keep its time."""
        await self._act(TimerAction.STOP)

    async def reset(self) -> None:
        """Clear the time of earlier runs. A run in progress still counts from its start."""
        await self._act(TimerAction.RESET)

    async def restart(self) -> None:
        """Clear the timer and start it from now."""
        await self._act(TimerAction.RESTART)

    async def elapsed(self, *, timeout: Optional[float] = None) -> float:
        """Return how many seconds the timer has run."""
        return (await self._status._ask(Question.TIMER_ELAPSED, [self._name], timeout)).number / 1e6

    async def started(self, *, timeout: Optional[float] = None) -> Optional[float]:
        """Return when the timer was last started, in seconds since the Unix epoch; None if never."""
        answer = await self._status._ask(Question.TIMER_STARTED, [self._name], timeout)
        return answer.number / 1e6 if answer.number else None

    async def _act(self, action: TimerAction) -> None:
        await self._status._send(lambda: self._status._handle.act_on_timer(self._name, action))


class Counter:
    """A counter of the device, which the broker keeps. A new counter has 0. Made by Status.counter()."""

    def __init__(self, status: Status, name: str) -> None:
        """Use Status.counter() instead."""
        self._status = status
        self._name = name

    async def get(self, *, timeout: Optional[float] = None) -> int:
        """Return the counter's value."""
        return (await self._status._ask(Question.COUNTER, [self._name], timeout)).number

    async def set(self, value: int) -> None:
        """Set the counter, to a number below 2 to the power of 32."""
        await self._status._send(lambda: self._status._handle.set_counter(self._name, value))

    async def increment(self, *, timeout: Optional[float] = None) -> int:
        """Add one and return the new value. No two calls on the device get the same value.

        After StatusTimeoutError or a cancellation, the broker may have counted or may still count.
        """
        return (await self._status._ask(Question.INCREMENT, [self._name], timeout)).number


class Connecting:
    """What connect() returns: `async with` and `await` open the status."""

    def __init__(self, opener: Opener, timeout: float) -> None:
        """Use connect() instead."""
        self._opener = opener
        self._timeout = timeout
        self._status: Optional[Status] = None

    def __await__(self) -> Generator[None, None, Status]:
        return self._open().__await__()

    async def __aenter__(self) -> Status:
        self._status = await self._open()
        return self._status

    async def __aexit__(
        self,
        kind: Optional[Type[BaseException]],
        error: Optional[BaseException],
        traceback: Optional[TracebackType],
    ) -> None:
        if self._status:
            self._status.close()

    # The library's own wait would block the loop, and a thread that waits could not be cancelled.
    async def _open(self) -> Status:
        pauses = Pauses(self._timeout)
        while True:
            try:
                return Status(self._opener(0), self._opener, self._timeout)
            except StatusTimeoutError:
                if pauses.are_over():
                    raise
            await asyncio.sleep(pauses.next())


def connect(*, timeout: float = 5) -> Connecting:
    """Connect to the broker: ``async with statusmanager.connect() as status:``.

    `timeout` is the longest wait for a broker in seconds, and the default of all other time-outs. The attempt
    continues in the background after StatusTimeoutError: a later call takes its result.
    """
    return Connecting(open_handle, timeout)


class _Wait:
    """A call of wait_for()."""

    def __init__(self, predicate: Callable[[str], bool], future: "asyncio.Future[str]") -> None:
        self._predicate = predicate
        self.future = future

    def offer(self, value: str) -> None:
        if self.future.done():
            return
        try:
            if self._predicate(value):
                self.future.set_result(value)
        except Exception as error:
            self.future.set_exception(error)


def subscribe(handle: Handle, keys: Sequence[str], events: Sequence[str]) -> None:
    """Subscribe a new handle, or close it."""
    try:
        if events:
            handle.subscribe_events(events)
        if keys:
            handle.subscribe(keys)
    except BaseException:
        handle.close()
        raise


def updates(items: Iterable[object]) -> List[WatchItem]:
    """Narrow the type: no answer comes to a handle that asks nothing."""
    return cast(List[WatchItem], items)


def _opened(opener: Opener, is_closed: bool) -> Handle:
    if is_closed:
        raise ClosedError
    return opener(ANOTHER_MS)


def _wake(future: "asyncio.Future[None]") -> None:
    if not future.done():
        future.set_result(None)


def _fail(future: "asyncio.Future[T]", error: Exception) -> None:
    if not future.done():
        future.set_exception(error)
