"""The clients with a real broker: failures, limits, signals, and processes."""

import asyncio
import os
import signal
import subprocess
import sys
import threading
from typing import Optional

import pytest
from support import DEADLINE, MOMENT, asynchronous, eventually, next_other_than, until_synced

import statusmanager
from statusmanager import Change, Event
from statusmanager.testing import Broker, BrokerError


@asynchronous
async def test_values_are_shared_with_other_processes(statusbroker: Broker) -> None:
    program = """
import statusmanager
with statusmanager.connect_blocking(timeout=30) as status:
    status.post({"door": "open"})
    status.sync()
"""
    async with statusmanager.connect(timeout=DEADLINE) as status:
        watch = status.watch("door")
        await until_synced(watch)
        process = await asyncio.create_subprocess_exec(sys.executable, "-c", program)
        assert await watch.__anext__() == Change("door", "open")
        assert await process.wait() == 0


@asynchronous
async def test_a_client_survives_a_restart_of_the_broker(statusbroker: Broker) -> None:
    async with statusmanager.connect(timeout=DEADLINE) as status:
        await status.post({"door": "open"})
        watch = status.watch("door")
        first = await until_synced(watch)
        statusbroker.kill()
        with pytest.raises(statusmanager.StatusTimeoutError):
            await status.get("door", timeout=MOMENT)
        statusbroker.start()
        with pytest.raises(statusmanager.LostError):
            await status.sync()
        await status.sync()
        await status.post({"door": "shut"})
        while await next_other_than(watch, *first) != Change("door", "shut"):
            pass


@asynchronous
async def test_questions_to_a_silent_broker_time_out_and_can_be_cancelled(statusbroker: Broker) -> None:
    async with statusmanager.connect(timeout=DEADLINE) as status:
        statusbroker.pause()
        questions = [asyncio.ensure_future(status.get("door")) for _ in range(20)]
        with pytest.raises(statusmanager.StatusTimeoutError):
            await status.counter("c").get(timeout=MOMENT)
        for question in questions:
            question.cancel()
        with statusmanager.connect_blocking(timeout=DEADLINE) as other, pytest.raises(statusmanager.StatusTimeoutError):
            other.get("door", timeout=MOMENT)
        statusbroker.resume()
        await status.post({"door": "open"})
        assert await status.get("door") == "open"


@asynchronous
async def test_unanswered_questions_have_a_limit(statusbroker: Broker) -> None:
    async with statusmanager.connect(timeout=DEADLINE) as status:
        statusbroker.pause()
        questions = [asyncio.ensure_future(status.get("door")) for _ in range(256)]
        await asyncio.sleep(0)  # one turn of the loop, in which they are all asked
        with pytest.raises(statusmanager.LimitError):
            await status.get("door")
        statusbroker.resume()
        assert await asyncio.gather(*questions) == [None] * 256


async def ask_in_vain(status: statusmanager.Status) -> "asyncio.Future[Optional[str]]":
    """Ask a broker that is paused. Until the answer comes, the process sends no posts, so their room fills."""
    question = asyncio.ensure_future(status.get("door", timeout=DEADLINE))
    await asyncio.sleep(0)  # the question is sent
    return question


@asynchronous
async def test_posts_wait_for_room_no_longer_than_the_timeout(statusbroker: Broker) -> None:
    async with statusmanager.connect(timeout=0.1) as status:
        statusbroker.pause()
        question = await ask_in_vain(status)

        async def post_without_end() -> None:
            while True:
                await status.post({"door": "x" * 60000})

        with pytest.raises(statusmanager.LimitError):
            await post_without_end()
        statusbroker.resume()
        await question


@asynchronous
async def test_posts_find_room_when_the_broker_continues(statusbroker: Broker) -> None:
    async with statusmanager.connect(timeout=DEADLINE) as status:
        statusbroker.pause()
        question = await ask_in_vain(status)
        posted = 0
        is_posting = False

        async def post_without_end() -> None:
            nonlocal posted, is_posting
            while True:
                is_posting = True
                await status.post({"door": f"{posted:060000}"})
                is_posting = False
                posted += 1
                await asyncio.sleep(0)  # a post that finds room leaves no time to others

        async def is_waiting() -> bool:
            return is_posting

        posts = asyncio.ensure_future(post_without_end())
        await eventually(is_waiting)
        before = posted
        statusbroker.resume()

        async def has_continued() -> bool:
            return posted > before or posts.done()

        await eventually(has_continued)
        posts.cancel()
        with pytest.raises(asyncio.CancelledError):
            await posts
        await question


@asynchronous
async def test_a_slow_watch_misses_values_but_never_the_latest_and_counts_events(statusbroker: Broker) -> None:
    async with statusmanager.connect(timeout=DEADLINE) as status:
        watch = status.watch("number", events=["bell"])
        await until_synced(watch)
        for number in range(6000):
            await status.post({"number": str(number)})
            await status.event("bell", str(number))
            if number % 100 == 0:
                await status.sync()
        await status.sync()

        async def has_dropped() -> bool:
            return watch.dropped > 0

        await eventually(has_dropped)
        await status.post({"number": "end"})
        taken = 0
        while await watch.__anext__() != Change("number", "end"):
            taken += 1
        assert taken < 6000


@asynchronous
async def test_a_message_that_would_lose_its_end_is_refused(statusbroker: Broker) -> None:
    async with statusmanager.connect(timeout=DEADLINE) as status:
        refused = 0
        for length in range(512):
            try:
                await status.post({"door": "x" * length})
            except statusmanager.UnsendableError:
                refused += 1
        assert refused == 1


@asynchronous
async def test_more_than_64_at_once_are_refused(statusbroker: Broker) -> None:
    async with statusmanager.connect(timeout=DEADLINE) as status:
        with pytest.raises(statusmanager.LimitError):
            _ = [status.watch("door") for _ in range(65)]
        _ = None
        watch = status.watch("door")
        await until_synced(watch)


def test_a_child_is_told_to_connect_itself(statusbroker: Broker) -> None:
    with statusmanager.connect_blocking(timeout=DEADLINE) as status:
        status.post({"door": "open"})
        child = os.fork()
        if child == 0:
            result = 1
            try:
                status.get("door")
            except statusmanager.ForkedError:
                status.close()
                result = 0
            finally:
                os._exit(result)
        assert os.waitpid(child, 0)[1] == 0
        assert status.get("door") == "open"


def test_a_signal_ends_a_wait(statusbroker: Broker) -> None:
    with statusmanager.connect_blocking(timeout=DEADLINE) as status:
        timer = threading.Timer(MOMENT, os.kill, (os.getpid(), signal.SIGINT))
        with pytest.raises(KeyboardInterrupt):
            timer.start()
            status.wait_for("door", lambda value: False, timeout=DEADLINE)
        timer.join()


def test_a_missing_library_is_named() -> None:
    environment = {name: value for name, value in os.environ.items() if name != "LD_LIBRARY_PATH"}
    program = "import statusmanager.library as l; l.LIBRARY = 'libnone.so'; import statusmanager as s; s.connect_blocking()"
    ended = subprocess.run([sys.executable, "-c", program], env=environment, capture_output=True, text=True, check=False)
    assert "ImportError: libnone.so was not found; Debian's package is libstatusmanager-c1" in ended.stderr


def test_a_broker_that_does_not_start_is_reported() -> None:
    with pytest.raises(BrokerError, match="did not start"):
        with Broker("/bin/false"):
            pass


def test_events_come_in_their_order(statusbroker: Broker) -> None:
    with statusmanager.connect_blocking(timeout=DEADLINE) as status, status.watch(events=["n"], timeout=DEADLINE) as watch:
        next(watch)
        for number in range(1000):
            status.event("n", str(number))
        assert [next(watch) for _ in range(1000)] == [Event("n", str(number)) for number in range(1000)]
