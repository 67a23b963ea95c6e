"""What comes out of a queue: changes, events, and marks between them."""

from dataclasses import dataclass
from typing import Dict, Optional, Union

from statusmanager.errors import UNKNOWN_KEY, check


# Not frozen, because the constructor of a frozen dataclass is four times as slow.
@dataclass(unsafe_hash=True)
class Change:
    """A watched key has this value. A reset key has the empty value."""

    __slots__ = ("key", "value")
    key: str
    value: str


@dataclass(unsafe_hash=True)
class Event:
    """A watched event occurred."""

    __slots__ = ("name", "value")
    name: str
    value: str


@dataclass(unsafe_hash=True)
class Synced:
    """The changes before this one were the values that the watched keys had at first."""

    __slots__ = ()


@dataclass
class Answer:
    """The answer to a question. Internal."""

    __slots__ = ("tag", "result", "number", "value", "values")
    tag: int
    result: int
    number: int
    value: str
    values: Dict[str, str]

    def checked(self) -> "Answer":
        """Return the answer, or raise the reason why there is none."""
        check(self.result)
        return self

    def value_if_known(self) -> Optional[str]:
        """Return the value; None if the key is unknown."""
        return None if self.result == UNKNOWN_KEY else self.checked().value


#: What a watch brings.
WatchItem = Union[Change, Event, Synced]
#: What a queue has.
Item = Union[Change, Event, Synced, Answer]
