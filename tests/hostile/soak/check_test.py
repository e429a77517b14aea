#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The vornnet authors
# SPDX-License-Identifier: Apache-2.0
"""The checker is given short histories, good ones and each kind of bad one that it must reject."""
import pathlib
import sys
import tempfile
import unittest

sys.dont_write_bytecode = True  # the tree stays as it is
import check

PIPE, SOCKET, UDP = "pipe:quoraxa", "socket:10.77.0.1:5023", "udp:10.77.0.1:5023"
FAR_SOCKET, FAR = "socket:10.77.0.2:5023", "udp:10.77.0.2:5023"
CLIENTS = {PIPE: "pipe-1-1.1", SOCKET: "socket-1-1.1", UDP: "udp-1-1.1", FAR_SOCKET: "socket-1-2.1",
           FAR: "udp-1-2.1", "socket:10.77.0.1:32768": "socket-1-1.1"}
SLOTS = {PIPE: 0, SOCKET: 2, FAR_SOCKET: 3, UDP: 4, FAR: 5}


class History(unittest.TestCase):
    """Times are in milliseconds here. At first one notification is delivered over each kind."""

    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.directory = pathlib.Path(directory.name)
        self.line("director", 0, "run")
        for name in CLIENTS.values():
            self.line(name, 0, "registered")
        self.events = 0
        for address in (PIPE, SOCKET, UDP):
            self.deliver(address, 0)

    def line(self, name, time, text):
        with open(self.directory / f"{name}.log", "a") as file:
            file.write(f"{int(time * 1_000_000)} {text}\n")

    def send(self, to, begin, end=None, code=0, callback=0, connected=None, size=10, token=None, shown=None,
             **errors):
        """One attempt; @return its token."""
        self.events += token is None
        token = token or f"1:{self.events}:1"
        self.line("service1.1", begin, f"begin token={token} slot={SLOTS[to]} generation=1 to={shown or to} "
                                       f"callback={callback} load=paced size={size} sum=ab")
        end = begin + 0.5 if end is None else end
        if connected is None:
            connected = code == 0 and not to.startswith("udp")
        from_, until = (begin + 0.1, begin + 0.2) if connected else (0, 0)
        self.line("service1.1", end, f"end token={token} code={code} from={int(from_ * 1e6)} "
                                     f"to={int(until * 1e6)} socket={errors.get('socket', 0)} "
                                     f"send={errors.get('send', 0)}")
        return token

    def client(self, address, time, text):
        self.line(CLIENTS[address], time, text)

    def open(self, address, time):
        self.client(address, time, f"opened address={address} from={int((time - 0.01) * 1e6)}")

    def take(self, address, time, token):
        self.client(address, time, f"taken token={token}" if address.startswith("udp") else "accepted")

    def receive(self, address, time, token, callback=0, sum="ab", size=10):
        self.client(address, time, f"received token={token} callback={callback} size={size} sum={sum}")

    def close(self, address, time, drops=0):
        self.client(address, time, f"closed from={int((time - 0.01) * 1e6)} drops={drops}")

    def deliver(self, address, time, token=None):
        """One server's life from @p time for five milliseconds, with one delivery after a millisecond."""
        token = token or self.send(address, time + 1)
        self.open(address, time)
        self.take(address, time + 1.3, token)
        self.receive(address, time + 2, token)
        self.close(address, time + 5)
        return token

    def fault(self, kind, begin, end, process=None):
        name, generation = (process or ".").split(".")
        self.line("director", end, f"fault kind={kind} process={name} generation={generation or 0} "
                                   f"from={int(begin * 1e6)}")

    def found(self):
        checker = check.Checker(self.directory)
        checker.check()
        self.checker = checker
        return sorted(checker.counts)

    def reason_of(self, token):
        self.assertEqual(self.found(), [])
        return self.checker.attempts[token].reason


class WhatArrived(History):
    def test_one_delivery_of_each_kind_is_good(self):
        self.assertEqual(self.found(), [])

    def test_notification_that_arrives_twice(self):
        token = self.deliver(PIPE, 10)
        self.deliver(PIPE, 20, token)
        self.assertEqual(self.found(), ["duplicate"])

    def test_altered_content(self):
        token = self.send(PIPE, 11)
        self.open(PIPE, 10)
        self.take(PIPE, 11.3, token)
        self.receive(PIPE, 12, token, sum="ac")
        self.close(PIPE, 15)
        self.assertEqual(self.found(), ["altered"])

    def test_other_callback(self):
        token = self.send(PIPE, 11, callback=1)
        self.deliver(PIPE, 10, token)
        self.assertEqual(self.found(), ["wrong callback"])

    def test_what_was_refused(self):
        token = self.send(PIPE, 11, code=32)
        self.deliver(PIPE, 10, token)
        self.assertIn("refused and delivered", self.found())


class WhatAServerDid(History):
    def test_taken_and_not_called_back(self):
        self.open(PIPE, 10)
        self.take(PIPE, 11, self.send(PIPE, 10.5))
        self.close(PIPE, 15)
        self.assertEqual(self.found(), ["not called back", "server", "unexplained loss"])

    def test_closed_with_its_sink_is_good(self):
        self.open(PIPE, 10)
        self.client(PIPE, 14, "ending")
        self.close(PIPE, 15)
        self.assertEqual(self.found(), [])


class WhatWasRefused(History):
    def test_without_a_server_is_good(self):
        self.send(PIPE, 11, code=111)
        self.send(PIPE, 12, code=2)
        self.send(SOCKET, 13, code=111)
        self.assertEqual(self.found(), [])

    def test_by_a_server_that_was_open(self):
        self.send(PIPE, 11, code=111)
        self.deliver(PIPE, 10)
        self.assertEqual(self.found(), ["unexplained refusal"])

    def test_given_up_with_a_receiver_at_work(self):
        self.send(PIPE, 11, end=2012, code=4)
        self.deliver(PIPE, 10)
        self.assertEqual(self.found(), ["unexplained refusal"])

    def test_that_never_returned(self):
        self.line("service1.1", 11, f"begin token=1:88:1 slot=0 generation=1 to={PIPE} callback=0 load=paced "
                                    "size=1 sum=ab")
        self.assertEqual(self.found(), ["hanging"])


class WhatWasLost(History):
    def test_without_a_server(self):
        self.send(PIPE, 50)
        self.assertEqual(self.found(), ["unexplained loss"])

    def test_behind_another_delivery_is_good(self):
        self.deliver(PIPE, 10)
        self.assertEqual(self.reason_of(self.send(PIPE, 12)), "queue")

    def test_more_than_a_queue_holds(self):
        self.deliver(PIPE, 10)
        for i in range(check.FULL_QUEUE + 1):
            self.send(PIPE, 12 + i / 10)
        self.assertEqual(self.found(), ["unexplained loss"])
        self.assertEqual(self.checker.counts["unexplained loss"], 1)


class WhatWasLostOverUdp(History):

    def test_between_two_servers_is_good(self):
        self.deliver(UDP, 10)
        self.assertEqual(self.reason_of(self.send(UDP, 17)), "gap")

    def test_while_the_server_was_open(self):
        self.open(UDP, 10)
        self.send(UDP, 20)
        self.client(UDP, 900, "ending")
        self.close(UDP, 901)
        self.assertEqual(self.found(), ["unexplained loss"])

    def test_swallowed_by_the_cable(self):
        token = self.send(FAR, 11)
        self.line("cable.1", 11.1, f"in token={token}")
        self.assertEqual(self.found(), ["unexplained loss"])


class WhatAProcessNeeds(History):
    def idle(self, name, *counts):
        for time, (descriptors, threads, leaked) in enumerate(counts):
            self.line(name, time + 5.1, f"idle descriptors={descriptors} threads={threads} leaked={leaked}")

    def samples(self, values, process="service1"):
        for i, (memory, threads, descriptors) in enumerate(values):
            self.line("director", 1000 * (i + 1), f"sample process={process} generation=1 memory={memory} "
                                                  f"threads={threads} descriptors={descriptors}")

    def test_the_same_before_and_after_is_good(self):
        self.idle(CLIENTS[PIPE], (5, 2, 0), (5, 2, 0))
        self.idle("service1.1", (9, 3, 0), (12, 3, 3))
        self.assertEqual(self.found(), [])

    def test_one_descriptor_more(self):
        self.idle(CLIENTS[PIPE], (5, 2, 0), (6, 2, 0))
        self.assertEqual(self.found(), ["belongings"])

    def test_memory_that_grows(self):
        self.samples([(1000 + 50 * i, 9, 12) for i in range(100)])
        self.assertEqual(self.found(), ["not flat"])

    def test_process_that_ended_by_itself(self):
        self.line("director", 100, "failure text=client_ended_by_itself_with_status_-6")
        self.assertEqual(self.found(), ["process"])


if __name__ == "__main__":
    unittest.main()
