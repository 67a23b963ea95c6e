"""An interpreter can end at any moment, whatever the library's threads do.

STATUSMANAGER_EXITS in the environment is the number of interpreters, 20 by default.
"""

import os
import subprocess
import sys

import pytest
from support import DEADLINE

from statusmanager.testing import Broker

EXITS = int(os.environ.get("STATUSMANAGER_EXITS", "20"))
AT_ONCE = 4

# Each ends in another way, while changes and events come and posts and questions are on the way.
PROGRAM = """
import asyncio, os, sys, threading
import statusmanager

way = int(sys.argv[1]) % 6
kept = []

def follow():
    with statusmanager.connect_blocking() as status:
        for _ in status.watch("a", "b", events=["e"]):
            status.post({"b": "2"})

async def main():
    status = await statusmanager.connect(timeout=20)
    watch = status.watch("a", "b", events=["e"])
    kept.extend([status, watch])
    for number in range(30):
        await status.post({"a": str(number), "b": str(-number)})
        await status.event("e", str(number), delay=0.001 * (number % 3))
        asyncio.ensure_future(status.get("a"))
        await watch.__anext__()
    if way == 1:
        status.close()
    if way == 2:
        sys.exit(0)
    if way == 3:
        raise KeyboardInterrupt
    if way == 4:
        threading.Thread(target=follow, daemon=True).start()
        await status.sync()
    if way == 5:
        kept.clear()
        async with statusmanager.connect() as other:
            asyncio.ensure_future(other.wait_for("c", bool))
            await asyncio.sleep(0)

try:
    asyncio.run(main())
except KeyboardInterrupt:
    pass
"""


@pytest.mark.parametrize("begin", range(0, EXITS, 20))
def test_interpreters_end_well_under_load(statusbroker: Broker, begin: int) -> None:
    for number in range(begin, min(begin + 20, EXITS), AT_ONCE):
        processes = [
            subprocess.Popen([sys.executable, "-c", PROGRAM, str(number + one)], stderr=subprocess.PIPE, text=True)
            for one in range(AT_ONCE)
        ]
        for process in processes:
            _, errors = process.communicate(timeout=DEADLINE)
            assert process.returncode == 0, errors
            assert "Exception ignored" not in errors, errors
