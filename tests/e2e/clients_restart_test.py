#!/usr/bin/python3
"""Programs in C, C++ and Python post a flood while the daemon is killed and started again.

Short by itself. A million events and ten kills:
    KIV_CLIENT_EVENTS=1000000 KIV_CLIENT_KILLS=10 KIV_BUILD=build/release tests/e2e/isolate.sh \
        "$PWD" /usr/bin/python3 tests/e2e/clients_restart_test.py
"""
import os
import subprocess
import time
import unittest

from clients import Clients
from flood_test import KEYS
from harness import RT, QUEUE, WholeProgramTest, wait_until

EVENTS = int(os.environ.get("KIV_CLIENT_EVENTS", "50000"))
KILLS = int(os.environ.get("KIV_CLIENT_KILLS", "3"))
TIMEOUT_MS = 200
SLACK_MS = 1000  # a busy machine may let a program wait that long before it goes on
FIRST = 1000  # kernel time of the first event
# What a kill may cost of the events that were taken: those in memory, and one in the daemon's hands;
# those in a queue that is taken away with it.
MOST_LOST = 768 + 1 + 10


class RestartTest(WholeProgramTest):
    configuration = {"upload_events": {"min-size": 16384, "max-delay": 2, "max-size": 131072}}

    def setUp(self):
        super().setUp()
        self.clients = Clients(self.folder / "clients")

    def kill_and_start(self, number):
        """Every second time as at a reboot: the queue is gone, too."""
        self.device.kill()
        if number % 2:
            RT.mq_unlink(QUEUE.encode())
        time.sleep(0.3)  # longer than the programs' time-out: a full queue is told, too
        self.device.start()

    def flood(self, command):
        """Runs a program; returns the numbers that it calls not taken, and its longest post."""
        refused, kills, longest, marks = {}, 0, None, 0
        with subprocess.Popen([*command, str(EVENTS), str(TIMEOUT_MS)], stdout=subprocess.PIPE,
                              text=True, env=self.clients.environment) as program:
            for line in program.stdout:
                word, number, *why = line.split(maxsplit=2)
                if word == "not":
                    refused[int(number)] = "".join(why)
                elif word == "longest":
                    longest = float(number)
                else:
                    marks += 1
                    if marks > 1 and kills < KILLS:
                        self.kill_and_start(kills)
                        kills += 1
        self.assertEqual((program.returncode, kills), (0, KILLS))
        return refused, longest

    def arrived(self):
        """The numbers of the events in the cloud, and of those that an overflow record names."""
        received = {event["number"] for event in self.cloud.events("usage.app")}
        named = set()
        for record in self.cloud.events("logging.overflow"):
            lowest, highest = (record[f"{end}-{KEYS[2]}"] for end in ("lowest", "highest"))
            named.update(range(lowest - FIRST, highest - FIRST + 1))
        return received, named

    def check(self, command):
        self.start_with_consent()
        begin = time.monotonic()
        refused, longest = self.flood(command)
        took = time.monotonic() - begin
        self.device.send("usage.app", {"number": EVENTS}, "--kernel-time", str(FIRST + EVENTS))
        wait_until(lambda: self.device.alive() and any(
            event["number"] == EVENTS for event in self.cloud.events("usage.app")),
            "the last event", 120)
        self.device.wait_for_empty_store()
        received, named = self.arrived()
        taken = set(range(EVENTS)) - set(refused)
        lost = taken - received - named
        print(f"{command[-1]}: {EVENTS} events, {KILLS} kills, {took:.1f} s, longest post "
              f"{longest:.1f} ms, not taken {len(refused)}, received {len(received)}, named as "
              f"pruned {len(named - received)}, lost by the kills {len(lost)}")
        self.assertLess(longest, TIMEOUT_MS + SLACK_MS)
        self.assertEqual(received & set(refused), set(), "not taken, but there")
        self.assertTrue(received and refused)
        for why in refused.values():
            self.assertIn(why.strip(), (
                f"{QUEUE}: no room within 0.2 s (kivApp is dead or busy)",
                f"{QUEUE}: no such queue (is kivApp running?)"))
        self.assertLessEqual(len(lost), KILLS * MOST_LOST)

    #: A program in C that posts a flood while the daemon is killed and started again is never held
    #: up longer than its time-out and knows which events were taken; what a kill costs of those is
    #: bounded.
    def test_c_program_knows_what_was_taken_through_kills(self):
        self.check([self.clients.compiled("many.c")])

    #: So does one in C++.
    def test_cpp_program_knows_what_was_taken_through_kills(self):
        self.check([self.clients.compiled("many.cpp")])

    #: So does one in Python.
    def test_python_program_knows_what_was_taken_through_kills(self):
        self.check(["/usr/bin/python3", str(self.clients.EXAMPLES / "many.py")])


if __name__ == "__main__":
    unittest.main()
