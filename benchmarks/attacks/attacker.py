#!/usr/bin/env python3
"""Plays one crowd of an attack. It stops at SIGTERM, or when the time is over, and prints what it has sent.

    attacker.py ATTACK NUMBER SECONDS
"""

import json
import os
import signal
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "../road"))

from attacks import ATTACKS  # noqa: E402
from silent import allow_descriptors  # noqa: E402


def main():
    name, number, seconds = sys.argv[1:]
    attack = next(one for one in ATTACKS if one.name == name)
    crowd = attack.crowds[int(number)]
    ends = []
    signal.signal(signal.SIGTERM, lambda *_: ends.append(True))
    allow_descriptors(crowd.count)
    deadline = time.monotonic() + float(seconds)
    print(json.dumps(crowd.run(lambda: ends or time.monotonic() > deadline)), flush=True)


if __name__ == "__main__":
    main()
