#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The vornnet authors
# SPDX-License-Identifier: Apache-2.0
"""Judges the histories of a soak: check.py DIRECTORY

Nothing may arrive twice, altered, at another callback than it was sent to, or after it was refused. What is sent
at an ordinary pace to a client that nobody disturbs arrives. A refusal comes in time, with a code that its
circumstances explain. No process ends by itself or needs more than before. Of what is sent in a burst, or to a
client that is stopped or killed, much is lost silently: the report counts it.
"""
import collections
import dataclasses
import pathlib
import statistics
import sys

SECOND = 1_000_000_000
PATIENCE = 2 * SECOND  # after which a sender breaks off, as in Roles.h
AFTERMATH = SECOND  # of a fault
KINDS = ("pipe", "socket", "udp")
LONGEST_DATAGRAM = 65507
LOSS_ALLOWANCE = 5  # of what is sent at an ordinary pace and not disturbed, and as many per cent
MEMORY_ALLOWANCE = 2048  # KiB
DESCRIPTOR_ALLOWANCE = 2
SHORTEST_COMPARED = 60  # samples, one each second

EINTR, ENOENT, EMFILE, EPIPE, ECONNRESET, ENOTCONN, ETIMEDOUT, ECONNREFUSED = 4, 2, 24, 32, 104, 107, 110, 111


@dataclasses.dataclass(slots=True)
class Attempt:
    """One remoteNotify()."""
    service: str
    client: str
    host: str
    kind: str
    callback: int
    load: str
    size: int
    sum: str
    begin: int
    end: int = 0  # 0: it has not returned
    code: int = 0
    receipts: int = 0

    @property
    def is_too_long(self):
        """By contract nobody is told, and a descriptor stays open."""
        return self.kind == "udp" and self.size > LONGEST_DATAGRAM


@dataclasses.dataclass(slots=True)
class Fault:
    kind: str
    process: str  # with its generation; empty: the network
    begin: int
    end: int


def read_lines(path):
    """Yields (time, word, fields). A process that was killed may have left half a line."""
    with open(path) as file:
        for line in file:
            if not line.endswith("\n"):
                return
            time, word, *fields = line.split()
            yield int(time), word, dict(field.split("=", 1) for field in fields)


class Checker:
    def __init__(self, directory):
        self.directory = pathlib.Path(directory)
        self.attempts = {}
        self.faults = []
        self.samples = collections.defaultdict(list)  # by process: (time, memory, threads, descriptors)
        self.idle = collections.defaultdict(list)  # by process: (descriptors, threads)
        self.rows = collections.defaultdict(collections.Counter)
        self.violations = []

    def violation(self, what, text):
        self.violations.append(f"{what}: {text}")

    # --- reading; the attempts come before what has become of them ---

    def read(self):
        for time, word, fields in read_lines(self.directory / "director.log"):
            process = f"{fields.get('process')}.{fields.get('generation')}" if "process" in fields else ""
            if word == "fault":
                self.faults.append(Fault(fields["kind"], process, int(fields["from"]), time))
            elif word == "sample":
                self.samples[process].append((time, *(int(fields[name]) for name in
                                                      ("memory", "threads", "descriptors"))))
            elif word == "failure":
                self.violation("process", fields["text"].replace("_", " "))
        for pattern in ("service*.log", "*-*.log"):
            for path in sorted(self.directory.glob(pattern)):
                for line in read_lines(path):
                    getattr(self, "on_" + line[1])(path.stem, line[0], line[2])

    def on_idle(self, process, _, fields):
        self.idle[process].append((int(fields["descriptors"]), int(fields["threads"])))

    def on_begin(self, process, time, fields):
        slot, number = int(fields["slot"]), process[len("service"):].partition(".")[0]
        kind, host = KINDS[slot // 2], str(slot % 2 + 1)
        self.attempts[fields["token"]] = Attempt(
            process, f"{kind}-{number}-{host}.{fields['generation']}", host, kind, int(fields["callback"]),
            fields["load"], int(fields["size"]), fields["sum"], time)

    def on_end(self, _, time, fields):
        attempt = self.attempts[fields["token"]]
        attempt.end, attempt.code = time, int(fields["code"])

    # --- what has arrived ---

    def on_received(self, process, time, fields):
        attempt = self.attempts.get(fields["token"])
        where = f"{fields['token']} at {process}"
        if attempt is None:
            self.violation("unknown", f"{where} was never sent")
            return
        attempt.receipts += 1
        if fields["sum"] != attempt.sum or int(fields["size"]) != attempt.size:
            self.violation("altered", f"{where}: {fields}, sent {attempt}")
        # Another client may have the port by now; its address is all that the sender has.
        if int(fields["callback"]) != attempt.callback or not process.startswith(attempt.kind + "-"):
            self.violation("wrong callback", f"{where}: {fields}, sent {attempt}")
        if attempt.end and attempt.code != 0:
            self.violation("refused and delivered", f"{where}: {attempt}")
        if time < attempt.begin:
            self.violation("before it was sent", where)

    def on_partial(self, process, _, fields):
        """Of what was sent whole, all bytes arrive."""
        attempt = self.attempts.get(fields["token"])
        if attempt is not None and attempt.code == 0 and attempt.end:
            self.violation("partial", f"{fields} at {process}, sent {attempt}")

    # --- what each attempt has come to ---

    def is_disturbed(self, attempt, kinds=("kill", "stop", "table", "net")):
        begin, end = attempt.begin - AFTERMATH, (attempt.end or attempt.begin) + AFTERMATH
        # A client that was killed is sent to until the service gives it up.
        return any(fault.kind in kinds and fault.begin <= end and (begin <= fault.end or fault.kind == "kill")
                   and fault.process in ("", attempt.client, attempt.service) for fault in self.faults)

    def is_refusal_explained(self, attempt):
        if attempt.code == EINTR:
            return attempt.end - attempt.begin >= PATIENCE
        if attempt.code in (EMFILE, ENOTCONN):
            return self.is_disturbed(attempt, ("table",))
        if attempt.code == ETIMEDOUT:
            return self.is_disturbed(attempt, ("net",))
        return attempt.code in (ECONNREFUSED, EPIPE, ECONNRESET) or (attempt.kind, attempt.code) == ("pipe", ENOENT)

    def check_attempts(self):
        delivered = collections.Counter()
        for token, attempt in self.attempts.items():
            event = token.rpartition(":")[0]
            delivered[event] += attempt.receipts
            fate = "delivered" if attempt.receipts else "refused" if attempt.code else "lost"
            self.rows[attempt.kind].update({"sent": 1, fate: 1})
            if attempt.end == 0:
                self.violation("hanging", f"{token} has not returned: {attempt}")
            elif attempt.code != 0 and not self.is_refusal_explained(attempt):
                self.violation("unexplained refusal", f"{token}: {attempt}")
            elif attempt.code == 0 and attempt.load == "paced" and not attempt.is_too_long \
                    and not self.is_disturbed(attempt):
                self.rows[attempt.kind].update({"undisturbed": 1, "arrived": attempt.receipts})
        for event, times in delivered.items():
            if times > 1:
                self.violation("duplicate", f"event {event} was delivered {times} times")
        for kind in KINDS:
            row = self.rows[kind]
            if row["undisturbed"] - row["arrived"] > LOSS_ALLOWANCE * max(1, row["undisturbed"] / 100):
                self.violation("lost", f"{row['arrived']} of {row['undisturbed']} arrived over {kind}")
            if row["delivered"] == 0:
                self.violation("idle", f"nothing was delivered over {kind}")

    # --- what the processes need ---

    def left_open(self, process, begin=0, end=1 << 63):
        return sum(attempt.service == process and attempt.is_too_long and begin <= attempt.end <= end
                   for attempt in self.attempts.values())

    def check_processes(self):
        """The same descriptors and threads when idle before and after, and no sink's thread has ended."""
        killed = {fault.process for fault in self.faults if fault.kind == "kill"}
        for process, counts in sorted(self.idle.items()):
            descriptors, threads = counts[0]
            if process not in killed and (len(counts) != 2 or counts[1][1] != threads or not
                                          0 <= counts[1][0] - descriptors <= self.left_open(process)):
                self.violation("belongings", f"{process}: descriptors and threads {counts}")
            # One that has just begun has no callbacks, and perhaps no sink yet.
            if not process.startswith("service") and any(sample[2] != threads for sample in self.samples[process][1:]):
                self.violation("belongings", f"{process}: a thread more or less than {threads}")

    def check_flatness(self):
        """The median of the last quarter of a process's samples against that of the second."""
        for process, samples in sorted(self.samples.items()):
            if len(samples) < SHORTEST_COMPARED:
                continue
            quarter = len(samples) // 4
            early, late = samples[quarter:2 * quarter], samples[-quarter:]
            before, after = ([statistics.median(sample[i] for sample in part) for i in (1, 2, 3)]
                             for part in (early, late))
            print(f"{process:14} {len(samples):6} s  memory {before[0]:7.0f} ->{after[0]:7.0f} KiB  threads "
                  f"{before[1]:3.0f} ->{after[1]:3.0f}  descriptors {before[2]:3.0f} ->{after[2]:3.0f}")
            if (after[0] > before[0] + MEMORY_ALLOWANCE or after[1] != before[1] or after[2] - before[2]
                    > DESCRIPTOR_ALLOWANCE + self.left_open(process, early[0][0], late[-1][0])):
                self.violation("not flat", process)

    def check(self):
        self.read()
        self.check_attempts()
        self.check_processes()
        self.check_flatness()
        columns = ("sent", "delivered", "refused", "lost", "undisturbed", "arrived")
        print(f"\n{'':8}" + "".join(f"{column:>12}" for column in columns))
        for kind in KINDS:
            print(f"{kind:8}" + "".join(f"{self.rows[kind][column]:12}" for column in columns))
        faults = collections.Counter(fault.kind for fault in self.faults)
        print("faults: " + ", ".join(f"{count} {kind}" for kind, count in sorted(faults.items())))


def main(directory):
    checker = Checker(directory)
    checker.check()
    for text in checker.violations[:40]:
        print("VIOLATION", text)
    found = collections.Counter(text.partition(":")[0] for text in checker.violations)
    print(f"soak: FAILED: {dict(found)}" if found else "soak: passed")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1]))
