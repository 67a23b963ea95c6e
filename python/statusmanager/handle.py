"""The seam between the clients and what holds the status: the library, or the fake for tests."""

import enum
from typing import List, Mapping, Protocol, Sequence

from statusmanager.items import Item


class Question(enum.IntEnum):
    """What can be asked. Except for VALUES, the numbers are those of status.h."""

    VALUES = 0
    VALUE = 1
    ALL = 2
    TIMER_ELAPSED = 3
    TIMER_STARTED = 4
    COUNTER = 5
    INCREMENT = 6
    SYNC = 7


class TimerAction(enum.Enum):
    """What can be done with a timer."""

    START = "start"
    STOP = "stop"
    RESET = "reset"
    RESTART = "restart"


class Handle(Protocol):
    """One open status: posts, questions, subscriptions, and the queue that brings the rest.

    Nothing waits. Any thread may call any method. Every method raises a StatusError if it has done nothing.
    """

    def post(self, values: Mapping[str, str]) -> None:
        """Post values together."""

    def post_event(self, name: str, value: str, delay_ms: int) -> None:
        """Post an event."""

    def act_on_timer(self, name: str, action: TimerAction) -> None:
        """Start, stop, reset or restart a timer."""

    def set_counter(self, name: str, value: int) -> None:
        """Set a counter."""

    def ask(self, question: Question, names: Sequence[str], tag: int) -> None:
        """Ask; the queue brings an Answer with this tag."""

    def subscribe(self, keys: Sequence[str]) -> None:
        """Subscribe to keys; the queue brings their values, then Synced, then their changes."""

    def unsubscribe(self, keys: Sequence[str]) -> None:
        """Drop the changes of these keys, also those that wait in the queue."""

    def subscribe_events(self, names: Sequence[str]) -> None:
        """Subscribe to events."""

    def fileno(self) -> int:
        """Return the descriptor that is readable while the queue has something."""

    def take(self, most: int) -> List[Item]:
        """Take up to `most` items from the queue; none if it is empty.

        A failure is raised when all items before it have been taken.
        """

    def dropped(self) -> int:
        """Return how many events were dropped because the queue was full."""

    def close(self) -> None:
        """Close. Closing twice does nothing."""


class Opener(Protocol):
    """Makes handles."""

    def __call__(self, wait_ms: int) -> Handle:
        """Open. Waits at most `wait_ms` for the broker, and then raises StatusTimeoutError."""


#: For another handle of a process that is connected. Opening takes a thread of the library's a moment, and no answer of
#: the broker.
ANOTHER_MS = 5000
