#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The vornnet authors
# SPDX-License-Identifier: Apache-2.0
"""Compares the histories of a soak: check.py DIRECTORY

Nothing may arrive twice, altered, at another callback or address than it was sent to, or after it was refused.
What did not arrive must have been refused with a code, or be lost, and code and loss must follow from what the
processes have written down. All of them use the same clock, so that times can be compared: of each server and
of each attempt both the widest and the narrowest time are known, and an explanation is taken when the facts
allow it, a contradiction when they do not.
"""
import bisect
import collections
import dataclasses
import functools
import pathlib
import statistics
import sys

SECOND = 1_000_000_000
PATIENCE = 2 * SECOND  # after which a sender breaks off, as in Roles.h
SLACK = SECOND // 4  # by which a busy kernel may hand a datagram on later
LONGEST_DATAGRAM = 65507
HOSTS = {1: "10.77.0.1", 2: "10.77.0.2"}  # of the services
FULL_QUEUE = 6  # connections wait for accept()
# How many a server may throw away with its queue: over TCP also as many whose last packet of the handshake has
# not come through.
QUEUE = {"pipe": FULL_QUEUE, "socket": 2 * FULL_QUEUE}
MEMORY_ALLOWANCE = 2048  # KiB
DESCRIPTOR_ALLOWANCE = 2
SHORTEST_COMPARED = 60  # samples, one each second

EMFILE, EPIPE, EMSGSIZE, ECONNRESET, ENOTCONN, ETIMEDOUT, ECONNREFUSED = 24, 32, 90, 104, 107, 110, 111
ENOENT, EINTR = 2, 4


@dataclasses.dataclass(slots=True)
class Attempt:
    """One remoteNotify()."""
    token: str
    slot: int
    generation: int
    to: str
    callback: int
    load: str
    size: int
    sum: str
    begin: int
    end: int = 0  # 0: it has not returned
    code: int = 0
    connected_from: int = 0  # 0: there was no connection
    connected_to: int = 0
    socket_error: int = 0
    send_error: int = 0
    receipts: int = 0
    reason: str = ""

    @property
    def kind(self):
        return self.to.partition(":")[0]

    @property
    def service(self):
        return int(self.token.partition(":")[0])

    @property
    def event(self):
        return self.token.rpartition(":")[0]

    @property
    def is_far(self):
        """To the other host. A pipe is a file, and both hosts have the same."""
        return self.kind != "pipe" and self.to.split(":")[1] != HOSTS[self.service]


@dataclasses.dataclass(slots=True)
class Take:
    """What a sink has taken from its server: a connection, or a datagram, whose token is known at once."""
    time: int
    token: str = ""
    outcome: str = ""  # "received", "partial", "early": before there were callbacks, or nothing


@dataclasses.dataclass(slots=True)
class Epoch:
    """The life of a server's socket. It surely was open from opened to close_from, and surely was not before
    open_from and after closed."""
    address: str
    process: str
    generation: int
    open_from: int
    opened: int
    close_from: int = 0
    closed: int = 0
    end: str = "open"  # then "closed", "ending" with its sink, or "killed"
    drops: int = 0
    takes: list = dataclasses.field(default_factory=list)
    thrown: list = dataclasses.field(default_factory=list)

    @property
    def is_served(self):
        return bool(self.takes) and self.takes[-1].outcome != ""

    @property
    def is_early(self):
        """It was closed after what came before there was a callback, from a sender that meant the port's holder
        before."""
        return bool(self.takes) and self.takes[-1].outcome == "early"


@dataclasses.dataclass(slots=True)
class Fault:
    kind: str
    process: str
    generation: int
    begin: int
    end: int

    def overlaps(self, begin, end):
        return self.begin <= end and begin <= self.end


class Epochs:
    """Those of one address."""

    def __init__(self, epochs):
        self.epochs = sorted(epochs, key=lambda epoch: epoch.open_from)
        self.begins = [epoch.open_from for epoch in self.epochs]
        self.latest_ends = []
        latest = 0
        for epoch in self.epochs:
            latest = max(latest, epoch.closed)
            self.latest_ends.append(latest)

    def overlapping(self, begin, end):
        """All that may have been open at some time in between, the earliest first."""
        found = []
        i = bisect.bisect_right(self.begins, end) - 1
        while i >= 0 and self.latest_ends[i] >= begin:
            if self.epochs[i].closed >= begin:
                found.append(self.epochs[i])
            i -= 1
        return found[::-1]

    def was_open_throughout(self, begin, end):
        return any(epoch.opened <= begin and end <= epoch.close_from for epoch in self.overlapping(begin, end))

    def ended_within(self, begin, end):
        return any(epoch.close_from <= end for epoch in self.overlapping(begin, end))


def read_lines(path):
    """Yields (time, word, fields). A process that was killed may have left half a line."""
    with open(path) as file:
        for line in file:
            if not line.endswith("\n"):
                return
            time, word, *fields = line.split()
            yield int(time), word, dict(field.split("=", 1) for field in fields)


def as_bound(address):
    """A sink counts its ports as signed 16-bit numbers; after 32767 its address shows negative ones."""
    place, _, port = address.rpartition(":")
    return f"{place}:{int(port) % 65536}" if port.startswith("-") else address


def name_of(path):
    """Name and generation of the process: NAME.GENERATION.log"""
    name, generation, _ = path.name.rsplit(".", 2)
    return name, int(generation)


class Checker:
    def __init__(self, directory):
        self.directory = pathlib.Path(directory)
        self.attempts = {}
        self.epochs_of = {}
        self.faults = []
        self.samples = collections.defaultdict(list)
        self.idle = collections.defaultdict(list)  # (time, descriptors, threads)
        self.cable = {}  # by token: what the cable did with the datagram
        self.overflows = []
        self.violations = []
        self.counts = collections.Counter()
        self.moved = 0

    def violation(self, what, text):
        self.counts[what] += 1
        self.violations.append(f"{what}: {text}")

    # --- reading ---

    def read(self):
        self.read_director()
        for path in sorted(self.directory.glob("service*.log")):
            self.read_service(path)
        for path in sorted(self.directory.glob("cable.*.log")):
            self.read_cable(path)
        epochs = collections.defaultdict(list)
        for path in sorted(self.directory.glob("*-*.log")):
            for epoch in ClientReader(self, path).read():
                epochs[epoch.address].append(epoch)
        self.epochs_of = {address: Epochs(found) for address, found in epochs.items()}

    def read_director(self):
        for time, word, fields in read_lines(self.directory / "director.log"):
            if word == "fault":
                self.faults.append(Fault(fields["kind"], fields.get("process", ""),
                                         int(fields.get("generation", 0)), int(fields["from"]), time))
            elif word == "sample":
                self.samples[fields["process"], int(fields["generation"])].append(
                    (time, int(fields["memory"]), int(fields["threads"]), int(fields["descriptors"])))
            elif word == "failure":
                self.violation("process", fields["text"].replace("_", " "))

    def read_service(self, path):
        for time, word, fields in read_lines(path):
            if word == "begin":
                self.attempts[fields["token"]] = Attempt(
                    fields["token"], int(fields["slot"]), int(fields["generation"]), as_bound(fields["to"]),
                    int(fields["callback"]), fields["load"], int(fields["size"]), fields["sum"], time)
            elif word == "end":
                attempt = self.attempts[fields["token"]]
                attempt.end, attempt.code = time, int(fields["code"])
                attempt.connected_from, attempt.connected_to = int(fields["from"]), int(fields["to"])
                attempt.socket_error, attempt.send_error = int(fields["socket"]), int(fields["send"])
            elif word == "idle":
                self.add_idle(path, time, fields)

    def add_idle(self, path, time, fields):
        self.idle[name_of(path)].append((time, int(fields["descriptors"]) - int(fields["leaked"]),
                                         int(fields["threads"])))

    def read_cable(self, path):
        for time, word, fields in read_lines(path):
            if word == "overflow":
                self.overflows.append([int(fields["from"]), time, int(fields["frames"])])
            elif word in ("in", "dropped", "out", "choked"):
                self.cable.setdefault(fields["token"], {})[word] = (int(fields.get("from", time)), time)

    def epochs_at(self, address):
        return self.epochs_of.get(address) or Epochs([])

    # --- what has arrived ---

    def receive(self, epoch, time, fields):
        attempt = self.attempts.get(fields["token"])
        where = f"{fields['token']} at {epoch.process}.{epoch.generation} {epoch.address}"
        if attempt is None:
            self.violation("unknown", f"{where} was never sent")
            return
        attempt.receipts += 1
        if attempt.receipts > 1:
            self.violation("duplicate", where)
        if fields["sum"] != attempt.sum or int(fields["size"]) != attempt.size:
            self.violation("altered", f"{where}: {fields['sum']}/{fields['size']}, sent "
                                      f"{attempt.sum}/{attempt.size}")
        if int(fields["callback"]) != attempt.callback or epoch.address != attempt.to:
            self.violation("wrong callback", f"{where}: callback {fields['callback']}, sent to "
                                             f"{attempt.callback} at {attempt.to}")
        if attempt.end and attempt.code != 0:
            self.violation("refused and delivered", f"{where}: code {attempt.code}")
        if time < attempt.begin:
            self.violation("before it was sent", where)
        # The port's next holder: the library cannot know, the address is all that the sender has.
        self.moved += epoch.process.split("-")[1] != str(attempt.service) or epoch.generation != attempt.generation

    def check_events(self):
        """No event by two of its attempts."""
        delivered = collections.Counter(attempt.event for attempt in self.attempts.values() if attempt.receipts)
        for event, times in delivered.items():
            if times > 1:
                self.violation("duplicate", f"event {event} by {times} attempts")

    # --- what a server has done with what came in ---

    def check_epoch(self, epoch):
        """Every server takes one notification, gives it to one callback and is closed."""
        where = f"{epoch.process}.{epoch.generation} {epoch.address} opened at {epoch.opened}"
        last = len(epoch.takes) - 1
        for i, take in enumerate(epoch.takes):
            if take.outcome == "" and not (epoch.end == "killed" and i == last):
                if not self.explain_silent(epoch, take):
                    self.violation("not called back", f"{where}: taken at {take.time} {take.token}")
            if take.outcome != "" and i != last:
                self.violation("server", f"{where}: took another one after a delivery")
        if epoch.end == "closed" and not epoch.is_served:
            self.violation("server", f"{where}: closed without a delivery")
        if epoch.end == "open":
            self.violation("server", f"{where}: never closed")

    def explain_silent(self, epoch, take):
        """A connection without a whole handle: of a sender that broke off. Over TCP it may have broken off while
        the kernel completed the connection. Each such sender explains one connection."""
        if take.token != "":
            return False
        for attempt in self.failed_at(epoch.address, epoch.open_from, take.time):
            may_connect = attempt.connected_from or attempt.kind == "socket"
            if attempt.code == EINTR and may_connect and attempt.reason == "":
                attempt.reason = "silent"
                return True
        return False

    def check_partial(self, epoch, take, fields, time):
        """A notification of which only a part arrived must have failed at its sender's, too."""
        attempt = self.attempts.get(fields["token"])
        if attempt is not None:
            is_explained = attempt.code != 0 and attempt.to == epoch.address
        else:
            is_explained = any(attempt.connected_from for attempt in
                               self.failed_at(epoch.address, epoch.open_from, time))
        if not is_explained:
            self.violation("partial", f"{fields} at {epoch.address}, taken at {take.time}")

    @functools.cached_property
    def failed(self):
        found = collections.defaultdict(list)
        for attempt in self.attempts.values():
            if attempt.code != 0:
                found[attempt.to].append(attempt)
        return found

    def failed_at(self, address, begin, end):
        return [attempt for attempt in self.failed[address] if attempt.begin <= end and begin <= attempt.end]

    # --- what was refused ---

    def has_fault(self, kind, process, begin, end):
        return any(fault.kind == kind and fault.process == process and fault.overlaps(begin, end)
                   for fault in self.faults)

    def is_refusal_explained(self, attempt):
        begin, end, code = attempt.begin, attempt.end, attempt.code
        epochs = self.epochs_at(attempt.to)
        if code == ECONNREFUSED or (code == ENOENT and attempt.kind == "pipe"):
            return not epochs.was_open_throughout(begin, end)
        if code in (EPIPE, ECONNRESET):
            return epochs.ended_within(begin, end)
        if code == EINTR:
            return end - begin >= PATIENCE and self.had_to_wait(attempt, epochs)
        if code in (EMFILE, ENOTCONN):
            return attempt.socket_error == EMFILE and self.has_fault("table", f"service{attempt.service}", begin,
                                                                     end)
        if code == ETIMEDOUT:
            return attempt.is_far and self.has_fault("cable", "", begin, end)
        return False

    def had_to_wait(self, attempt, epochs):
        """Who waits too long has met a receiver that could not take anything, a bad cable, or over TCP a full
        queue, to which the kernel does not answer; its next tries are one and three seconds later."""
        begin, end = attempt.begin, attempt.end
        if attempt.is_far and self.has_fault("cable", "", begin, end):
            return True
        for epoch in epochs.overlapping(begin, end):
            if any(self.has_fault(kind, epoch.process, begin, end) for kind in ("stop", "table", "kill")):
                return True
            if attempt.kind == "socket" and self.connected_within(epoch, end) >= FULL_QUEUE:
                return True
        return False

    def connected_within(self, epoch, end):
        times = self.connected[epoch.address]
        silent = sum(take.outcome == "" for take in epoch.takes)  # connected without their senders' knowledge
        return (bisect.bisect_right(times, min(end, epoch.closed)) - bisect.bisect_left(times, epoch.open_from)
                + silent)

    @functools.cached_property
    def connected(self):
        found = collections.defaultdict(list)
        for attempt in sorted(self.attempts.values(), key=lambda attempt: attempt.connected_to):
            if attempt.connected_to:
                found[attempt.to].append(attempt.connected_to)
        return found

    def check_refusals(self):
        for attempt in self.attempts.values():
            if attempt.end == 0:
                self.violation("hanging", f"{attempt.token} to {attempt.to} has not returned")
            elif attempt.code != 0 and not self.is_refusal_explained(attempt):
                self.violation("unexplained refusal", f"{attempt}")

    # --- what was lost ---

    def lost(self):
        return [attempt for attempt in self.attempts.values()
                if attempt.end and attempt.code == 0 and attempt.receipts == 0]

    def check_losses(self):
        lost = self.lost()
        # Those first that certainly met a server: what had no room in its socket is counted.
        for attempt in sorted((attempt for attempt in lost if attempt.kind == "udp"), key=self.may_find_no_server):
            attempt.reason = self.explain_datagram(attempt)
        self.explain_connections([attempt for attempt in lost if attempt.kind != "udp"])
        for attempt in lost:
            if attempt.reason == "":
                self.violation("unexplained loss", f"{attempt}")

    def explain_connections(self, lost):
        """A connection that was never accepted ended with the queue of the server that it had come into, when
        that was closed after another delivery or its process was killed. A queue has room for so many."""
        room = {}
        for attempt in sorted(lost, key=lambda attempt: attempt.connected_to):
            if attempt.connected_from == 0 or attempt.to not in self.epochs_of:
                continue
            for epoch in self.epochs_of[attempt.to].overlapping(attempt.connected_from, attempt.connected_to):
                reason = self.end_of_queue(epoch, attempt)
                was_taken = epoch.end == "killed" or epoch.is_early
                left = room.setdefault(id(epoch), QUEUE[attempt.kind] + was_taken)
                if reason and left > 0:
                    attempt.reason = reason
                    room[id(epoch)] -= 1
                    break

    def end_of_queue(self, epoch, attempt):
        if epoch.end == "killed":
            return "killed"
        if epoch.is_early:
            return "early"
        if epoch.end == "closed" and epoch.is_served:
            return "queue"
        # The senders were silent long before the sinks ended, so only a repetition of a lost packet can be late.
        if epoch.end == "ending" and attempt.is_far and self.has_fault("cable", "", attempt.begin, attempt.end):
            return "cable"
        return ""

    def arrival(self, attempt):
        """When it came to the receiver's host; None if it did not get there."""
        if attempt.send_error or attempt.socket_error:
            return None
        if not attempt.is_far:
            return attempt.begin, attempt.end + SLACK
        passage = self.cable.get(attempt.token, {})
        return (passage["out"][0], passage["out"][1] + SLACK) if "out" in passage else None

    def may_find_no_server(self, attempt):
        arrival = self.arrival(attempt)
        return arrival is None or not self.epochs_at(attempt.to).was_open_throughout(*arrival)

    def explain_datagram(self, attempt):
        if attempt.send_error or attempt.socket_error:
            return self.explain_unsent(attempt)
        arrival = self.arrival(attempt)
        if arrival is None:
            return self.explain_in_cable(attempt)
        epochs = self.epochs_at(attempt.to).overlapping(*arrival)
        if any(attempt.token in epoch.thrown for epoch in epochs):
            return "queue"
        if any(epoch.end == "killed" for epoch in epochs):
            return "killed"
        if any(epoch.is_early and epoch.takes[-1].token == attempt.token for epoch in epochs):
            return "early"
        full = next((epoch for epoch in epochs if epoch.drops > 0), None)
        if full is not None:
            full.drops -= 1
            return "room"
        if attempt.token in self.taken or not self.may_find_no_server(attempt):
            return ""
        return "gap"

    def explain_unsent(self, attempt):
        if attempt.send_error == EMSGSIZE and attempt.size > LONGEST_DATAGRAM:
            return "unsent"
        if attempt.socket_error == EMFILE and self.has_fault("table", f"service{attempt.service}", attempt.begin,
                                                             attempt.end):
            return "unsent"
        return ""

    def explain_in_cable(self, attempt):
        passage = self.cable.get(attempt.token, {})
        if "dropped" in passage or "choked" in passage:
            return "cable"
        for overflow in self.overflows:
            begin, end, frames = overflow
            if frames > 0 and attempt.begin <= end and begin <= attempt.end + SLACK:
                overflow[2] -= 1
                return "cable"
        return ""

    @functools.cached_property
    def taken(self):
        return {take.token for epochs in self.epochs_of.values() for epoch in epochs.epochs for take in epoch.takes}

    # --- what the processes need ---

    def check_belongings(self):
        """The same descriptors and threads when idle before and after; less what a failed sendto() leaves open."""
        killed = {(fault.process, fault.generation) for fault in self.faults if fault.kind == "kill"}
        for (process, generation), counts in sorted(self.idle.items()):
            was_killed = (process, generation) in killed
            if not was_killed and (len(counts) != 2 or counts[0][1:] != counts[1][1:]):
                self.violation("belongings", f"{process}.{generation}: descriptors and threads {counts}")
            if not process.startswith("service"):
                self.check_sink_lives(process, generation, *counts[0])

    def check_sink_lives(self, process, generation, since, _, threads):
        """A sink's thread that has ended, which is what resets and signals do to it, receives nothing more."""
        for time, _, found, _ in self.samples[process, generation]:
            if time > since and found != threads:
                self.violation("belongings", f"{process}.{generation}: {found} threads at {time}")
                return

    def flatness(self):
        """Yields a line for each process that lived long enough, and whether it needs no more than before: the
        median of the last quarter of its samples against that of the second."""
        for (process, generation), samples in sorted(self.samples.items()):
            if len(samples) < SHORTEST_COMPARED:
                continue
            quarter = len(samples) // 4
            early, late = samples[quarter:2 * quarter], samples[-quarter:]
            before, after = ([statistics.median(sample[i] for sample in part) for i in (1, 2, 3)]
                             for part in (early, late))
            leaked = self.leaked_between(process, early[0][0], late[-1][0])
            is_flat = (after[0] <= before[0] + MEMORY_ALLOWANCE and after[1] == before[1]
                       and after[2] <= before[2] + DESCRIPTOR_ALLOWANCE + leaked)
            yield (f"{process + '.' + str(generation):14} {len(samples):6} s  memory {before[0]:7.0f} ->"
                   f"{after[0]:7.0f} KiB  threads {before[1]:3.0f} ->{after[1]:3.0f}  descriptors "
                   f"{before[2]:3.0f} ->{after[2]:3.0f}"), is_flat

    def leaked_between(self, process, begin, end):
        return sum(f"service{attempt.service}" == process and begin <= attempt.end <= end
                   for attempt in self.unsent)

    @functools.cached_property
    def unsent(self):
        return [attempt for attempt in self.attempts.values() if attempt.send_error]

    # --- the result ---

    def check(self):
        self.read()
        for epochs in self.epochs_of.values():
            for epoch in epochs.epochs:
                self.check_epoch(epoch)
        self.check_events()
        self.check_refusals()
        self.check_losses()
        self.check_belongings()
        self.flat = list(self.flatness())
        for text, is_flat in self.flat:
            if not is_flat:
                self.violation("not flat", text)
        kinds = {attempt.kind for attempt in self.attempts.values() if attempt.receipts}
        for kind in set(QUEUE) | {"udp"}:
            if kind not in kinds:
                self.violation("idle", f"nothing was delivered over {kind}")


class ClientReader:
    """Makes epochs of a client's history. It is its sink's thread that writes them, one after the other."""

    def __init__(self, checker, path):
        self.checker = checker
        self.path = path
        self.process, self.generation = name_of(path)
        self.epochs = []
        self.current = None
        self.is_ending = False
        self.registered = None
        self.last_time = 0

    def read(self):
        for time, word, fields in read_lines(self.path):
            handler = getattr(self, "on_" + word)
            handler(time, fields)
            self.last_time = time
        self.finish()
        return self.epochs

    def on_idle(self, time, fields):
        self.checker.add_idle(self.path, time, fields)

    def on_registered(self, time, _):
        self.registered = time

    def on_ending(self, *_):
        self.is_ending = True

    def on_opened(self, time, fields):
        self.current = Epoch(fields["address"], self.process, self.generation, int(fields["from"]), time)
        self.epochs.append(self.current)

    def on_accepted(self, time, _):
        self.current.takes.append(Take(time))

    def on_taken(self, time, fields):
        self.current.takes.append(Take(time, fields["token"]))

    def on_thrown(self, _, fields):
        self.current.thrown.append(fields["token"])

    def on_received(self, time, fields):
        take = self.current.takes[-1]
        if take.outcome != "" or take.token not in ("", fields["token"]):
            self.checker.violation("server", f"{fields['token']} called back, {take} taken")
        take.outcome = "received"
        self.checker.receive(self.current, time, fields)

    def on_partial(self, time, fields):
        take = self.current.takes[-1]
        take.outcome = "partial"
        self.checker.check_partial(self.current, take, fields, time)

    def on_closed(self, time, fields):
        epoch = self.current
        epoch.close_from, epoch.closed, epoch.drops = int(fields["from"]), time, int(fields["drops"])
        epoch.end = "ending" if self.is_ending else "closed"
        self.current = None

    def finish(self):
        for epoch in self.epochs:
            if epoch.end == "closed" and epoch.takes and not epoch.is_served:
                # A sink serves before its client can add a callback.
                if self.registered is None or epoch.takes[-1].time < self.registered:
                    epoch.takes[-1].outcome = "early"
        kill = next((fault for fault in self.checker.faults if fault.kind == "kill" and
                     (fault.process, fault.generation) == (self.process, self.generation)), None)
        if kill is None or not self.epochs:
            return
        if self.current is None:
            # The next server may have been open already, though nobody could write that down any more.
            address = self.epochs[-1].address
            self.current = Epoch(address, self.process, self.generation, self.last_time, kill.end)
            self.epochs.append(self.current)
        # After a delivery it may have been closed at any time.
        self.current.close_from = self.last_time if self.current.is_served else kill.begin
        self.current.closed = kill.end
        self.current.end = "killed"


class Report:
    """The table: what became of the events, by kind."""

    REASONS = ("queue", "gap", "room", "cable", "early", "killed", "unsent")

    def __init__(self, checker):
        self.checker = checker
        self.rows = collections.defaultdict(collections.Counter)
        self.codes = collections.defaultdict(collections.Counter)

    def count(self):
        events = collections.defaultdict(list)
        for attempt in self.checker.attempts.values():
            events[attempt.event].append(attempt)
            if attempt.code != 0:
                self.codes[attempt.kind][attempt.code] += 1
        for attempts in events.values():
            last = attempts[-1]
            is_delivered = any(attempt.receipts for attempt in attempts)
            fate = "delivered" if is_delivered else "refused" if last.code != 0 else last.reason
            self.rows[last.kind + " far" * last.is_far].update({"events": 1, "again": len(attempts) - 1, fate: 1})

    def print(self):
        self.count()
        columns = ("events", "delivered", "refused", *self.REASONS, "again")
        print(f"\n{'':11}" + "".join(f"{column:>10}" for column in columns))
        for kind, row in sorted(self.rows.items()):
            print(f"{kind:11}" + "".join(f"{row[column] or '.':>10}" for column in columns))
        print("\nfar: to the other host; refused: the sender knows; again: further attempts after a refusal.\n"
              "Lost silently: queue: with the server that was closed after another delivery; gap: a datagram, while\n"
              "there was no server; room: a datagram too many for the socket; cable: dropped on the way; early: to\n"
              "the port's next holder, before that had a callback; killed: with its receiver; unsent: a datagram too\n"
              "long, or no descriptor for it")
        for kind, codes in sorted(self.codes.items()):
            print(f"refusals over {kind}: " +
                  ", ".join(f"{count} with code {code}" for code, count in sorted(codes.items())))
        faults = collections.Counter(fault.kind for fault in self.checker.faults)
        print("faults: " + ", ".join(f"{count} {kind}" for kind, count in sorted(faults.items())))
        print(f"delivered to the next holder of a client's port: {self.checker.moved}\n")
        for text, is_flat in self.checker.flat:
            print(text, "" if is_flat else "NOT FLAT")
        if not self.checker.flat:
            print("memory is not compared: the run was too short")


def main(arguments):
    checker = Checker(arguments[0])
    checker.check()
    Report(checker).print()
    for text in checker.violations[:40]:
        print("VIOLATION", text)
    attempts = len(checker.attempts)
    if checker.violations:
        print(f"soak: FAILED; of {attempts} notifications: " +
              ", ".join(f"{count} {what}" for what, count in sorted(checker.counts.items())))
        return 1
    print(f"soak: passed; of {attempts} notifications none twice, altered or at a wrong callback, each loss and "
          "each refusal explained, each process as before")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
