#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The vornnet authors
# SPDX-License-Identifier: Apache-2.0
"""Runs the scripts for bpftrace beside real notifications: check_scripts.py SCRIPTS LIBRARY TOOL"""
import contextlib
import os
import pathlib
import re
import shutil
import signal
import subprocess
import sys

SKIPPED = 77


@contextlib.contextmanager
def running(*command):
    process = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    try:
        yield process
    finally:
        process.kill()
        process.communicate()


def begun(process, text):
    """The first line of output with the text, or None at its end."""
    return next((line for line in process.stdout if text in line), None)


def result(process):
    process.send_signal(signal.SIGINT)
    return process.communicate(timeout=60)[0]


def main(scripts, library, tool):
    if shutil.which("bpftrace") is None or os.geteuid() != 0:
        print("there is no bpftrace, or it may not trace")
        return SKIPPED
    scripts = pathlib.Path(scripts)
    with (running(tool, "sink", "--type", "pipe") as sink,
          running(scripts / "notification-latency.bt", library) as latency,
          running(scripts / "refusals.bt", library) as refusals):
        for tracer in (latency, refusals):
            if begun(tracer, "tracing") is None:
                print("this kernel lets nobody trace:", tracer.stderr.read())
                return SKIPPED
        address = begun(sink, "address").split()[1]
        for _ in range(5):
            # The sink's pipe is away for a moment after each notification.
            while subprocess.run([tool, "notify", address, "0", "12"], check=False).returncode != 0:
                pass
            begun(sink, "notification")
        subprocess.run([tool, "notify", "pipe:nobody", "0", "12"], check=False, stderr=subprocess.DEVNULL)
        times, refused = result(latency), result(refusals)
    counts = [int(count) for count in re.findall(r"^\[.*\) +(\d+) \|", times, re.M)]
    print(times, refused)
    assert f"@microseconds[{address}]" in times and sum(counts) == 5, counts
    assert "@refusals[pipe, nobody, 0, 2, vornnet]: 1" in refused
    return 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
