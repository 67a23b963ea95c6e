"""The plugin for pytest, in a pytest of its own."""

import os
import subprocess
import sys
import tempfile
from pathlib import Path
from typing import Iterator, List

import pytest

TESTS = """
import os

import statusmanager


def test_it_is_in_a_network_of_its_own(statusbroker):
    assert os.readlink("/proc/self/ns/net") != {network!r}
    assert [line.split(":")[0].strip() for line in open("/proc/net/dev").readlines()[2:]] == ["lo"]


def test_it_connects(statusbroker):
    with statusmanager.connect_blocking() as status:
        status.post({{"door": "open"}})
        assert status.get("door") == "open"


def test_each_test_has_a_new_broker(statusbroker):
    with statusmanager.connect_blocking() as status:
        assert status.get_all() == {{}}


def test_the_fake_needs_no_broker(fake_device):
    fake_device.post({{"door": "open"}})
    with statusmanager.connect_blocking() as status:
        assert status.get("door") == "open"
"""


def run_pytest(folder: Path, program: str, *prefix: str) -> str:
    """Run the tests above, and return what pytest prints."""
    file = folder / "test_inner.py"
    file.write_text(TESTS.format(network=os.readlink("/proc/self/ns/net")))
    command: List[str] = [*prefix, sys.executable, "-m", "pytest", "-p", "no:cacheprovider", "-rs"]
    command += ["-p", "statusmanager.testing.plugin", f"--statusbroker={program}", str(file)]
    return subprocess.run(command, cwd=folder, stdout=subprocess.PIPE, text=True, check=False).stdout


@pytest.fixture
def program(pytestconfig: pytest.Config) -> str:
    """Provide the path of the broker."""
    return os.path.abspath(str(pytestconfig.getoption("--statusbroker")))


@pytest.fixture
def folder() -> Iterator[Path]:
    """Provide a folder that every user can read; those of pytest are not."""
    with tempfile.TemporaryDirectory() as name:
        os.chmod(name, 0o755)
        yield Path(name)


def passed_or_skipped(output: str) -> None:
    """Skips this test where the kernel gives no network; anything else must have passed."""
    if "the kernel gives no network of its own" in output:
        pytest.skip("the kernel gives no network of its own")
    assert "4 passed" in output, output


def test_its_broker_runs_in_a_network_of_its_own(folder: Path, program: str) -> None:
    passed_or_skipped(run_pytest(folder, program))


@pytest.mark.skipif(os.geteuid() != 0, reason="only root can become somebody else")
def test_it_needs_no_rights_of_root(folder: Path, program: str) -> None:
    if subprocess.run(["setpriv", "--reuid=65534", "--clear-groups", "test", "-x", program], check=False).returncode:
        pytest.skip("only root can start this broker")
    prefix = ("setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", "--inh-caps=-all")
    passed_or_skipped(run_pytest(folder, program, *prefix))


def test_a_missing_broker_skips_the_tests(folder: Path) -> None:
    output = run_pytest(folder, "")
    if "there is no program statusbroker" not in output:
        pytest.skip("a broker is installed")
    assert "1 passed, 3 skipped" in output
