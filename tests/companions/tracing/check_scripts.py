#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The vornnet authors
# SPDX-License-Identifier: Apache-2.0
"""Traces real notifications and events: check_scripts.py SCRIPTS LIBRARY NOTIFY_LIBRARY TOOL

The scripts for bpftrace run beside notifications, and a program of this test's own beside what the library of
deliveries does.
"""
import contextlib
import os
import pathlib
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import threading

SKIPPED = 77


@contextlib.contextmanager
def running(*command, **options):
    process = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, **options)
    try:
        yield process
    finally:
        process.kill()
        process.communicate()


def begun(process, text):
    """The first line of output with the text, or None at its end."""
    return next((line for line in process.stdout if text in line), None)


def result(process):
    # One that comes while a tracer is busy with its probes may be lost on it.
    for _ in range(12):
        process.send_signal(signal.SIGINT)
        with contextlib.suppress(subprocess.TimeoutExpired):
            return process.communicate(timeout=5)[0]
    raise RuntimeError(f"{process.args} does not end")


def lines_with(process, texts):
    """The lines of output until all these have come, or a minute has passed."""
    lines = []
    ending = threading.Timer(60, process.kill)
    ending.start()
    while not set(texts) <= set(lines) and (line := process.stdout.readline()):
        lines.append(line.rstrip())
    ending.cancel()
    return lines


PROBES = {
    "notification__posted": '"%d %s %d", arg0, str(arg1), arg2',
    "notification__tried": '"%d %s %d", arg0, str(arg1), arg2',
    "notification__finished": '"%d %s %d %d", arg0, str(arg1), arg2, arg3',
    "callback__begun": '"%d", arg0',
    "callback__done": '"%d", arg0',
    "subscription__begun": '"%d %s %d", arg0, str(arg1), arg3',
    "subscription__ended": '"%d %s %d %d", arg0, str(arg1), arg3, arg4',
    "event__published": '"%s %d", str(arg0), arg1',
    "event__sent": '"%d %s %d %d", arg0, str(arg1), arg2, arg3',
    "event__received": '"%s %d %d", str(arg0), arg1, arg2',
}


def tracer_of(library):
    clauses = (f"usdt:{library}:vornnet:{name} {{ printf(\"{name} \"); printf({show}); printf(\"\\n\"); }}"
               for name, show in PROBES.items())
    return ["bpftrace", "-e", 'BEGIN { printf("tracing\\n"); } ' + " ".join(clauses)]


def check_deliveries(library, tool):
    """One confirmed notification and one event, as the probes of the library of deliveries tell of them."""
    with running(*tracer_of(library)) as tracer:
        if begun(tracer, "tracing") is None:
            print("this kernel lets nobody trace:", tracer.stderr.read())
            return
        with running(tool, "sink", "--steady", "--type", "pipe") as sink:
            address = begun(sink, "address").split()[1]
            subprocess.run([tool, "notify", address, "0", "12", "--confirm"], check=True)
        with running(tool, "publish", "pipe:news", "builds", stdin=subprocess.PIPE) as service:
            begun(service, "address")
            with running(tool, "subscribe", "pipe:news", "builds", "--content", "string", "--count", "1") as client:
                begun(client, "connected")
                service.stdin.write("kernel\n")
                service.stdin.flush()
                client.communicate(timeout=60)
            begun(service, "closed")
        expected = [f"notification__posted 1 {address} 0", f"notification__tried 1 {address} 1", "callback__begun 0",
                    "callback__done 0", f"notification__finished 1 {address} 0 0", "subscription__begun 1 builds 0",
                    "event__published builds 1", "event__sent 1 builds 1 1", "event__received builds 1 0",
                    "subscription__ended 1 builds 0 0"]
        # A tracer that is told to end drops what it has not read yet.
        seen = lines_with(tracer, expected) + result(tracer).split("\n")
    print(seen)
    assert sorted(line for line in seen if line in expected) == sorted(expected), seen


def check_scripts(scripts, library, tool):
    """Five notifications and a refused one, as the scripts show them."""
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


def copy_of(library, directory):
    """Its copy, by the name that programs load: a probe fires in every process that uses the same file."""
    return shutil.copy(library, directory / (pathlib.Path(library).name.split(".")[0] + ".so.1"))


def main(scripts, library, notify_library, tool):
    if shutil.which("bpftrace") is None or os.geteuid() != 0:
        print("there is no bpftrace, or it may not trace")
        return SKIPPED
    with tempfile.TemporaryDirectory() as name:
        directory = pathlib.Path(name)
        os.environ["LD_LIBRARY_PATH"] = name
        status = check_scripts(pathlib.Path(scripts), copy_of(library, directory), tool)
        if status == 0:
            check_deliveries(copy_of(notify_library, directory), tool)
        return status


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
