#!/usr/bin/python3
"""The minute after a failed upload."""
import time
import unittest

from harness import WholeProgramTest, wait_until

LONG = {"text": "x" * 100}


class RetryTest(WholeProgramTest):
    configuration = {"upload_events": {"min-size": 100, "max-delay": 5}}

    #: A failed packet and a failed file are tried again once, after a minute.
    def test_failed_packet_and_file_are_tried_again_once_behind_a_minute(self):
        self.cloud.misbehave(firehose={"action": "server-error", "count": 1},
                             s3={"action": "server-error", "count": 1})
        self.start_with_consent()
        path = self.device.folder / "a.log"
        path.write_text("content")
        self.device.send("usage.epg", {"number": 1, **LONG})
        failed = time.monotonic()
        self.device.wait_for_error(
            "kivUpload: Event upload failed, will try later in 60 seconds")
        self.device.send("usage.app", {"oob-info": {"unique-id": "u1"}}, "--url", str(path))
        wait_until(lambda: self.device.query("SELECT retries FROM Files") == [(1,)], "the failure")
        for number in range(2, 12):  # none of them may start an upload now
            self.device.send("usage.epg", {"number": number, **LONG})
            time.sleep(0.5)
        self.assertEqual(len(self.cloud.requests("firehose")), 1)
        self.assertEqual(len(self.cloud.requests("s3")), 1)

        wait_until(lambda: len(self.cloud.events("usage.epg")) >= 11, "the second attempt", 75)
        self.assertGreaterEqual(time.monotonic() - failed, 57)
        wait_until(lambda: list(self.cloud.objects().values()) == [b"content"], "the file", 20)
        self.device.wait_for_empty_store()
        self.assertEqual([event["number"] for event in self.cloud.events("usage.epg")],
                         list(range(1, 12)))
        self.assertEqual(len(self.cloud.requests("firehose")), 2)
        self.assertEqual(len(self.cloud.requests("s3")), 2)


if __name__ == "__main__":
    unittest.main()
