#!/usr/bin/python3
"""Far more events than the store takes: pruned oldest first, every loss named."""
import threading
import unittest

from harness import WholeProgramTest, wait_until

EVENTS = 50000
THRESHOLD = 131072  # bytes of stored events above which pruning starts
FIRST = 1000  # kernel time of the first event; each further one is a millisecond later
KEYS = ("boot-count", "standby-count", "kernel-time")


class FloodTest(WholeProgramTest):
    configuration = {"upload_events": {"min-size": 16384, "max-delay": 2, "max-size": 131072}}

    #: In a flood, received events and named losses make up all that was sent, with at most
    #: two pruning threads.
    def test_received_events_and_named_losses_make_up_all_that_was_sent(self):
        self.start_with_consent()
        first = FIRST
        self.device.send("usage.epg", {"text": "x" * 200}, "--kernel-time", str(first - 1))
        self.wait_for_events(1, "usage.epg")
        self.device.wait_for_empty_store()
        quiet = self.device.tasks()
        most = [quiet]
        done = threading.Event()
        watch = threading.Thread(target=self.watch_tasks, args=(done, most))
        watch.start()
        try:
            self.device.send_lines({"event-type": "usage.app", "kernel-time": first + number,
                                    "data": {"number": number}} for number in range(EVENTS))
            self.device.send("usage.app", {"number": EVENTS},
                             "--kernel-time", str(first + EVENTS))
            wait_until(lambda: self.device.alive() and any(
                event["number"] == EVENTS for event in self.cloud.events("usage.app")),
                "the last event", 40)
            self.device.wait_for_empty_store()
        finally:
            done.set()
            watch.join()
        self.assertLessEqual(most[0], quiet + 2)  # one that prunes, one that waits for it
        self.assertEqual(self.device.integrity(), "ok")
        self.assertLessEqual(self.stored_size(), THRESHOLD)
        self.assertEqual(self.device.err(), "")

        received = [event["number"] for event in self.cloud.events("usage.app")]
        lost = set()
        for record in self.cloud.events("logging.overflow"):
            lowest, highest = ([record[f"{end}-{key}"] for key in KEYS]
                               for end in ("lowest", "highest"))
            self.assertEqual(lowest[:2] + highest[:2], [1, 1, 1, 1])
            lost.update(range(lowest[2] - first, highest[2] - first + 1))
        self.assertTrue(lost, "nothing was pruned: no flood")
        self.assertEqual(set(received) | lost, set(range(EVENTS + 1)))
        self.assertEqual(len(received), len(set(received)), "sent twice")

    def watch_tasks(self, done, most):
        while not done.wait(0.002):
            try:
                most[0] = max(most[0], self.device.tasks())
            except FileNotFoundError:
                return

    def stored_size(self):
        return self.device.query("SELECT IFNULL(SUM(length(CAST(data AS BLOB))+1)+1,0) "
                                 "FROM Events")[0][0]

    #: A store that cannot be sent stays below the threshold and names its losses.
    def test_store_that_cannot_be_sent_stays_below_the_threshold_and_names_its_losses(self):
        self.cloud.misbehave(firehose="refuse")
        self.start_with_consent()
        first = FIRST
        self.device.send_lines(({"event-type": "usage.app", "kernel-time": first + number,
                                 "data": {"number": number}} for number in range(3000)),
                               "--sync=20")
        wait_until(lambda: any(event.get("data", {}).get("number") == 2999
                               for event in self.device.stored_events()), "the last event")
        wait_until(lambda: self.stored_size() <= THRESHOLD, "the pruner's end")
        stored = self.device.stored_events()
        self.assertEqual(stored[0]["event-type"], "logging.overflow")
        self.assertEqual(len([event for event in stored
                              if event["event-type"] == "logging.overflow"]), 1)
        kept = [event["data"]["number"] for event in stored[1:]]
        self.assertEqual(kept, list(range(kept[0], 3000)))
        self.assertEqual(stored[0]["data"], {
            "lowest-boot-count": 1, "lowest-standby-count": 1, "lowest-kernel-time": first,
            "highest-boot-count": 1, "highest-standby-count": 1,
            "highest-kernel-time": first + kept[0] - 1})
        self.assertEqual(self.device.integrity(), "ok")


if __name__ == "__main__":
    unittest.main()
