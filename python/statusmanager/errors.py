"""The exceptions of this package. All are a :class:`StatusError`."""

from typing import Dict, Optional, Type


class StatusError(Exception):
    """Something about the status of the device failed. The base of all exceptions of this package."""

    text = "the status manager failed"

    def __init__(self, text: Optional[str] = None) -> None:
        super().__init__(text or self.text)


class InvalidArgumentError(StatusError, ValueError):
    """An empty name, no names at all, or a text with a NUL."""

    text = "an empty name, no names at all, or a text with a NUL"


class TooLongError(InvalidArgumentError):
    """A name has more than 255 bytes, a value more than 65,536, or a message more than 1 MiB."""

    text = "a name, a value or a message is longer than its limit"


class NotUnicodeError(InvalidArgumentError):
    """A text has surrogates, so that it cannot be written as UTF-8."""

    text = "a text cannot be written as UTF-8"


class UnsendableError(InvalidArgumentError):
    """The length of the message is a multiple of 512 bytes, so that it would lose its end on the way.

    Make a value one byte longer or shorter, or post several values in two calls.
    """

    text = "the message is a multiple of 512 bytes long and would lose its end"


class StatusTimeoutError(StatusError, TimeoutError):
    """The time has run out."""

    text = "the time has run out"


class UnusableError(StatusError):
    """This process gets no more answers. End it, and have it started again."""

    text = "this process gets no more answers: it has to be started again"


class LostError(StatusError):
    """Posts of this process may have been lost. Post the important values again."""

    text = "posts of this process may have been lost"


class LimitError(StatusError):
    """A limit of the library is reached. docs/python.md lists the limits."""

    text = "a limit of the library is reached"


class ClosedError(StatusError):
    """The status is closed."""

    text = "the status is closed"


class ForkedError(StatusError):
    """This process is a child of the process that connected. Connect after fork()."""

    text = "this process is a child of the process that connected"


class ResourceError(StatusError, OSError):
    """The system gave no descriptor or no thread."""

    text = "the system gave no descriptor or no thread"


_OF_CODE: Dict[int, Type[StatusError]] = {
    -1: InvalidArgumentError,
    -2: TooLongError,
    -3: NotUnicodeError,
    -4: UnsendableError,
    -5: StatusTimeoutError,
    -6: UnusableError,
    -7: LostError,
    -8: LimitError,
    -10: ClosedError,
    -11: ForkedError,
    -13: ResourceError,
}
_NO_MEMORY = -9
#: The result of a question for an unknown key, which is no failure.
UNKNOWN_KEY = -12


def error_of(code: int) -> Exception:
    """Return the exception for a negative result of a function in status.h."""
    if code == _NO_MEMORY:
        return MemoryError()
    kind = _OF_CODE.get(code)
    return kind() if kind else StatusError(f"the library reports the unknown error {code}")


def check(result: int) -> int:
    """Return a result that is no error; raise the others."""
    if result < 0:
        raise error_of(result)
    return result
