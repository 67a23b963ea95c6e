"""What connect() opens: the library, unless a test has put a fake in its place."""

from statusmanager.handle import Handle, Opener
from statusmanager.library import LibraryHandle

opener: Opener = LibraryHandle


def open_handle(wait_ms: int) -> Handle:
    """Open. Waits at most `wait_ms` for the broker, and then raises StatusTimeoutError."""
    return opener(wait_ms)
