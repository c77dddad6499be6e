#!/usr/bin/python3
"""Test mode: what would be sent goes into a local file."""
import json
import unittest

from harness import WholeProgramTest, wait_until

LONG = {"text": "x" * 100}


class TestModeTest(WholeProgramTest):
    def setUp(self):
        super().setUp()
        self.file = self.device.folder / "sent.json"

    def written(self):
        try:
            return json.loads(self.file.read_text())
        except ValueError:  # just being written
            return {}

    #: In test mode each put appends to the file and nothing leaves the set.
    def test_each_put_appends_to_the_file_and_nothing_leaves_the_set(self):
        self.file.write_text('{"kept": 1, "files": "no array"}')
        self.start_with_consent("-T", str(self.file))
        for number in (1, 2):
            self.device.send("usage.epg", {"number": number, **LONG})
            log = wait_until(lambda number=number: len(self.written().get(
                "eventlog", [])) == number and self.written()["eventlog"], f"put {number}")
        self.assertEqual([block["events"][0]["number"] for block in log], [1, 2])
        self.assertEqual(log[0]["deviceid"], "TV-E2E-1")
        self.assertEqual((self.written()["kept"], self.written()["files"]), (1, "no array"))
        self.device.wait_for_empty_store()

        announced = self.device.folder / "a.log"
        announced.write_text("content")
        self.device.send("usage.epg", {"oob-info": {"unique-id": "u1", "bucketname": "b1"}},
                         "--url", str(announced))
        files = wait_until(lambda: isinstance(self.written().get("files"), list)
                           and self.written()["files"], "the file")
        self.assertEqual(files, [{"id": "u1", "bucketname": "b1", "filename": str(announced)}])
        self.assertEqual(len(self.written()["eventlog"]), 2)
        self.assertEqual(self.cloud.requests("firehose") + self.cloud.requests("s3"), [])

    #: Test-mode content that is not an object is replaced; a missing file is a failure and
    #: is not made.
    def test_content_that_is_no_object_is_replaced(self):
        self.file.write_text("not JSON")
        self.start_with_consent("--testmode", str(self.file))
        self.device.send("usage.epg", {"number": 1, **LONG})
        wait_until(lambda: list(self.written()) == ["eventlog"], "the put")

    #: Test-mode content that is not an object is replaced; a missing file is a failure and
    #: is not made.
    def test_missing_file_is_a_failure_and_is_not_made(self):
        self.start_with_consent("-T", str(self.file))
        self.device.send("usage.epg", {"number": 1, **LONG})
        self.device.wait_for_error("kivAWSWrapper: UploadToKinesisFirehose failed ")
        self.device.wait_for_error("kivUpload: Event upload failed, will try later in 60 seconds")
        self.assertFalse(self.file.exists())
        self.assertEqual(len(self.device.wait_for_stored(1)), 1)


if __name__ == "__main__":
    unittest.main()
