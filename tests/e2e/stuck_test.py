#!/usr/bin/python3
"""What must not hold up the uploads, nor have them send anything twice."""
import contextlib
import sqlite3
import time
import unittest

from harness import WholeProgramTest, wait_until

LONG = {"text": "x" * 100}
TEN_YEARS_MS = 10 * 365 * 86400 * 1000


class LockedStoreTest(WholeProgramTest):
    configuration = {"upload_events": {"min-size": 100, "max-delay": 3500}}

    #: Events that were accepted, but could not be deleted, are not sent again, and the next ones go
    #: as soon as they are deleted.
    def test_events_that_were_sent_but_not_deleted_are_sent_once(self):
        self.start_with_consent()
        wait_until(lambda: self.cloud.requests("tou"), "the end of the start-up")
        self.cloud.misbehave(firehose={"action": "drip", "delay": 0.03, "count": 1})
        self.device.send("usage.epg", {"number": 1, **LONG})
        wait_until(lambda: self.cloud.requests("firehose"), "the record")
        with contextlib.closing(sqlite3.connect(self.device.database, timeout=10)) as store:
            store.execute("BEGIN IMMEDIATE")
            self.device.wait_for_error(
                "kivUpload: Deleting the sent events failed, will try later in 60 seconds")
            failed = time.monotonic()
        self.device.send("usage.epg", {"number": 2, **LONG})
        wait_until(lambda: len(self.cloud.events("usage.epg")) >= 2, "the next event", 75)
        self.assertGreaterEqual(time.monotonic() - failed, 57)
        self.device.wait_for_empty_store()
        self.assertEqual([event["number"] for event in self.cloud.events("usage.epg")], [1, 2])


class AgeTest(WholeProgramTest):
    configuration = {"upload_events": {"min-size": 100000, "max-delay": 5}}

    #: One event that the store refuses is reported, and does not keep the others from their upload.
    def test_an_event_with_a_quote_holds_up_no_other(self):
        self.start_with_consent()
        self.device.send("usage.epg", {"number": 1, **LONG})
        self.device.post_raw(b'{"event-type":"usage.epg","data":{"number":2,"text":"it\'s"}}')
        self.device.wait_for_error("kivDB: SQL error (insert event): ")
        self.assertEqual([event["number"] for event in self.wait_for_events(1, "usage.epg")], [1])
        self.assertEqual(len(self.wait_for_events(1, "db.error")), 1)

    #: An event whose sender's clock is years ahead is uploaded with the first check of the ages.
    def test_an_event_from_the_future_is_uploaded(self):
        self.start_with_consent()
        ahead = str(int(time.time() * 1000) + TEN_YEARS_MS)
        self.device.send_lines([{"event-type": "usage.epg", "utc-time": ahead, "data": LONG}])
        self.wait_for_events(1, "usage.epg")
        self.device.wait_for_empty_store()


if __name__ == "__main__":
    unittest.main()
