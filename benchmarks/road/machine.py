"""What the measurements run on."""

import os
import platform


def first_line_with(path, word):
    with open(path, encoding="ascii", errors="replace") as file:
        return next((line.split(":", 1)[1].strip() for line in file if line.startswith(word)), "unknown")


def machine():
    memory = int(first_line_with("/proc/meminfo", "MemTotal").split()[0])
    return {"cpu": first_line_with("/proc/cpuinfo", "model name"), "cores": os.cpu_count(),
            "memoryMiB": memory // 1024, "kernel": platform.release(), "load": os.getloadavg()[0]}


def described(of_run):
    """For the head of a table."""
    return (f"{of_run['cpu']}, {of_run['cores']} cores, {of_run['memoryMiB']:,} MiB of memory, Linux {of_run['kernel']}; "
            f"load at the start {of_run['load']:.1f}")
