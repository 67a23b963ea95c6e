"""The functions of libstatusmanager-c, by ctypes."""

import ctypes
import functools
from ctypes import POINTER, byref, c_char_p, c_int, c_int64, c_size_t, c_uint32, c_uint64, c_void_p
from typing import Any, Dict, List, Mapping, Optional, Sequence

from statusmanager.errors import InvalidArgumentError, NotUnicodeError, check, error_of
from statusmanager.handle import Question, TimerAction
from statusmanager.items import Answer, Change, Event, Item, Synced

LIBRARY = "libstatusmanager-c.so.1"
_CHANGE, _EVENT, _SYNCED, _ANSWER = 1, 2, 3, 4


class _Pair(ctypes.Structure):
    _fields_ = [("key", c_char_p), ("value", c_char_p)]


class _Item(ctypes.Structure):
    _fields_ = [
        ("kind", c_int),
        ("result", c_int),
        ("tag", c_uint64),
        ("number", c_uint64),
        ("key", c_char_p),
        ("value", c_char_p),
        ("count", c_size_t),
        ("pairs", POINTER(_Pair)),
    ]


_NAMES = POINTER(c_char_p)
_ARGUMENTS: Dict[str, List[Any]] = {
    "status_close": [c_void_p],
    "status_post_many": [c_void_p, POINTER(_Pair), c_size_t],
    "status_post_event": [c_void_p, c_char_p, c_char_p, c_uint32],
    "status_ask": [c_void_p, c_int, c_char_p, c_uint64],
    "status_ask_many": [c_void_p, _NAMES, c_size_t, c_uint64],
    "status_subscribe": [c_void_p, _NAMES, c_size_t],
    "status_unsubscribe": [c_void_p, _NAMES, c_size_t],
    "status_subscribe_events": [c_void_p, _NAMES, c_size_t],
    "status_timer_start": [c_void_p, c_char_p],
    "status_timer_stop": [c_void_p, c_char_p],
    "status_timer_reset": [c_void_p, c_char_p],
    "status_timer_restart": [c_void_p, c_char_p],
    "status_counter_set": [c_void_p, c_char_p, c_uint32],
    "status_fd": [c_void_p],
    "status_next": [c_void_p, POINTER(POINTER(_Item))],
    "status_dropped": [c_void_p],
    "status_free": [c_void_p],
}


class _Library:
    """The loaded library, with the types of its functions."""

    def __init__(self) -> None:
        try:
            # Functions that never wait keep the interpreter's lock, which is faster: no thread of the library
            # ever wants that lock.
            quick = ctypes.PyDLL(LIBRARY)
            self.open = ctypes.CDLL(LIBRARY).status_open
        except OSError as error:
            raise ImportError(
                f"{LIBRARY} was not found; Debian's package is libstatusmanager-c1 ({error})"
            ) from error
        self.open.argtypes = [c_int, POINTER(c_void_p)]
        self.functions: Dict[str, Any] = {}
        for name, arguments in _ARGUMENTS.items():
            function = getattr(quick, name)
            function.argtypes = arguments
            self.functions[name] = function
        self.functions["status_dropped"].restype = c_int64
        self.functions["status_free"].restype = None


# Not loaded with the module, so that tests with the fake need no library.
@functools.lru_cache(maxsize=None)
def _library() -> _Library:
    return _Library()


def _encoded(text: str) -> bytes:
    try:
        data = text.encode()
    except UnicodeEncodeError:
        raise NotUnicodeError from None
    except AttributeError:
        raise TypeError(f"a text is needed, not {text!r}") from None
    if b"\0" in data:
        raise InvalidArgumentError
    return data


def _encoded_names(names: Sequence[str]) -> Any:
    if isinstance(names, str):
        raise TypeError("several names are needed, not one text")
    return (c_char_p * len(names))(*map(_encoded, names))


def _number_within(value: int, bits: int) -> int:
    # ctypes would take the number modulo 2 to the power of its bits.
    if not 0 <= value < 1 << bits:
        raise InvalidArgumentError(f"{value} is not a number from 0 to {(1 << bits) - 1}")
    return value


def _decoded(data: bytes) -> str:
    return str(data, "utf-8", "replace")


def _answer(item: _Item) -> Answer:
    pairs = item.pairs[: item.count] if item.count else []
    values = {_decoded(pair.key): _decoded(pair.value) for pair in pairs}
    return Answer(item.tag, item.result, item.number, _decoded(item.value), values)


class LibraryHandle:
    """A status_t. See Handle."""

    def __init__(self, wait_ms: int) -> None:
        self._functions: Dict[str, Any] = {}  # for __del__, if the next lines fail
        library = _library()
        status = c_void_p()
        check(library.open(wait_ms, byref(status)))
        self._functions = library.functions
        self._status = status
        self._next = library.functions["status_next"]
        self._free = library.functions["status_free"]
        self._failure: Optional[Exception] = None

    def __del__(self) -> None:
        self.close()

    def close(self) -> None:
        if self._functions:
            # Also after fork() or a second time, when it does nothing but return an error.
            self._functions["status_close"](self._status)

    def _call(self, name: str, *arguments: Any) -> int:
        return check(self._functions[name](self._status, *arguments))

    def post(self, values: Mapping[str, str]) -> None:
        pairs = (_Pair * len(values))(
            *[_Pair(_encoded(key), _encoded(value)) for key, value in values.items()]
        )
        self._call("status_post_many", pairs, len(pairs))

    def post_event(self, name: str, value: str, delay_ms: int) -> None:
        self._call("status_post_event", _encoded(name), _encoded(value), _number_within(delay_ms, 32))

    def act_on_timer(self, name: str, action: TimerAction) -> None:
        self._call(f"status_timer_{action.value}", _encoded(name))

    def set_counter(self, name: str, value: int) -> None:
        self._call("status_counter_set", _encoded(name), _number_within(value, 32))

    def ask(self, question: Question, names: Sequence[str], tag: int) -> None:
        if question is Question.VALUES:
            self._call("status_ask_many", _encoded_names(names), len(names), tag)
        else:
            self._call("status_ask", question, _encoded(names[0]) if names else None, tag)

    def subscribe(self, keys: Sequence[str]) -> None:
        self._call("status_subscribe", _encoded_names(keys), len(keys))

    def unsubscribe(self, keys: Sequence[str]) -> None:
        self._call("status_unsubscribe", _encoded_names(keys), len(keys))

    def subscribe_events(self, names: Sequence[str]) -> None:
        self._call("status_subscribe_events", _encoded_names(names), len(names))

    def fileno(self) -> int:
        return self._call("status_fd")

    def dropped(self) -> int:
        return self._call("status_dropped")

    # The path of every change: without calls that the interpreter would have to make.
    def take(self, most: int) -> List[Item]:
        items: List[Item] = []
        take, free, status, append = self._next, self._free, self._status, items.append
        pointer = POINTER(_Item)()
        reference = byref(pointer)
        for _ in range(0 if self._failure else most):
            result = take(status, reference)
            if result != 1:
                self._failure = error_of(result) if result < 0 else None
                break
            item = pointer[0]
            kind = item.kind
            if kind == _CHANGE:
                append(Change(str(item.key, "utf-8", "replace"), str(item.value, "utf-8", "replace")))
            elif kind == _EVENT:
                append(Event(str(item.key, "utf-8", "replace"), str(item.value, "utf-8", "replace")))
            elif kind == _ANSWER:
                append(_answer(item))
            elif kind == _SYNCED and item.result == 0:
                append(Synced())
            elif kind == _SYNCED:
                self._failure = error_of(item.result)
            free(pointer)
            if self._failure:
                break
        # What was taken before a failure comes first.
        if self._failure and not items:
            failure, self._failure = self._failure, None
            raise failure
        return items
