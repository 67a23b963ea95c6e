"""The package as users install it: as a wheel that is built without a network, and by CMake."""

import configparser
import shutil
import subprocess
import sys
import zipfile
from pathlib import Path
from typing import Set

import pytest

PYTHON = Path(__file__).parents[2] / "python"


def files_of(folder: Path) -> Set[str]:
    """Return the files of the package in a folder."""
    found = (folder / "statusmanager").rglob("*")
    return {str(file.relative_to(folder)) for file in found if file.suffix in (".py", ".typed")}


def run(*command: str) -> str:
    return subprocess.run(command, stdout=subprocess.PIPE, text=True, check=True).stdout


@pytest.fixture(scope="module")
def by_wheel(tmp_path_factory: pytest.TempPathFactory) -> Path:
    """Provide a folder to which the wheel is unpacked."""
    work = tmp_path_factory.mktemp("wheel")
    shutil.copytree(PYTHON, work / "source")  # setuptools writes beside its sources
    pip = (sys.executable, "-m", "pip", "--disable-pip-version-check")
    run(*pip, "wheel", "--no-build-isolation", "--no-index", "--no-deps", "-w", str(work), str(work / "source"))
    wheel = work / "statusmanager-1.0.0-py3-none-any.whl"
    zipfile.ZipFile(wheel).extractall(work / "installed")
    return work / "installed"


@pytest.fixture(scope="module")
def by_cmake(tmp_path_factory: pytest.TempPathFactory) -> Path:
    """Provide a folder to which CMake installs the package."""
    work = tmp_path_factory.mktemp("cmake")
    (work / "CMakeLists.txt").write_text(
        f"""cmake_minimum_required(VERSION 3.25)
project(Installed VERSION 1.0.0 LANGUAGES NONE DESCRIPTION "text")
set(STATUSMANAGER_PYTHON_DIR lib/python)
add_subdirectory({PYTHON} python)
"""
    )
    run("cmake", "-S", str(work), "-B", str(work / "build"))
    run("cmake", "--install", str(work / "build"), "--prefix", str(work / "installed"))
    return work / "installed/lib/python"


@pytest.mark.parametrize("way", ["by_wheel", "by_cmake"])
def test_everything_is_installed(request: pytest.FixtureRequest, way: str) -> None:
    installed: Path = request.getfixturevalue(way)
    assert files_of(installed) == files_of(PYTHON)
    assert "statusmanager/py.typed" in files_of(installed)
    entries = configparser.ConfigParser()
    entries.read(installed / "statusmanager-1.0.0.dist-info/entry_points.txt")
    assert dict(entries["pytest11"]) == {"statusmanager": "statusmanager.testing.plugin"}


@pytest.mark.parametrize("way", ["by_wheel", "by_cmake"])
def test_pytest_finds_the_plugin(request: pytest.FixtureRequest, way: str, tmp_path: Path) -> None:
    installed: Path = request.getfixturevalue(way)
    program = f"""import sys; sys.path.insert(0, {str(installed)!r})
import pytest; pytest.main(['--fixtures'])
import statusmanager; print(statusmanager.__file__)"""
    ended = subprocess.run(
        [sys.executable, "-c", program], cwd=tmp_path, env={"PATH": "/usr/bin:/bin"}, stdout=subprocess.PIPE, check=False
    )
    assert b"\nstatusbroker -- " in ended.stdout
    assert ended.stdout.endswith(f"{installed}/statusmanager/__init__.py\n".encode())


def test_the_version_is_that_of_the_metadata(by_wheel: Path) -> None:
    program = "import importlib.metadata as m; print(m.version('statusmanager'), m.requires('statusmanager'))"
    environment = {"PYTHONPATH": str(by_wheel)}
    found = subprocess.run([sys.executable, "-c", program], env=environment, stdout=subprocess.PIPE, text=True, check=True)
    assert found.stdout == "1.0.0 None\n"
