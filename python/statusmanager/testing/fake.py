"""A device without a broker, for unit tests."""

import collections
import contextlib
import os
import threading
import weakref
from typing import Callable, Collection, Deque, Dict, Iterable, Iterator, List, Mapping, Optional, Sequence, Tuple

from statusmanager import opening
from statusmanager.blocking import BlockingStatus, open_blocking
from statusmanager.client import Connecting
from statusmanager.errors import (
    ClosedError,
    InvalidArgumentError,
    NotUnicodeError,
    StatusTimeoutError,
    TooLongError,
    UNKNOWN_KEY,
)
from statusmanager.handle import Question, TimerAction
from statusmanager.items import Answer, Change, Event, Item, Synced

_LOST = -7
_NAME_BYTES = 255
_VALUE_BYTES = 65536


class FakeDevice:
    """The status of a device that exists only in this process. No broker, no library, no waiting.

    Code under test connects with connect() or connect_blocking(), or with statusmanager.connect() inside
    installed(). It gets the ordinary Status with all its methods. The test plays the rest of the device with post()
    and event(), and looks at `values`, `posts` and `events`.

    Time passes only in advance(). Any thread may call any method. Unlike the real one, a queue of the fake has no
    limit, and no length of a message is refused.
    """

    def __init__(self, values: Optional[Mapping[str, str]] = None) -> None:
        """Begin with these values."""
        self._lock = threading.RLock()
        self._values = dict(values or {})
        self._counters: Dict[str, int] = {}
        self._timers: Dict[str, _Timer] = {}
        self._handles: "weakref.WeakSet[FakeHandle]" = weakref.WeakSet()
        self._delayed: List[Tuple[float, str, str]] = []
        self._now = 0.0
        self._is_silent = False
        self._losses = 0
        #: Everything that clients have posted, in order.
        self.posts: List[Dict[str, str]] = []
        #: All events that clients have posted, when they have occurred.
        self.events: List[Event] = []

    # ------------------------------------------------------------------------------------------------- clients

    def connect(self, *, timeout: float = 5) -> Connecting:
        """Connect as statusmanager.connect() does."""
        return Connecting(self.open, timeout)

    def connect_blocking(self, *, timeout: float = 5) -> BlockingStatus:
        """Connect as statusmanager.connect_blocking() does."""
        return open_blocking(self.open, timeout)

    @contextlib.contextmanager
    def installed(self) -> Iterator["FakeDevice"]:
        """Let statusmanager.connect() and connect_blocking() lead here, meanwhile."""
        before = opening.opener
        opening.opener = self.open
        try:
            yield self
        finally:
            opening.opener = before

    def open(self, wait_ms: int) -> "FakeHandle":
        """Open a handle; the clients do this."""
        with self._lock:
            if self._is_silent:
                raise StatusTimeoutError
            handle = FakeHandle(self)
            self._handles.add(handle)
            return handle

    # ------------------------------------------------------------------------------------- the rest of the device

    @property
    def values(self) -> Dict[str, str]:
        """A copy of all values."""
        with self._lock:
            return dict(self._values)

    def post(self, values: Mapping[str, str]) -> None:
        """Post values as another process of the device."""
        with self._lock:
            changed = {key: value for key, value in values.items() if self._values.get(key) != value}
            self._values.update(changed)
            for handle in self._handles:
                handle.tell_changes(changed)

    def event(self, name: str, value: str = "") -> None:
        """Post an event as another process of the device."""
        with self._lock:
            for handle in self._handles:
                handle.tell_event(name, value)

    def forget(self, key: str) -> None:
        """Make a key unknown, as `statusctl forget` does: those who watch it see a reset."""
        with self._lock:
            if self._values.pop(key, ""):
                for handle in self._handles:
                    handle.tell_changes({key: ""})

    def advance(self, seconds: float) -> None:
        """Let time pass: timers run, and delayed events occur."""
        with self._lock:
            self._now += seconds
            due = sorted(event for event in self._delayed if event[0] <= self._now)
            self._delayed = [event for event in self._delayed if event[0] > self._now]
            for _, name, value in due:
                self._occur(name, value)

    @contextlib.contextmanager
    def silent(self) -> Iterator[None]:
        """Answer nothing meanwhile: questions and connect() run into their time-outs."""
        with self._lock:
            self._is_silent = True
        try:
            yield
        finally:
            with self._lock:
                self._is_silent = False

    def lose_posts(self) -> None:
        """Let the next sync() of every client raise LostError, as after a restart of the broker."""
        with self._lock:
            self._losses += 1

    # ------------------------------------------------------------------------------------------- for the handles

    def _accept(self, values: Mapping[str, str]) -> None:
        with self._lock:
            self.posts.append(dict(values))
            self.post(values)

    def _occur(self, name: str, value: str) -> None:
        self.events.append(Event(name, value))
        self.event(name, value)

    def _accept_event(self, name: str, value: str, delay_ms: int) -> None:
        with self._lock:
            if delay_ms:
                self._delayed.append((self._now + delay_ms / 1000, name, value))
            else:
                self._occur(name, value)

    def _timer(self, name: str) -> "_Timer":
        return self._timers.setdefault(name, _Timer(lambda: self._now))


class _Timer:
    def __init__(self, now: Callable[[], float]) -> None:
        self._now = now
        self._earlier = 0.0
        self._since: Optional[float] = None
        self.started = 0.0

    def act(self, action: TimerAction) -> None:
        if action is TimerAction.STOP:
            self._earlier = self.elapsed()
            self._since = None
        if action in (TimerAction.RESET, TimerAction.RESTART):
            self._earlier = 0
        if action is TimerAction.RESTART or (action is TimerAction.START and self._since is None):
            self.started = self._since = self._now()

    def elapsed(self) -> float:
        return self._earlier + (self._now() - self._since if self._since is not None else 0)


class FakeHandle:
    """A Handle of a FakeDevice."""

    def __init__(self, device: FakeDevice) -> None:
        """Use FakeDevice.open() instead."""
        self._device = device
        self._lock = device._lock
        self._queue: Deque[Item] = collections.deque()
        self._keys: Dict[str, None] = {}
        self._events: Dict[str, None] = {}
        self._losses_told = device._losses
        self._is_closed = False
        self._reader, self._writer = os.pipe()

    def __del__(self) -> None:
        self.close()

    def close(self) -> None:
        with self._lock:
            if self._is_closed:
                return
            self._is_closed = True
            self._device._handles.discard(self)
            os.close(self._reader)
            os.close(self._writer)

    # ---------------------------------------------------------------------------------------------------- posts

    def post(self, values: Mapping[str, str]) -> None:
        self._check(values, values.values())
        self._device._accept(values)

    def post_event(self, name: str, value: str, delay_ms: int) -> None:
        self._check([name], [value])
        self._device._accept_event(name, value, delay_ms)

    def act_on_timer(self, name: str, action: TimerAction) -> None:
        self._check([name])
        with self._lock:
            self._device._timer(name).act(action)

    def set_counter(self, name: str, value: int) -> None:
        self._check([name])
        if not 0 <= value < 1 << 32:
            raise InvalidArgumentError
        with self._lock:
            self._device._counters[name] = value

    # ------------------------------------------------------------------------------------------------ questions

    def ask(self, question: Question, names: Sequence[str], tag: int) -> None:
        if question not in (Question.ALL, Question.SYNC):
            self._check(names)
        with self._lock:
            self._require_open()
            if not self._device._is_silent:
                self._push(self._answer(question, names, tag))

    def _answer(self, question: Question, names: Sequence[str], tag: int) -> Answer:
        device = self._device
        answer = Answer(tag, 0, 0, "", {})
        if question is Question.VALUE:
            if names[0] in device._values:
                answer.value = device._values[names[0]]
            else:
                answer.result = UNKNOWN_KEY
        elif question is Question.VALUES:
            answer.values = {key: device._values[key] for key in names if key in device._values}
        elif question is Question.ALL:
            answer.values = dict(device._values)
        elif question is Question.SYNC:
            if self._losses_told != device._losses:
                self._losses_told = device._losses
                answer.result = _LOST
        else:
            answer.number = self._number(question, names[0])
        return answer

    def _number(self, question: Question, name: str) -> int:
        device = self._device
        if question is Question.TIMER_ELAPSED:
            return round(device._timer(name).elapsed() * 1_000_000)
        if question is Question.TIMER_STARTED:
            return round(device._timer(name).started * 1_000_000)
        if question is Question.INCREMENT:
            device._counters[name] = (device._counters.get(name, 0) + 1) % (1 << 32)
        return device._counters.get(name, 0)

    # -------------------------------------------------------------------------------------------- subscriptions

    def subscribe(self, keys: Sequence[str]) -> None:
        self._check(keys)
        with self._lock:
            self._require_open()
            self._keys.update(dict.fromkeys(keys))
            known = self._device._values
            self._push(*(Change(key, known[key]) for key in keys if key in known), Synced())

    def unsubscribe(self, keys: Sequence[str]) -> None:
        with self._lock:
            self._require_open()
            for key in keys:
                self._keys.pop(key, None)
            left = [item for item in self._queue if not (isinstance(item, Change) and item.key in keys)]
            self._drain()
            self._push(*left)

    def subscribe_events(self, names: Sequence[str]) -> None:
        self._check(names)
        with self._lock:
            self._require_open()
            self._events.update(dict.fromkeys(names))

    def tell_changes(self, values: Mapping[str, str]) -> None:
        self._push(*(Change(key, value) for key, value in values.items() if key in self._keys))

    def tell_event(self, name: str, value: str) -> None:
        if name in self._events:
            self._push(Event(name, value))

    # ------------------------------------------------------------------------------------------------ the queue

    def fileno(self) -> int:
        self._require_open()
        return self._reader

    def take(self, most: int) -> List[Item]:
        with self._lock:
            self._require_open()
            taken = [self._queue.popleft() for _ in range(min(most, len(self._queue)))]
            if taken and not self._queue:
                os.read(self._reader, 1)
            return taken

    def dropped(self) -> int:
        return 0

    def _push(self, *items: Item) -> None:
        if items and not self._queue:
            os.write(self._writer, b"x")
        self._queue.extend(items)

    def _drain(self) -> None:
        if self._queue:
            os.read(self._reader, 1)
        self._queue.clear()

    # --------------------------------------------------------------------------------------------------- checks

    def _require_open(self) -> None:
        if self._is_closed:
            raise ClosedError

    def _check(self, names: Collection[str], values: Iterable[str] = ()) -> None:
        self._require_open()
        if not names:
            raise InvalidArgumentError
        for name in names:
            _check_text(name, _NAME_BYTES)
            if not name:
                raise InvalidArgumentError
        for value in values:
            _check_text(value, _VALUE_BYTES)


def _check_text(text: str, most: int) -> None:
    if not isinstance(text, str):
        raise TypeError(f"a text is needed, not {text!r}")
    if "\0" in text:
        raise InvalidArgumentError
    try:
        if len(text.encode()) > most:
            raise TooLongError
    except UnicodeEncodeError:
        raise NotUnicodeError from None
