"""What only the fake can do."""

import asyncio

import pytest
from support import MOMENT, asynchronous

import statusmanager
from statusmanager import Change, Event, Synced
from statusmanager.testing import FakeDevice


def test_it_begins_with_the_values_of_the_test() -> None:
    device = FakeDevice({"door": "open"})
    with device.connect_blocking() as status:
        assert status.get("door") == "open"
        status.post({"door": "shut"})
    assert device.values == {"door": "shut"}
    assert device.posts == [{"door": "shut"}]


def test_it_takes_the_place_of_the_device_only_for_a_while() -> None:
    with FakeDevice({"door": "open"}).installed():
        with statusmanager.connect_blocking() as status:
            assert status.get("door") == "open"
    with FakeDevice().installed(), statusmanager.connect_blocking() as status:
        assert status.get("door") is None


@asynchronous
async def test_a_silent_device_lets_questions_run_into_their_timeouts(fake_device: FakeDevice) -> None:
    async with statusmanager.connect() as status:
        with fake_device.silent():
            with pytest.raises(statusmanager.StatusTimeoutError):
                await status.get("door", timeout=MOMENT)
            with pytest.raises(statusmanager.StatusTimeoutError):
                await statusmanager.connect(timeout=MOMENT)
            with pytest.raises(statusmanager.StatusTimeoutError):
                statusmanager.connect_blocking(timeout=MOMENT)
            question = asyncio.ensure_future(status.get("door"))
            await asyncio.sleep(0)
            question.cancel()
        assert await status.get("door") is None


@asynchronous
async def test_lost_posts_are_told_once_to_each_client(fake_device: FakeDevice) -> None:
    async with statusmanager.connect() as first, statusmanager.connect() as second:
        fake_device.lose_posts()
        for status in (first, second):
            with pytest.raises(statusmanager.LostError):
                await status.sync()
            await status.sync()


@asynchronous
async def test_time_passes_only_when_the_test_says_so(fake_device: FakeDevice) -> None:
    async with statusmanager.connect() as status:
        watch = status.watch(events=["bell"])
        await watch.__anext__()
        await status.event("bell", "late", delay=2)
        await status.event("bell", "soon", delay=1)
        await status.timer("work").start()
        fake_device.advance(0.5)
        assert fake_device.events == []
        fake_device.advance(2)
        assert fake_device.events == [Event("bell", "soon"), Event("bell", "late")]
        assert [await watch.__anext__() for _ in range(2)] == fake_device.events
        assert await status.timer("work").elapsed() == 2.5


@asynchronous
async def test_a_forgotten_key_is_reset_and_unknown(fake_device: FakeDevice) -> None:
    fake_device.post({"door": "open"})
    async with statusmanager.connect() as status:
        watch = status.watch("door")
        assert [await watch.__anext__() for _ in range(2)] == [Change("door", "open"), Synced()]
        fake_device.forget("door")
        assert await watch.__anext__() == Change("door", "")
        assert await status.get("door") is None


@asynchronous
async def test_a_value_that_does_not_change_is_not_told(fake_device: FakeDevice) -> None:
    fake_device.post({"door": "open"})
    async with statusmanager.connect() as status:
        watch = status.watch("door")
        fake_device.post({"door": "open"})
        fake_device.post({"door": "shut"})
        items = [await watch.__anext__() for _ in range(3)]
        assert items == [Change("door", "open"), Synced(), Change("door", "shut")]


@asynchronous
async def test_nothing_comes_to_a_wait_that_has_ended(fake_device: FakeDevice) -> None:
    seen = []

    def look(value: str) -> bool:
        seen.append(value)
        return value == "up"

    async with statusmanager.connect() as status:
        wait = asyncio.ensure_future(status.wait_for("net", look))
        other = asyncio.ensure_future(status.wait_for("net", lambda value: value == "end"))
        await asyncio.sleep(0)
        fake_device.post({"net": "up"})
        assert await wait == "up"
        fake_device.post({"net": "end"})
        assert await other == "end"
        assert seen == ["up"]
        fake_device.post({"net": "later"})
        assert status._handle.take(1) == []  # the key is no longer subscribed
