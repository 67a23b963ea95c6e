"""The asyncio client, with the fake and with a real broker."""

import asyncio
import gc
import math
import weakref
from typing import Dict, List

import pytest
from conftest import Device
from support import DEADLINE, MOMENT, asynchronous, eventually, next_other_than, until_synced

import statusmanager
from statusmanager import Change, Event, Status, Synced
from statusmanager.testing import FakeDevice


@asynchronous
async def test_a_posted_value_can_be_asked_for(device: Device) -> None:
    async with statusmanager.connect(timeout=DEADLINE) as status:
        await status.post({"door": "open", "window": 'Tür "1"\n'})
        assert await status.get("door") == "open"
        assert await status.get("window") == 'Tür "1"\n'


@asynchronous
async def test_an_unknown_key_is_none_and_a_reset_one_is_empty(device: Device) -> None:
    async with statusmanager.connect(timeout=DEADLINE) as status:
        assert await status.get("door") is None
        await status.reset("door")
        assert await status.get("door") == ""


@asynchronous
async def test_several_values_come_in_a_dictionary(device: Device) -> None:
    async with statusmanager.connect(timeout=DEADLINE) as status:
        await status.post({"a": "1", "b": "2", "c": "3"})
        assert await status.get_many("a", "c", "unknown") == {"a": "1", "c": "3"}
        assert await status.get_all() == {"a": "1", "b": "2", "c": "3"}


@asynchronous
async def test_await_connects_without_a_block(device: Device) -> None:
    status = await statusmanager.connect(timeout=20)
    assert await status.get("door") is None
    status.close()


@asynchronous
async def test_a_watch_brings_first_values_then_synced_then_changes(device: Device) -> None:
    async with statusmanager.connect(timeout=DEADLINE) as status:
        await status.post({"door": "open", "other": "1"})
        await status.sync()
        watch = status.watch("door", "unknown")
        first = await until_synced(watch)
        assert set(first) == {Change("door", "open"), Synced()}
        device.post({"door": "shut"})
        assert await next_other_than(watch, *first) == Change("door", "shut")


@asynchronous
async def test_a_watch_brings_events(device: Device) -> None:
    async with statusmanager.connect(timeout=DEADLINE) as status:
        watch = status.watch(events=["bell"])
        assert await watch.__anext__() == Synced()
        device.event("other", "1")
        device.event("bell", "rang")
        assert await watch.__anext__() == Event("bell", "rang")
        assert watch.dropped == 0


@asynchronous
async def test_two_watches_of_a_key_bring_the_same(device: Device) -> None:
    async with statusmanager.connect(timeout=DEADLINE) as status:
        watches = [status.watch("door"), status.watch("door")]
        for watch in watches:
            assert await until_synced(watch) == [Synced()]
        device.post({"door": "open"})
        for watch in watches:
            assert await watch.__anext__() == Change("door", "open")


@asynchronous
async def test_a_watch_loses_nothing_when_a_task_that_waits_is_cancelled(device: Device) -> None:
    async with statusmanager.connect(timeout=DEADLINE) as status:
        watch = status.watch(events=["number"])
        assert await watch.__anext__() == Synced()
        for number in range(50):
            task = asyncio.ensure_future(watch.__anext__())
            await asyncio.sleep(0)
            device.event("number", str(number))
            if number % 2:
                task.cancel()
            taken = (await asyncio.gather(task, return_exceptions=True))[0]
            if isinstance(taken, asyncio.CancelledError):
                taken = await watch.__anext__()
            assert taken == Event("number", str(number))


@asynchronous
async def test_a_watch_that_always_has_something_lets_other_tasks_run(device: Device) -> None:
    async with statusmanager.connect(timeout=DEADLINE) as status:
        watch = status.watch("number")
        turns = 0

        async def other() -> None:
            nonlocal turns
            while True:
                await asyncio.sleep(0)
                turns += 1

        task = asyncio.ensure_future(other())
        number = 0
        async for _ in watch:
            number += 1
            device.post({"number": str(number)})  # something is there before the next turn
            if turns > 3:
                break
        task.cancel()


@asynchronous
async def test_a_second_task_cannot_iterate_over_a_watch(device: Device) -> None:
    async with statusmanager.connect(timeout=DEADLINE) as status:
        watch = status.watch("door")
        await until_synced(watch)
        task = asyncio.ensure_future(watch.__anext__())
        await asyncio.sleep(0)
        with pytest.raises(RuntimeError, match="another task"):
            await watch.__anext__()
        device.post({"door": "open"})
        assert await task == Change("door", "open")


@asynchronous
async def test_a_watch_ends_with_its_last_reference(device: Device) -> None:
    async with statusmanager.connect(timeout=DEADLINE) as status:
        await status.post({"door": "open"})
        async for item in (watch := status.watch("door")):
            assert item in (Change("door", "open"), Synced())
            break
        handle = weakref.ref(watch._handle)
        del watch
        gc.collect()
        assert handle() is None


@asynchronous
async def test_close_ends_watches_and_calls_that_wait(device: Device) -> None:
    status = await statusmanager.connect(timeout=DEADLINE)
    watch = status.watch("door")
    await until_synced(watch)

    async def iterate() -> str:
        async for _ in watch:
            pass
        return "ended"

    iteration = asyncio.ensure_future(iterate())
    wait = asyncio.ensure_future(status.wait_for("door", lambda value: False))
    await asyncio.sleep(MOMENT)
    status.close()
    status.close()
    assert await iteration == "ended"
    with pytest.raises(statusmanager.ClosedError):
        await wait
    with pytest.raises(statusmanager.ClosedError):
        await status.get("door")
    with pytest.raises(statusmanager.ClosedError):
        await status.post({"door": "open"})
    with pytest.raises(statusmanager.ClosedError):
        status.watch("door")


@asynchronous
async def test_wait_for_returns_the_value_that_is_there(device: Device) -> None:
    async with statusmanager.connect(timeout=DEADLINE) as status:
        await status.post({"net": "up"})
        assert await status.wait_for("net", lambda value: value == "up") == "up"


@asynchronous
async def test_wait_for_returns_a_later_value(device: Device) -> None:
    async with statusmanager.connect(timeout=DEADLINE) as status:
        waits = [asyncio.ensure_future(status.wait_for("net", end.__eq__, timeout=math.inf)) for end in "012"]
        await asyncio.sleep(0)
        for number in range(3):
            device.post({"net": str(number)})
            assert await waits[number] == str(number)


@asynchronous
async def test_wait_for_ends_in_time(device: Device) -> None:
    async with statusmanager.connect(timeout=DEADLINE) as status:
        with pytest.raises(statusmanager.StatusTimeoutError):
            await status.wait_for("net", lambda value: True, timeout=MOMENT)
        with pytest.raises(TimeoutError):
            await status.wait_for("net", lambda value: True, timeout=MOMENT)


@asynchronous
async def test_wait_for_raises_what_the_predicate_raises(device: Device) -> None:
    async with statusmanager.connect(timeout=DEADLINE) as status:
        await status.post({"net": "up"})
        with pytest.raises(ZeroDivisionError):
            await status.wait_for("net", lambda value: bool(1 // 0))
        assert await status.get("net") == "up"


@asynchronous
async def test_many_calls_can_wait_at_once(device: Device) -> None:
    async with statusmanager.connect(timeout=DEADLINE) as status:
        waits = [asyncio.ensure_future(status.wait_for(f"key.{n}", bool)) for n in range(100)]
        await asyncio.sleep(0)
        device.post({f"key.{n}": str(n) for n in range(100)})
        assert await asyncio.gather(*waits) == [str(n) for n in range(100)]


@asynchronous
async def test_questions_can_be_asked_at_once_and_cancelled(device: Device) -> None:
    async with statusmanager.connect(timeout=DEADLINE) as status:
        await status.post({f"key.{n}": str(n) for n in range(100)})
        questions = [asyncio.ensure_future(status.get(f"key.{n}")) for n in range(100)]
        await asyncio.sleep(0)
        for question in questions[::2]:
            question.cancel()
        answers = await asyncio.gather(*questions, return_exceptions=True)
        assert answers[1::2] == [str(n) for n in range(1, 100, 2)]
        assert all(isinstance(answer, asyncio.CancelledError) for answer in answers[::2])
        assert await status.get("key.0") == "0"


@asynchronous
async def test_timers_run(device: Device) -> None:
    async with statusmanager.connect(timeout=DEADLINE) as status:
        timer = status.timer("work")
        assert await timer.started() is None
        await timer.restart()
        if isinstance(device, FakeDevice):
            device.advance(1)

        async def has_run() -> bool:
            return await timer.elapsed() > 0

        await eventually(has_run)
        await timer.stop()
        elapsed = await timer.elapsed()
        assert await timer.elapsed() == elapsed
        await timer.reset()
        assert await timer.elapsed() == 0
        await timer.start()


@asynchronous
async def test_counters_count(device: Device) -> None:
    async with statusmanager.connect(timeout=DEADLINE) as status:
        counter = status.counter("restarts")
        assert await counter.get() == 0
        assert await counter.increment() == 1
        await counter.set(41)
        assert await counter.increment() == 42
        assert await status.counter("restarts").get() == 42


@asynchronous
async def test_posts_and_questions_refuse_wrong_texts(device: Device) -> None:
    async with statusmanager.connect(timeout=DEADLINE) as status:
        wrong: List[Dict[str, str]] = [{}, {"": "x"}, {"door\0": "x"}, {"door": "x\0"}]
        for values in wrong:
            with pytest.raises(statusmanager.InvalidArgumentError):
                await status.post(values)
        with pytest.raises(statusmanager.TooLongError):
            await status.post({"door": "x" * 65537})
        with pytest.raises(statusmanager.TooLongError):
            await status.get("x" * 256)
        with pytest.raises(statusmanager.NotUnicodeError):
            await status.post({"door": "\udc80"})
        with pytest.raises(TypeError):
            await status.post({"door": 1})  # type: ignore[dict-item]
        with pytest.raises(statusmanager.InvalidArgumentError):
            await status.counter("c").set(1 << 32)
        with pytest.raises(statusmanager.InvalidArgumentError):
            status.watch("")
        with pytest.raises(ValueError):
            await status.event("bell", delay=-1)
        assert await status.get_all() == {}


@asynchronous
async def test_names_and_values_have_any_length_up_to_their_limits(device: Device) -> None:
    async with statusmanager.connect(timeout=DEADLINE) as status:
        await status.post({"ü" * 127: "ß" * 32767})
        assert await status.get("ü" * 127) == "ß" * 32767


async def _closed() -> Status:
    async with statusmanager.connect(timeout=DEADLINE) as status:
        return status


def test_a_status_does_not_outlive_its_loop_in_harm(device: Device) -> None:
    for _ in range(3):
        assert asyncio.run(_closed())
    left_open = asyncio.run(_left_open())
    left_open.close()


async def _left_open() -> Status:
    status = await statusmanager.connect(timeout=DEADLINE)
    await status.post({"door": "open"})
    return status
