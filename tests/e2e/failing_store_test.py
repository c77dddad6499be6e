#!/usr/bin/python3
"""A store that does not take events for a while: nobody waits for it, and every loss is named."""
import contextlib
import sqlite3
import time
import unittest

from harness import WholeProgramTest, wait_until

FAILS = "kivGateway:Events are kept in memory: the store fails"
WORKS = "kivGateway:The store works again: "
EVENTS = 1500
FIRST = 1000  # kernel time of the first event; each further one is a millisecond later


class LockedStoreTest(WholeProgramTest):
    configuration = {"upload_events": {"min-size": 10000000, "max-delay": 86400}}

    @contextlib.contextmanager
    def locked_store(self):
        """Another process, this one, writes in the store; the daemon knows."""
        with contextlib.closing(sqlite3.connect(self.device.database,
                                                isolation_level=None)) as store:
            store.execute("BEGIN IMMEDIATE")
            self.post(0)
            self.device.wait_for_error(FAILS)
            yield
            store.execute("ROLLBACK")

    def post(self, number, *options, sync=False):
        self.device.send("usage.app", {"number": number}, "--kernel-time", str(FIRST + number),
                         *options, sync=sync)

    def start_and_rest(self):
        self.start_with_consent()
        self.device.send("usage.epg")
        wait_until(lambda: any(event["event-type"] == "usage.epg"
                               for event in self.device.stored_events()), "the first event")

    def stored(self):
        return [event for event in self.device.stored_events()
                if event["event-type"] in ("usage.app", "logging.overflow")]

    #: A store that another process locks costs no event and keeps no sender waiting.
    def test_locked_store_costs_no_event_and_keeps_no_sender_waiting(self):
        self.start_and_rest()
        with self.locked_store():
            longest = 0.0
            for number in range(1, 40):
                start = time.monotonic()
                self.post(number, sync=True)
                longest = max(longest, time.monotonic() - start)
        self.assertLess(longest, 0.5)  # a process is started and ended in it
        self.device.wait_for_error(WORKS + "40 events kept, 0 dropped")
        wait_until(lambda: len(self.stored()) == 40, "all events")
        self.assertEqual([event["data"]["number"] for event in self.stored()], list(range(40)))

    #: Of many more than 512 events that wait for it the oldest are dropped, and every loss is named.
    def test_oldest_events_beyond_512_are_dropped_and_named(self):
        self.start_and_rest()
        with self.locked_store():
            self.device.send_lines(({"event-type": "usage.app", "kernel-time": FIRST + number,
                                     "data": {"number": number}} for number in range(1, EVENTS)),
                                   "--sync=20")
        self.device.wait_for_error(WORKS)
        wait_until(lambda: self.stored()[-1]["data"].get("number") == EVENTS - 1, "the last event")
        # Not always the first of all: an attempt that waits for the lock has events in its hands,
        # and stores them also when they were dropped meanwhile.
        kept = [event["data"]["number"] for event in self.stored()
                if event["event-type"] == "usage.app"]
        lost = [number for event in self.stored() if event["event-type"] == "logging.overflow"
                for number in range(event["data"]["lowest-kernel-time"] - FIRST,
                                    event["data"]["highest-kernel-time"] - FIRST + 1)]
        self.assertGreaterEqual(len(kept), 512)
        self.assertGreaterEqual(len(lost), EVENTS - 512 - 256)
        self.assertEqual(kept[-512:], list(range(EVENTS - 512, EVENTS)))
        self.assertEqual(sorted(kept + lost), list(range(EVENTS)))
        self.assertEqual(self.device.integrity(), "ok")


if __name__ == "__main__":
    unittest.main()
