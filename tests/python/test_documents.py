"""docs/python.md and the example do what they say."""

import json
import re
import subprocess
import sys
from pathlib import Path
from typing import Dict

import pytest
from support import DEADLINE

from statusmanager.testing import Broker

SOURCE = Path(__file__).parents[2]


def code() -> Dict[str, str]:
    """Return the code of the document. The first line of each block is the name of its file."""
    blocks = re.findall(r"^```python\n(# ([a-z_-]+\.py)\n.*?)^```$", (SOURCE / "docs/python.md").read_text(), re.S | re.M)
    return {name: text for text, name in blocks}


PROGRAMS = {name: text for name, text in code().items() if not name.startswith("test_")}


def test_the_document_has_code() -> None:
    assert len(PROGRAMS) >= 4
    assert len(code()) > len(PROGRAMS)
    assert (SOURCE / "docs/python.md").read_text().count("```python") == len(code())


@pytest.mark.parametrize("name", PROGRAMS)
def test_programs_print_what_they_say(statusbroker: Broker, name: str) -> None:
    expected = PROGRAMS[name].splitlines()[1]
    assert expected.startswith("# Prints: ")
    ended = subprocess.run(
        [sys.executable, "-c", PROGRAMS[name]], stdout=subprocess.PIPE, text=True, timeout=DEADLINE, check=True
    )
    assert f"# Prints: {ended.stdout}" == expected + "\n"


def test_the_tests_pass(tmp_path: Path, pytestconfig: pytest.Config) -> None:
    for name, text in code().items():
        if name.startswith("test_"):
            (tmp_path / name).write_text(text)
    program = Path(str(pytestconfig.getoption("--statusbroker"))).absolute()
    network = pytestconfig.getoption("--statusbroker-network")
    options = ["-p", "no:cacheprovider", "-p", "statusmanager.testing.plugin", f"--statusbroker={program}"]
    command = [sys.executable, "-m", "pytest", *options, f"--statusbroker-network={network}"]
    ended = subprocess.run(command, cwd=tmp_path, stdout=subprocess.PIPE, text=True, timeout=DEADLINE, check=False)
    assert "2 passed" in ended.stdout, ended.stdout


def test_a_recording_is_plotted(tmp_path: Path) -> None:
    pytest.importorskip("matplotlib")
    recording = tmp_path / "device.jsonl"
    time = "2026-01-01T00:00:0{}.000000Z"
    changes = [
        {"kind": "initial", "name": "room.celsius", "time": time.format(0), "value": "20.5"},
        {"kind": "synced", "time": time.format(0)},
        {"kind": "changed", "name": "room.celsius", "time": time.format(1), "value": "21"},
        {"kind": "changed", "name": "door", "time": time.format(1), "value": "open"},
        {"kind": "event", "name": "bell", "time": time.format(2), "value": "rang"},
        {"kind": "reset", "name": "room.celsius", "time": time.format(3), "value": ""},
        {"kind": "changed", "name": "fan", "time": time.format(4), "value": "on"},
    ]
    recording.write_text("".join(json.dumps(change) + "\n" for change in changes))
    program = [sys.executable, str(SOURCE / "examples/python/plot-recording.py"), str(recording)]
    picture = tmp_path / "device.png"
    ended = subprocess.run([*program, str(picture)], stdout=subprocess.PIPE, text=True, timeout=DEADLINE, check=True)
    assert ended.stdout == "2 keys, 1 events\n"
    assert picture.read_bytes().startswith(b"\x89PNG")
    ended = subprocess.run([*program, str(picture), "door"], stderr=subprocess.PIPE, text=True, check=False)
    assert "has no numbers" in ended.stderr
