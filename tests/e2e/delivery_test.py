#!/usr/bin/python3
"""Events on their road from the queue to the stream."""
import unittest

from harness import WholeProgramTest


class DeliveryTest(WholeProgramTest):
    def test_event_posted_on_the_queue_reaches_the_stream(self):
        self.start_with_consent()
        for channel in range(5):
            self.device.send("usage.epg", {"channel": channel})
        events = self.wait_for_events(5, "usage.epg")
        self.assertEqual([event["channel"] for event in events], list(range(5)))
        self.device.wait_for_empty_store()


if __name__ == "__main__":
    unittest.main()
