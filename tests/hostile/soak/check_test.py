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

    def test_port_that_an_address_shows_as_negative_is_good(self):
        token = self.send(SOCKET, 11, shown="socket:10.77.0.1:-32768")
        self.deliver("socket:10.77.0.1:32768", 10, token)
        self.assertEqual(self.found(), [])

    def test_notification_that_arrives_twice(self):
        token = self.deliver(PIPE, 10)
        self.deliver(PIPE, 20, token)
        self.assertEqual(self.found(), ["duplicate"])

    def test_event_that_arrives_by_two_attempts(self):
        for attempt in (1, 2):
            self.deliver(PIPE, 10 * attempt, self.send(PIPE, 10 * attempt + 1, token=f"1:99:{attempt}"))
        self.assertEqual(self.found(), ["duplicate"])

    def test_altered_content(self):
        token = self.send(PIPE, 11)
        self.open(PIPE, 10)
        self.take(PIPE, 11.3, token)
        self.receive(PIPE, 12, token, sum="ac")
        self.close(PIPE, 15)
        self.assertEqual(self.found(), ["altered"])

    def test_shortened_content(self):
        token = self.send(PIPE, 11)
        self.open(PIPE, 10)
        self.take(PIPE, 11.3, token)
        self.receive(PIPE, 12, token, size=9)
        self.close(PIPE, 15)
        self.assertEqual(self.found(), ["altered"])

    def test_other_callback(self):
        token = self.send(PIPE, 11, callback=1)
        self.deliver(PIPE, 10, token)
        self.assertEqual(self.found(), ["wrong callback"])

    def test_other_address(self):
        token = self.send(PIPE, 11)
        self.deliver(SOCKET, 10, token)
        self.assertEqual(self.found(), ["wrong callback"])

    def test_what_was_never_sent(self):
        self.deliver(PIPE, 10, "1:77:1")
        self.assertEqual(self.found(), ["unknown"])

    def test_what_was_refused(self):
        token = self.send(PIPE, 11, code=32)
        self.deliver(PIPE, 10, token)
        self.assertIn("refused and delivered", self.found())

    def test_what_arrives_before_it_was_sent(self):
        self.deliver(PIPE, 10, self.send(PIPE, 30))
        self.assertEqual(self.found(), ["before it was sent"])

    def test_datagram_that_becomes_another(self):
        taken, called = self.send(UDP, 11), self.send(UDP, 11)
        self.open(UDP, 10)
        self.take(UDP, 11.3, taken)
        self.receive(UDP, 12, called)
        self.client(UDP, 14, f"thrown token={taken}")
        self.close(UDP, 15)
        self.assertEqual(self.found(), ["server"])

    def test_kind_without_a_delivery(self):
        (self.directory / "udp-1-1.1.log").unlink()  # with its delivery
        self.assertIn("idle", self.found())

    def test_half_a_line_of_a_killed_process_does_not_count(self):
        self.open(PIPE, 10)
        with open(self.directory / f"{CLIENTS[PIPE]}.log", "a") as file:
            file.write("11000000 receiv")
        self.fault("kill", 11, 12, CLIENTS[PIPE])
        self.assertEqual(self.found(), [])


class WhatAServerDid(History):
    def test_taken_and_not_called_back(self):
        self.open(PIPE, 10)
        self.take(PIPE, 11, self.send(PIPE, 10.5))
        self.close(PIPE, 15)
        self.assertEqual(self.found(), ["not called back", "server", "unexplained loss"])

    def test_datagram_taken_and_not_called_back(self):
        self.open(UDP, 10)
        self.take(UDP, 11, self.send(UDP, 10.5))
        self.close(UDP, 15)
        self.assertEqual(self.found(), ["not called back", "server", "unexplained loss"])

    def test_closed_without_a_delivery(self):
        self.open(PIPE, 10)
        self.close(PIPE, 15)
        self.assertEqual(self.found(), ["server"])

    def test_closed_with_its_sink_is_good(self):
        self.open(PIPE, 10)
        self.client(PIPE, 14, "ending")
        self.close(PIPE, 15)
        self.assertEqual(self.found(), [])

    def test_open_after_a_delivery(self):
        self.open(PIPE, 10)
        for time in (11, 13):
            token = self.send(PIPE, time)
            self.take(PIPE, time + 0.3, token)
            self.receive(PIPE, time + 1, token)
        self.close(PIPE, 15)
        self.assertEqual(self.found(), ["server"])

    def test_connection_of_a_sender_that_broke_off_before_its_first_word_is_good(self):
        self.open(SOCKET, 5)
        self.fault("stop", 10, 2500, CLIENTS[SOCKET])
        self.send(SOCKET, 11, end=2012, code=4, connected=True)
        self.take(SOCKET, 2501, "")
        self.take(SOCKET, 2502, token := self.send(SOCKET, 2501.5))
        self.receive(SOCKET, 2503, token)
        self.close(SOCKET, 2504)
        self.assertEqual(self.found(), [])

    def test_more_silent_connections_than_senders_that_broke_off(self):
        self.open(SOCKET, 5)
        self.fault("stop", 10, 2500, CLIENTS[SOCKET])
        self.send(SOCKET, 11, end=2012, code=4)
        for time in (2501, 2502):
            self.take(SOCKET, time, "")
        self.take(SOCKET, 2503, token := self.send(SOCKET, 2502.5))
        self.receive(SOCKET, 2504, token)
        self.close(SOCKET, 2505)
        self.assertEqual(self.found(), ["not called back"])

    def test_taken_before_there_was_a_callback_is_good(self):
        for address in (PIPE, UDP):
            self.line(CLIENTS[address][:-1] + "2", 20, f"opened address={address} from=20000000")
            token = self.send(address, 21)
            self.line(CLIENTS[address][:-1] + "2", 22,
                      f"taken token={token}" if address == UDP else "accepted")
            self.line(CLIENTS[address][:-1] + "2", 23, "closed from=23000000 drops=0")
            self.line(CLIENTS[address][:-1] + "2", 24, "registered")
            self.assertEqual(self.reason_of(token), "early")

    def test_never_closed(self):
        self.open(PIPE, 10)
        self.assertEqual(self.found(), ["server"])

    def test_part_of_a_notification_whose_sender_saw_success(self):
        token = self.send(PIPE, 11)
        self.open(PIPE, 10)
        self.take(PIPE, 11.3, token)
        self.client(PIPE, 12, f"partial token={token} callback=0 code=107")
        self.close(PIPE, 15)
        self.assertIn("partial", self.found())

    def test_part_of_a_notification_whose_sender_broke_off_is_good(self):
        token = self.send(PIPE, 11, end=2012, code=4, connected=True)
        self.open(PIPE, 10)
        self.fault("stop", 10, 2500, CLIENTS[PIPE])
        self.take(PIPE, 2501, token)
        self.client(PIPE, 2502, f"partial token={token} callback=0 code=107")
        self.close(PIPE, 2503)
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

    def test_by_a_server_that_was_closed_meanwhile_is_good(self):
        self.deliver(PIPE, 10)
        self.send(PIPE, 14.5, end=15.5, code=32)
        self.send(PIPE, 14.5, end=15.5, code=104)
        self.assertEqual(self.found(), [])

    def test_broken_off_though_no_server_was_closed(self):
        for code in (32, 104):
            self.send(PIPE, 20, code=code)
        self.assertEqual(self.found(), ["unexplained refusal"])
        self.assertEqual(self.checker.counts["unexplained refusal"], 2)

    def test_code_of_another_kind(self):
        self.send(SOCKET, 11, code=2)
        self.assertEqual(self.found(), ["unexplained refusal"])

    def test_unheard_of_code(self):
        self.send(PIPE, 11, code=22)
        self.assertEqual(self.found(), ["unexplained refusal"])

    def test_given_up_before_its_time(self):
        self.fault("stop", 0, 900, CLIENTS[PIPE])
        self.send(PIPE, 11, end=600, code=4)
        self.assertEqual(self.found(), ["unexplained refusal"])

    def test_given_up_with_a_receiver_at_work(self):
        self.send(PIPE, 11, end=2012, code=4)
        self.deliver(PIPE, 10)
        self.assertEqual(self.found(), ["unexplained refusal"])

    def test_given_up_with_a_full_queue_over_tcp_is_good(self):
        self.open(SOCKET, 10)
        tokens = [self.send(SOCKET, 11 + i) for i in range(7)]
        self.send(SOCKET, 20, end=2021, code=4)
        self.take(SOCKET, 2022, tokens[0])
        self.receive(SOCKET, 2023, tokens[0])
        self.close(SOCKET, 2024)
        self.assertEqual(self.found(), [])

    def test_without_descriptors_is_good(self):
        self.fault("table", 10, 20, "service1.1")
        self.send(PIPE, 11, code=107, socket=24)
        self.assertEqual(self.found(), [])

    def test_without_descriptors_though_there_were_some(self):
        self.send(PIPE, 11, code=107, socket=24)
        self.assertEqual(self.found(), ["unexplained refusal"])

    def test_without_descriptors_at_another_time(self):
        self.fault("table", 12, 20, "service1.1")
        self.fault("table", 5, 10, "service1.1")
        self.send(PIPE, 11, code=107, socket=24)
        self.assertEqual(self.found(), ["unexplained refusal"])

    def test_timed_out_over_a_bad_cable_is_good(self):
        self.fault("cable", 10, 20)
        self.send(FAR_SOCKET, 11, end=2100, code=110)
        self.send(FAR_SOCKET, 11, end=2100, code=4)
        self.assertEqual(self.found(), [])

    def test_timed_out_though_the_cable_was_good(self):
        self.fault("cable", 5, 10)
        self.send(FAR_SOCKET, 11, end=2100, code=110)
        self.send(FAR_SOCKET, 11, end=2100, code=4)
        self.assertEqual(self.found(), ["unexplained refusal"])
        self.assertEqual(self.checker.counts["unexplained refusal"], 2)

    def test_timed_out_over_a_bad_cable_on_the_same_host(self):
        self.fault("cable", 10, 20)
        self.send(SOCKET, 11, end=2100, code=110)
        self.assertEqual(self.found(), ["unexplained refusal"])

    def test_that_never_returned(self):
        self.line("service1.1", 11, f"begin token=1:88:1 slot=0 generation=1 to={PIPE} callback=0 load=paced "
                                    "size=1 sum=ab")
        self.assertEqual(self.found(), ["hanging"])


class WhatWasLost(History):
    def test_without_a_server(self):
        self.send(PIPE, 50)
        self.assertEqual(self.found(), ["unexplained loss"])

    def test_without_a_connection(self):
        self.deliver(PIPE, 10)
        self.send(PIPE, 11, connected=False)
        self.assertEqual(self.found(), ["unexplained loss"])

    def test_behind_another_delivery_is_good(self):
        self.deliver(PIPE, 10)
        self.assertEqual(self.reason_of(self.send(PIPE, 12)), "queue")

    def test_after_the_server_was_closed(self):
        self.deliver(PIPE, 10)
        self.send(PIPE, 16)
        self.assertEqual(self.found(), ["unexplained loss"])

    def test_more_than_a_queue_holds(self):
        self.deliver(PIPE, 10)
        for i in range(check.FULL_QUEUE + 1):
            self.send(PIPE, 12 + i / 10)
        self.assertEqual(self.found(), ["unexplained loss"])
        self.assertEqual(self.checker.counts["unexplained loss"], 1)

    def test_with_a_killed_receiver_is_good(self):
        self.open(PIPE, 10)
        self.fault("kill", 20, 21, CLIENTS[PIPE])
        self.assertEqual(self.reason_of(self.send(PIPE, 15)), "killed")

    def test_between_the_last_line_and_the_kill_is_good(self):
        self.deliver(PIPE, 10)
        self.fault("kill", 20, 21, CLIENTS[PIPE])
        self.assertEqual(self.reason_of(self.send(PIPE, 17)), "killed")

    def test_after_a_kill(self):
        self.open(PIPE, 10)
        self.fault("kill", 20, 21, CLIENTS[PIPE])
        self.send(PIPE, 22)
        self.assertEqual(self.found(), ["unexplained loss"])

    def test_in_the_queue_of_a_sink_that_ended(self):
        self.open(PIPE, 10)
        self.client(PIPE, 14, "ending")
        self.close(PIPE, 15)
        self.send(PIPE, 12)
        self.assertEqual(self.found(), ["unexplained loss"])


class WhatWasLostOverUdp(History):
    def test_thrown_away_with_its_server_is_good(self):
        token = self.send(UDP, 12)
        self.open(UDP, 10)
        self.take(UDP, 11, other := self.send(UDP, 10.5))
        self.receive(UDP, 13, other)
        self.client(UDP, 14, f"thrown token={token}")
        self.close(UDP, 15)
        self.assertEqual(self.reason_of(token), "queue")

    def test_between_two_servers_is_good(self):
        self.deliver(UDP, 10)
        self.assertEqual(self.reason_of(self.send(UDP, 17)), "gap")

    def test_while_the_server_was_open(self):
        self.open(UDP, 10)
        self.send(UDP, 20)
        self.client(UDP, 900, "ending")
        self.close(UDP, 901)
        self.assertEqual(self.found(), ["unexplained loss"])

    def test_too_many_for_the_socket_is_as_good_as_its_count(self):
        for drops in (2, 1):
            self.setUp()
            self.open(UDP, 10)
            tokens = [self.send(UDP, 11 + i) for i in range(3)]
            self.take(UDP, 15, tokens[0])
            self.receive(UDP, 16, tokens[0])
            self.close(UDP, 900, drops)
            self.assertEqual(self.found(), [] if drops == 2 else ["unexplained loss"])

    def test_room_is_kept_for_those_that_nothing_else_explains(self):
        self.open(UDP, 10)
        before = self.send(UDP, 9)
        tokens = [self.send(UDP, 11 + i) for i in range(2)]
        self.take(UDP, 15, tokens[0])
        self.receive(UDP, 16, tokens[0])
        self.close(UDP, 900, 1)
        self.assertEqual(self.reason_of(before), "gap")
        self.assertEqual(self.reason_of(tokens[1]), "room")

    def test_too_long_is_good(self):
        self.assertEqual(self.reason_of(self.send(UDP, 11, size=70000, send=90)), "unsent")

    def test_not_sent_though_not_too_long(self):
        self.send(UDP, 11, size=60000, send=90)
        self.assertEqual(self.found(), ["unexplained loss"])

    def test_without_a_descriptor_is_good(self):
        self.fault("table", 10, 20, "service1.1")
        self.assertEqual(self.reason_of(self.send(UDP, 11, socket=24)), "unsent")

    def test_dropped_by_the_cable_is_good(self):
        token = self.send(FAR, 11)
        self.line("cable.1", 11.1, f"in token={token}")
        self.line("cable.1", 11.2, f"dropped token={token}")
        self.assertEqual(self.reason_of(token), "cable")

    def test_swallowed_by_the_cable(self):
        token = self.send(FAR, 11)
        self.line("cable.1", 11.1, f"in token={token}")
        self.assertEqual(self.found(), ["unexplained loss"])

    def test_that_left_the_cable_into_an_open_server(self):
        self.open(FAR, 5)
        token = self.send(FAR, 11)
        self.line("cable.1", 11.1, f"in token={token}")
        self.line("cable.1", 11.2, f"out token={token} from=11100000")
        self.client(FAR, 900, "ending")
        self.close(FAR, 901)
        self.assertEqual(self.found(), ["unexplained loss"])

    def test_dropped_before_the_cable_by_netem_is_good(self):
        self.fault("cable", 10, 20)
        self.assertEqual(self.reason_of(self.send(FAR, 11)), "cable")

    def test_that_never_reached_a_good_cable(self):
        self.send(FAR, 11)
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

    def test_one_thread_more(self):
        self.idle("service1.1", (9, 3, 0), (9, 4, 0))
        self.assertEqual(self.found(), ["belongings"])

    def test_killed_before_it_could_tell_is_good(self):
        self.idle(CLIENTS[PIPE], (5, 2, 0))
        self.fault("kill", 20, 21, CLIENTS[PIPE])
        self.assertEqual(self.found(), [])

    def test_sink_whose_thread_has_ended(self):
        self.idle(CLIENTS[PIPE], (5, 2, 0))
        self.samples([(1000, 2, 5), (1000, 1, 5)], "pipe-1-1")
        self.fault("kill", 9000, 9001, CLIENTS[PIPE])
        self.assertEqual(self.found(), ["belongings"])

    def test_flat_is_good(self):
        self.samples([(1000 + i % 7, 9, 12 + i % 2) for i in range(100)])
        self.assertEqual(self.found(), [])
        self.assertEqual(len(self.checker.flat), 1)

    def test_memory_that_grows(self):
        self.samples([(1000 + 50 * i, 9, 12) for i in range(100)])
        self.assertEqual(self.found(), ["not flat"])

    def test_threads_that_grow(self):
        self.samples([(1000, 9 + i // 40, 12) for i in range(100)])
        self.assertEqual(self.found(), ["not flat"])

    def test_descriptors_that_grow(self):
        self.samples([(1000, 9, 12 + i // 10) for i in range(100)])
        self.assertEqual(self.found(), ["not flat"])

    def test_descriptors_that_a_failed_sendto_leaves_open_are_good(self):
        self.samples([(1000, 9, 12 + 10 * (i // 50)) for i in range(100)])
        for i in range(10):
            self.send(UDP, 40_000 + i, size=70000, send=90)
        self.assertEqual(self.found(), [])

    def test_process_that_ended_by_itself(self):
        self.line("director", 100, "failure text=client_ended_by_itself_with_status_-6")
        self.assertEqual(self.found(), ["process"])


if __name__ == "__main__":
    unittest.main()
