"""Time limits in seconds. None stands for the client's own limit, infinity for none."""

import math
import time
from typing import Optional


def limit(timeout: Optional[float], default: float) -> float:
    """Return the time limit of a call, in seconds."""
    return default if timeout is None else timeout


def milliseconds(seconds: float) -> int:
    """Return a delay in whole milliseconds."""
    if not 0 <= seconds < math.inf:
        raise ValueError(f"{seconds} is not a delay in seconds")
    return round(seconds * 1000)


class Pauses:
    """The pauses between attempts: short at first, and then longer, up to 20 ms."""

    def __init__(self, timeout: float) -> None:
        self._end = time.monotonic() + timeout
        self._next = 0.001

    def are_over(self) -> bool:
        """Return whether the time has run out."""
        return time.monotonic() >= self._end

    def next(self) -> float:
        """Return the length of the next pause in seconds."""
        pause = self._next
        self._next = min(2 * pause, 0.02)
        return pause
