"""The plugin for pytest. Its fixtures are for every test, without an import."""

from typing import Iterator, Optional

import pytest

from statusmanager.testing.broker import Broker, BrokerError
from statusmanager.testing.fake import FakeDevice
from statusmanager.testing.network import NetworkError, enter_own_network


def pytest_addoption(parser: pytest.Parser) -> None:
    """Declare the options of the fixture statusbroker."""
    group = parser.getgroup("statusmanager")
    group.addoption("--statusbroker", metavar="PROGRAM", help="the broker for the fixture statusbroker")
    group.addoption(
        "--statusbroker-network",
        choices=("own", "shared"),
        default="own",
        help="own: the first test with a broker moves pytest to a network of its own. "
        "shared: the present one, for pytest in a sandbox",
    )


@pytest.fixture
def fake_device() -> Iterator[FakeDevice]:
    """Provide a FakeDevice, to which statusmanager.connect() and connect_blocking() lead during the test."""
    with FakeDevice().installed() as device:
        yield device


@pytest.fixture(scope="session")
def statusbroker_network(pytestconfig: pytest.Config) -> Optional[str]:
    """Move pytest to a network of its own, until it ends. Return why that was impossible."""
    if pytestconfig.getoption("--statusbroker-network") == "own":
        try:
            enter_own_network()
        except NetworkError as error:
            return str(error)
    return None


@pytest.fixture
def statusbroker(pytestconfig: pytest.Config, statusbroker_network: Optional[str]) -> Iterator[Broker]:
    """Provide a real broker, new for each test. Skips the test where none can run."""
    if statusbroker_network:
        pytest.skip(f"no network for a broker: {statusbroker_network}")
    try:
        broker = Broker(pytestconfig.getoption("--statusbroker"))
    except BrokerError as error:
        pytest.skip(str(error))
    with broker:
        yield broker
        broker.stop()
