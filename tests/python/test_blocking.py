"""The client without an event loop, with the fake and with a real broker."""

import threading
from typing import List

import pytest
from conftest import Device
from support import DEADLINE, MOMENT

import statusmanager
from statusmanager import BlockingStatus, Change, Event, Synced, WatchItem


def test_posts_and_questions_work(status: BlockingStatus) -> None:
    status.post({"a": "1", "b": "2"})
    status.reset("b")
    status.sync()
    assert status.get("a") == "1"
    assert status.get("unknown") is None
    assert status.get_many("a", "b", "unknown") == {"a": "1", "b": ""}
    assert status.get_all() == {"a": "1", "b": ""}


def test_a_watch_brings_first_values_then_synced_then_changes(status: BlockingStatus, device: Device) -> None:
    status.post({"door": "open"})
    status.sync()
    with status.watch("door", events=["bell"], timeout=DEADLINE) as watch:
        while next(watch) != Synced():
            pass
        device.event("bell", "rang")
        assert Event("bell", "rang") in watch
        device.post({"door": "shut"})
        assert Change("door", "shut") in watch


def test_a_watch_continues_after_a_timeout(status: BlockingStatus, device: Device) -> None:
    watch = status.watch("door", timeout=MOMENT)

    def next_item() -> WatchItem:
        while True:
            try:
                return next(watch)
            except statusmanager.StatusTimeoutError:
                continue

    assert next_item() == Synced()
    with pytest.raises(statusmanager.StatusTimeoutError):
        next(watch)
    device.post({"door": "open"})
    assert next_item() == Change("door", "open")


def test_wait_for_returns_the_first_value_that_matches(status: BlockingStatus, device: Device) -> None:
    device.post({"net": "down"})
    with pytest.raises(statusmanager.StatusTimeoutError):
        status.wait_for("net", lambda value: value == "up", timeout=MOMENT)
    device.post({"net": "up"})
    assert status.wait_for("net", lambda value: value == "up") == "up"


def test_timers_and_counters_work(status: BlockingStatus) -> None:
    timer = status.timer("work")
    assert timer.started() is None
    timer.start()
    timer.stop()
    timer.reset()
    assert timer.elapsed() == 0
    timer.restart()
    counter = status.counter("restarts")
    counter.set(41)
    assert counter.increment() == 42
    assert counter.get() == 42


def test_threads_share_a_status(status: BlockingStatus) -> None:
    found: List[int] = []

    def count() -> None:
        for _ in range(50):
            found.append(status.counter("shared").increment())

    threads = [threading.Thread(target=count) for _ in range(4)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert sorted(found) == list(range(1, 201))


def test_close_ends_what_other_threads_wait_for(status: BlockingStatus) -> None:
    ends: List[str] = []

    def iterate() -> None:
        for item in watch:
            ends.append(str(item))
        ends.append("ended")

    def wait() -> None:
        with pytest.raises(statusmanager.ClosedError):
            status.wait_for("net", lambda value: False, timeout=DEADLINE)
        ends.append("closed")

    watch = status.watch("door")
    threads = [threading.Thread(target=iterate), threading.Thread(target=wait)]
    for thread in threads:
        thread.start()
    while not ends:
        pass
    status.close()
    for thread in threads:
        thread.join(DEADLINE)
    assert sorted(ends) == ["Synced()", "closed", "ended"]
    with pytest.raises(statusmanager.ClosedError):
        status.get("door")
