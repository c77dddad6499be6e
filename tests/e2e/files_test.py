#!/usr/bin/python3
"""Announced files on their road to the object service."""
import os
import pathlib
import sqlite3
import unittest

from harness import WholeProgramTest, kernel_ms, wait_until

BUCKET = "norvane-ddump"


def is_running(process):
    try:
        status = pathlib.Path(f"/proc/{process}/stat").read_text()
    except (FileNotFoundError, ProcessLookupError):
        return False
    return status.rpartition(")")[2].split()[0] not in "XZ"


class FilesTest(WholeProgramTest):
    def file(self, name, content=b"content"):
        path = self.device.folder / name
        path.write_bytes(content)
        return path

    def announce(self, path, info=None):
        self.device.send("usage.app", {"oob-info": info} if info is not None else {"text": "x" * 90},
                         "--url", str(path))

    def wait_for_objects(self, count):
        return wait_until(lambda: self.device.alive() and len(self.cloud.objects()) >= count
                          and self.cloud.objects(), f"{count} objects")

    def wait_for_no_files(self):
        wait_until(lambda: self.device.query("SELECT COUNT(*) FROM Files") == [(0,)],
                   "no waiting file")

    #: An undescribed file arrives whole under a name of its own and is kept.
    def test_file_without_description_arrives_whole_under_a_name_of_its_own_and_is_kept(self):
        self.start_with_consent()
        content = os.urandom(20 * 1024 * 1024)
        path = self.file("dump.tar.gz", content)
        self.announce(path)
        objects = self.wait_for_objects(1)
        (bucket, key), received = next(iter(objects.items()))
        self.assertEqual(bucket, BUCKET)
        event, = self.wait_for_events(1, "usage.app")
        self.assertEqual(key, "kiv-test/E2E/" + event["oob-id"])
        self.assertRegex(event["oob-id"], r"\Aoob_TV-E2E-1_[0-9a-f]{8}(-[0-9a-f]{4}){3}"
                                          r"-[0-9a-f]{12}\.gz\Z")
        self.assertEqual(event["oob-url"], str(path))
        self.assertTrue(received == content, "20 MiB differ")
        self.wait_for_no_files()
        self.assertTrue(path.exists())

    #: A described file travels alone under its own name and is deleted.
    def test_described_file_travels_alone_under_its_own_name_and_is_deleted(self):
        self.start_with_consent()
        path = self.file("a.log", b"")
        self.announce(path, {"unique-id": "with blank/100%/é.log", "text": "anything"})
        objects = self.wait_for_objects(1)
        self.assertEqual(objects, {(BUCKET, "kiv-test/with blank/100%/é.log"): b""})
        self.wait_for_no_files()
        wait_until(lambda: not path.exists(), "the file's end")
        self.assertEqual(self.device.stored_events() + self.cloud.events("usage.app"), [])

    #: A description's bucket stays in force.
    def test_bucket_of_a_description_stays_in_force_for_files_without_one(self):
        self.cloud.control({"buckets": ["other"]})
        self.start_with_consent()
        self.announce(self.file("one", b"1"), {"unique-id": "first", "bucketname": "other"})
        self.wait_for_objects(1)
        self.announce(self.file("two", b"2"))
        self.wait_for_objects(2)
        self.announce(self.file("three", b"3"), {"unique-id": "third"})
        objects = self.wait_for_objects(3)
        self.assertEqual(objects["other", "first"], b"1")
        self.assertEqual(objects[BUCKET, "kiv-test/third"], b"3")
        second, = (key for bucket, key in objects if (bucket, key) not in (
            ("other", "first"), (BUCKET, "kiv-test/third")))
        self.assertRegex(second, r"\AE2E/oob_")
        self.assertIn(("other", second), objects)

    #: A file that is not a regular one is dropped; junk in the files table stops nothing.
    def test_what_is_no_regular_file_is_dropped_and_the_next_file_goes(self):
        self.start_with_consent("-v")
        fifo = self.device.folder / "fifo"
        os.mkfifo(fifo)
        (self.device.folder / "folder").mkdir()
        bad = [fifo, self.device.folder / "folder", self.device.folder / "vanished", "/dev/zero"]
        for number, path in enumerate(bad):
            self.announce(path, {"unique-id": f"bad{number}"})
        self.announce(self.file("good"), {"unique-id": "good"})
        self.wait_for_objects(1)
        self.wait_for_no_files()
        for path in bad:
            self.assertIn(f'File "{path}" is invalid, removing bad', self.device.out())
        self.assertEqual(list(self.cloud.objects()), [(BUCKET, "kiv-test/good")])
        self.assertTrue(fifo.exists())

    #: A waiting name is not taken twice.
    def test_second_announcement_of_a_waiting_name_is_refused(self):
        self.cloud.misbehave(s3="refuse")
        self.start_with_consent()
        for name in ("one", "two"):
            self.announce(self.file(name), {"unique-id": "same"})
        self.device.wait_for_error("kivDB:  Can't Insert into table Files")
        self.assertEqual(self.device.query("SELECT url FROM Files"),
                         [(str(self.device.folder / "one"),)])

    #: A refused file waits a minute and leaves neither child nor descriptor.
    def test_refused_file_waits_a_minute_and_leaves_neither_child_nor_descriptor(self):
        self.start_with_consent("-v")
        wait_until(lambda: self.cloud.requests("tou"), "the end of the start-up's requests")
        self.device.send("usage.epg", {"text": "x" * 100})
        self.wait_for_events(1)
        self.device.wait_for_empty_store()
        before = self.device.descriptors()
        self.cloud.misbehave(s3="refuse")
        announced = kernel_ms()
        self.announce(self.file("refused"), {"unique-id": "refused"})
        wait_until(lambda: self.device.query(
            "SELECT COUNT(*) FROM Files WHERE retries=1") == [(1,)], "the failed attempt")
        url, last_fail = self.device.query("SELECT url,lastfail FROM Files")[0]
        self.assertEqual(url, str(self.device.folder / "refused"))
        self.assertLessEqual(announced, last_fail)
        self.assertLessEqual(last_fail, kernel_ms())
        self.cloud.misbehave(s3=None)
        attempts = len(self.cloud.requests("s3"))
        self.announce(self.file("fresh"), {"unique-id": "fresh"})
        self.wait_for_objects(1)
        delays = wait_until(self.delays_of_the_last_pass, "the next try")
        self.assertTrue(50000 < delays <= 60000, delays)
        self.assertEqual(len(self.cloud.requests("s3")), attempts + 1)  # the fresh one alone
        self.assertIn("kivAWSWrapper: Failed sending file to S3 AWS", self.device.err_lines())
        self.assertEqual(self.device.children(), [])
        self.assertEqual(self.device.descriptors(), before)

    def delays_of_the_last_pass(self):
        """Milliseconds until the oldest failure is a minute old, by the rows themselves."""
        rows = self.device.query("SELECT MIN(lastfail),COUNT(*) FROM Files")
        return rows[0][1] == 1 and rows[0][0] + 60000 - kernel_ms()

    #: After two files that failed within a minute none is tried for a minute, a new one neither.
    def test_service_that_failed_twice_is_left_alone_for_a_minute(self):
        self.start_with_consent("-v")
        wait_until(lambda: self.cloud.requests("tou"), "the end of the start-up's requests")
        for count, told in enumerate(("server-error", "reset"), start=1):
            self.cloud.misbehave(s3=told)
            self.announce(self.file(told), {"unique-id": told})
            wait_until(lambda count=count: self.device.query(
                "SELECT COUNT(*) FROM Files WHERE retries=1") == [(count,)], "the failed attempt")
        self.cloud.misbehave(s3=None)
        attempts = len(self.cloud.requests("s3"))
        passes = self.device.out().count("uploadFiles request")
        self.announce(self.file("fresh"), {"unique-id": "fresh"})
        wait_until(lambda: self.device.out().count("uploadFiles request") > passes, "the next pass")
        self.device.send("usage.epg", {"text": "x" * 100})
        self.wait_for_events(1)  # by the same thread: the pass is over
        self.assertEqual(len(self.cloud.requests("s3")), attempts)
        self.assertEqual(self.device.query("SELECT COUNT(*) FROM Files"), [(3,)])

    #: Waiting files, and one cut off under way, leave with the next start.
    def test_waiting_files_leave_with_the_next_start(self):
        self.cloud.misbehave(s3="refuse")
        self.start_with_consent()
        self.announce(self.file("one", b"1"), {"unique-id": "first"})
        wait_until(lambda: self.device.query("SELECT retries FROM Files") == [(1,)], "the failure")
        self.device.kill()
        self.cloud.misbehave(s3=None)
        self.make_failures_old()
        self.device.start()
        self.assertEqual(self.wait_for_objects(1), {(BUCKET, "kiv-test/first"): b"1"})
        self.wait_for_no_files()

    #: The child that sends a file ends with the daemon, however that ends.
    def test_killed_daemon_leaves_no_child(self):
        self.start_with_consent()
        self.cloud.misbehave(s3="hang")
        self.announce(self.file("one", b"1"), {"unique-id": "first"})
        wait_until(lambda: self.cloud.requests("s3"), "the transfer")
        child, = self.device.children()
        self.assertTrue(is_running(child))
        self.device.kill()
        wait_until(lambda: not is_running(child), "the child's end", limit_s=5)

    #: A file counts as sent only when the object service names it by an ETag.
    def test_answers_that_are_none_of_the_object_service_keep_the_file(self):
        self.start_with_consent()
        for number, body in enumerate(("", "<html>Please log in</html>"), start=1):
            self.cloud.misbehave(s3={"action": "answer", "status": 200, "body": body,
                                     "content-type": "text/html"})
            self.announce(self.file(f"file{number}"), {"unique-id": f"id{number}"})
            wait_until(lambda number=number: self.device.query(
                "SELECT COUNT(*) FROM Files WHERE retries=1") == [(number,)], "the failed attempt")
        self.assertEqual(self.device.err_lines().count(
            "kivAWSWrapper: The answer has no ETag: the file counts as not sent"), 2)
        self.device.stop()
        self.cloud.misbehave(s3=None)
        self.make_failures_old()
        self.device.start()
        self.assertEqual(self.wait_for_objects(2), {(BUCKET, "kiv-test/id1"): b"content",
                                                    (BUCKET, "kiv-test/id2"): b"content"})
        self.wait_for_no_files()

    def make_failures_old(self):
        """As if the daemon had been off for a minute."""
        with sqlite3.connect(self.device.database) as store:
            store.execute("UPDATE Files SET lastfail=lastfail-60000")
        store.close()

    #: Waiting files, and one cut off under way, leave with the next start.
    def test_power_cut_while_a_file_is_under_way_leaves_it_for_the_next_start(self):
        self.start_with_consent()
        self.cloud.misbehave(s3="hang")
        self.announce(self.file("one", b"1"), {"unique-id": "first"})
        wait_until(lambda: self.cloud.requests("s3"), "the transfer")
        self.assertEqual(len(self.device.children()), 1)
        self.device.kill()
        self.cloud.misbehave(s3=None)
        self.device.start()
        self.assertEqual(self.wait_for_objects(1), {(BUCKET, "kiv-test/first"): b"1"})

    #: A file that is not a regular one is dropped; junk in the files table stops nothing.
    def test_junk_in_the_files_table_does_not_stop_the_pass(self):
        self.start_with_consent()
        self.device.stop()
        with sqlite3.connect(self.device.database) as store:
            store.execute("INSERT INTO Files VALUES ('a','/nowhere',0,-5,-7,'not JSON')")
            store.execute("INSERT INTO Files VALUES ('b',?,'x','y','z',x'00ff')",
                          (str(self.file("one", b"1")),))
        store.close()
        self.device.start()
        self.announce(self.file("two", b"2"), {"unique-id": "second"})
        wait_until(lambda: (BUCKET, "kiv-test/second") in self.cloud.objects(), "the good file")


if __name__ == "__main__":
    unittest.main()
