"""Starts, commands, observes and ends the processes of a run. Every wait has a time limit."""

import json
import os
import select
import signal
import subprocess
import time


class RunFailed(Exception):
    """A run without a result. It is counted as failed, and the next run begins."""


def wait_until(condition, seconds, what):
    deadline = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > deadline:
            raise RunFailed(f"{what} within {seconds} s")
        time.sleep(0.002)


class Process:
    """A program whose output goes to a file."""

    def __init__(self, command, folder, **options):
        self.log = os.path.join(folder, f"{os.path.basename(command[0])}.{time.monotonic_ns()}.log")
        with open(self.log, "wb") as log:
            options = {"stdin": subprocess.DEVNULL, "stdout": log} | options
            self.process = subprocess.Popen(command, stderr=log, cwd=folder, **options)
        self.pid = self.process.pid
        self.name = command[0]

    def logged(self):
        with open(self.log, encoding="utf-8", errors="replace") as log:
            return log.read()

    def wait_for_log(self, text):
        wait_until(lambda: text in self.logged() or self.has_ended(), 10, f"{self.name} did not say '{text}'")
        self.check_alive()

    def has_ended(self):
        return self.process.poll() is not None

    def check_alive(self):
        if self.has_ended():
            raise RunFailed(f"{self.name} ended with {self.process.returncode}: {self.logged()[-500:]}")

    def stop(self):
        for end in (signal.SIGTERM, signal.SIGKILL):
            if self.has_ended():
                return
            self.process.send_signal(end)
            try:
                self.process.wait(5)
            except subprocess.TimeoutExpired:
                pass

    def cpu_seconds(self):
        """User and system time of all its threads, to the nanosecond: Linux has a clock for each process."""
        return time.clock_gettime((~self.pid << 3) | 2)

    def sleeps(self):
        """How often its threads have waited for something so far."""
        total = 0
        for task in os.listdir(f"/proc/{self.pid}/task"):
            with open(f"/proc/{self.pid}/task/{task}/status", encoding="ascii", errors="replace") as status:
                total += sum(int(line.split()[1]) for line in status if line.startswith("voluntary_ctxt"))
        return total

    def memory(self):
        """Resident memory in KiB: all of it, and this process's proportional share."""
        with open(f"/proc/{self.pid}/smaps_rollup", encoding="ascii") as rollup:
            lines = dict(line.split(":", 1) for line in rollup if ":" in line.split()[0])
        return {"rss": int(lines["Rss"].split()[0]), "pss": int(lines["Pss"].split()[0])}


class Client(Process):
    """A process that executes commands; see Client.cpp."""

    def __init__(self, command, folder):
        super().__init__(command, folder, stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        self.received = b""

    def begin(self, *words):
        try:
            self.process.stdin.write((" ".join(str(word) for word in words) + "\n").encode())
            self.process.stdin.flush()
        except BrokenPipeError:
            self.process.wait(5)
            self.check_alive()

    def answer(self, seconds=30):
        deadline = time.monotonic() + seconds
        output = self.process.stdout
        while b"\n" not in self.received:
            left = deadline - time.monotonic()
            if left <= 0 or not select.select([output], [], [], left)[0]:
                raise RunFailed(f"{self.name} did not answer within {seconds} s: {self.logged()[-500:]}")
            received = os.read(output.fileno(), 65536)
            if not received:
                self.process.wait(5)
                self.check_alive()
                raise RunFailed(f"{self.name} ended")
            self.received += received
        line, self.received = self.received.split(b"\n", 1)
        return json.loads(line)

    def command(self, *words, seconds=30):
        self.begin(*words)
        return self.answer(seconds)
