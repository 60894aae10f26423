"""What the measurements ran on, as far as it matters to them; nothing that
tells one machine from another of its kind."""

import os
import platform
import re
import subprocess

PACKAGES = ["dbus-broker", "libsystemd0", "nats-server", "libnats3.4", "libzmq5", "mosquitto",
            "libmosquitto1", "redis-server", "libhiredis0.14", "libc6", "g++"]


def first_match(path, pattern):
    try:
        with open(path, encoding="utf-8") as file:
            found = re.search(pattern, file.read(), re.MULTILINE)
    except OSError:
        return ""
    return found.group(1).strip() if found else ""


def package_versions():
    """Of those that are installed."""
    query = subprocess.run(["dpkg-query", "--show", "--showformat",
                            "${db:Status-Status} ${Package} ${Version}\n", *PACKAGES],
                           capture_output=True, text=True, check=False)
    lines = [line.split() for line in query.stdout.splitlines()]
    return {line[1]: line[2] for line in lines if len(line) == 3 and line[0] == "installed"}


def describe():
    return {
        "system": first_match("/etc/os-release", r'^PRETTY_NAME="?([^"\n]*)'),
        "kernel": platform.release(),
        "processor": first_match("/proc/cpuinfo", r"^model name\s*:\s*(.*)$"),
        "processors": len(os.sched_getaffinity(0)),
        "memoryKiB": int(first_match("/proc/meminfo", r"^MemTotal:\s*(\d+)") or 0),
        "loadBefore": os.getloadavg()[0],
        "packages": package_versions(),
    }
