"""A real broker for tests."""

import contextlib
import os
import shutil
import signal
import subprocess
import tempfile
import time
from typing import List, Optional, Sequence

from statusmanager.blocking import BlockingStatus, connect_blocking
from statusmanager.errors import LostError, StatusTimeoutError
from statusmanager.items import Event

_READY = "statusmanager.testing.ready"
_END_SECONDS = 30
_LOOK_SECONDS = 0.2


class BrokerError(Exception):
    """The broker did not start, or did not end."""


class Broker:
    """A broker process, for a `with` block, which ends with the process of the tests at the latest.

    It uses the fixed ports of every broker. So only one can run in a network; the fixture ``statusbroker`` runs in a
    network of its own.
    """

    def __init__(self, program: Optional[str] = None, arguments: Sequence[str] = ()) -> None:
        """Prepare a broker; by default, the program statusbroker from the path."""
        found = program or shutil.which("statusbroker", path=os.defpath + os.pathsep + os.environ.get("PATH", ""))
        if not found:
            raise BrokerError("there is no program statusbroker; Debian's package is statusbroker")
        self._command = [*_ending_with_this_process(), found, *arguments]
        self._process: "Optional[subprocess.Popen[bytes]]" = None
        self._output = tempfile.TemporaryFile()

    def __enter__(self) -> "Broker":
        try:
            self.start()
        except BaseException:
            self._output.close()
            raise
        return self

    def __exit__(self, *_: object) -> None:
        self.kill()
        self._output.close()

    def start(self, timeout: float = 30) -> None:
        """Start the broker, and wait until this process gets answers and events from it."""
        if self._process:
            raise BrokerError("the broker runs already")
        self._process = subprocess.Popen(
            self._command, stdin=subprocess.DEVNULL, stdout=self._output, stderr=self._output
        )
        until = time.monotonic() + timeout
        try:
            with self._connect(until) as status:
                self._wait_until_synced(status, until)
                self._wait_for_events(status, until)
        except BaseException:
            self.kill()
            raise

    def stop(self) -> None:
        """End the broker as a service manager does, and wait for its end."""
        self._end(signal.SIGTERM)

    def kill(self) -> None:
        """End the broker at once, as a crash would."""
        self._end(signal.SIGKILL)

    def pause(self) -> None:
        """Stop the broker's process: it answers nothing until resume()."""
        self._signal(signal.SIGSTOP)

    def resume(self) -> None:
        """Continue after pause()."""
        self._signal(signal.SIGCONT)

    def connect_blocking(self, *, timeout: float = 5) -> BlockingStatus:
        """Connect; the same as statusmanager.connect_blocking()."""
        return connect_blocking(timeout=timeout)

    @property
    def log(self) -> str:
        """What the broker has printed."""
        self._output.seek(0)
        return self._output.read().decode(errors="replace")

    def _connect(self, until: float) -> BlockingStatus:
        while True:
            self._check_start(until)
            with contextlib.suppress(StatusTimeoutError):
                return connect_blocking(timeout=_LOOK_SECONDS)

    # A process that was connected to an earlier broker learns that posts may have been lost.
    def _wait_until_synced(self, status: BlockingStatus, until: float) -> None:
        while True:
            self._check_start(until)
            with contextlib.suppress(StatusTimeoutError, LostError):
                return status.sync(timeout=_LOOK_SECONDS)

    # The library connects to the notifications in the background, and misses events from before.
    def _wait_for_events(self, status: BlockingStatus, until: float) -> None:
        with status.watch(events=[_READY], timeout=_LOOK_SECONDS / 10) as watch:
            while True:
                self._check_start(until)
                status.event(_READY)
                with contextlib.suppress(StatusTimeoutError):
                    while not isinstance(next(watch), Event):
                        pass
                    return

    def _check_start(self, until: float) -> None:
        if self._process is None or self._process.poll() is not None:
            raise BrokerError(f"the broker did not start:\n{self.log}")
        if time.monotonic() >= until:
            raise BrokerError(f"the broker did not answer in time:\n{self.log}")

    def _signal(self, number: int) -> None:
        if self._process:
            self._process.send_signal(number)

    def _end(self, number: int) -> None:
        self._signal(number)
        self._signal(signal.SIGCONT)
        process, self._process = self._process, None
        if process is None:
            return
        try:
            process.wait(_END_SECONDS)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()
            raise BrokerError(f"the broker did not end:\n{self.log}") from None


def _ending_with_this_process() -> List[str]:
    return ["setpriv", "--pdeathsig", "KILL", "--"] if shutil.which("setpriv") else []
