"""Help for tests: a fake device for unit tests, and a real broker in a network of its own.

The package has a plugin for pytest with these fixtures:

- ``fake_device``: a FakeDevice, to which statusmanager.connect() leads during the test
- ``statusbroker``: a real Broker, new for each test, in a network of its own
"""

from statusmanager.testing.broker import Broker, BrokerError
from statusmanager.testing.fake import FakeDevice

__all__ = ["Broker", "BrokerError", "FakeDevice"]
