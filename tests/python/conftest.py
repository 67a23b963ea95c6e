"""The devices of the tests: many tests run with the fake and with a real broker."""

from typing import Iterator, Mapping, Protocol

import pytest
from support import DEADLINE

import statusmanager
from statusmanager import BlockingStatus


class Device(Protocol):
    """The rest of a device, whatever plays it."""

    def post(self, values: Mapping[str, str]) -> None:
        """Post values as another process."""

    def event(self, name: str, value: str = "") -> None:
        """Post an event as another process."""


@pytest.fixture(params=["fake", "broker"])
def device(request: pytest.FixtureRequest) -> Iterator[Device]:
    """Provide a device, to which statusmanager.connect(timeout=DEADLINE) leads."""
    if request.param == "fake":
        yield request.getfixturevalue("fake_device")
        return
    request.getfixturevalue("statusbroker")
    with statusmanager.connect_blocking(timeout=DEADLINE) as other:
        yield other


@pytest.fixture
def status(device: Device) -> Iterator[BlockingStatus]:
    """Provide a blocking client of the device."""
    with statusmanager.connect_blocking(timeout=DEADLINE) as status:
        yield status
