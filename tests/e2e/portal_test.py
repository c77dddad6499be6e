#!/usr/bin/python3
"""Answers that are none: captive portals, empty objects, errors with a body; and a user's no."""
import contextlib
import sqlite3
import unittest

from harness import WholeProgramTest, wait_until

LONG = {"text": "x" * 100}
SERVICES = ("config", "tou", "time", "geo", "firehose", "s3")
URL = "https://localhost:18443/terms-of-use/2"
STATUSES = (400, 403, 404, 500, 503)
UPLOAD_FAILED = "kivUpload: Event upload failed"


class LosslessTest(WholeProgramTest):
    def setUp(self):
        super().setUp()
        self.file = self.device.folder / "a.log"
        self.file.write_text("content")
        self.sent = []

    def send_event(self):
        self.sent.append(len(self.sent) + 1)
        self.device.send("usage.epg", {"number": self.sent[-1], **LONG})

    def keep_events_and_a_file(self):
        """Two events and an announced file that the services refused wait in the store."""
        self.cloud.misbehave(firehose="refuse", s3="refuse")
        self.start_with_consent()
        self.device.send("usage.app", {"oob-info": {"unique-id": "u1"}}, "--url", str(self.file))
        self.send_event()
        self.send_event()
        wait_until(lambda: set(self.sent) <= set(self.waiting()), "the events in the store", 10)
        self.device.wait_for_error(UPLOAD_FAILED)
        wait_until(lambda: self.retries() == [1], "the file's first failure")

    def waiting(self):
        """Numbers of the events in the store; those of other types have none."""
        return [event.get("data", {}).get("number") for event in self.device.stored_events()]

    def retries(self):
        return [row[0] for row in self.device.query("SELECT retries FROM Files")]

    def restart_a_minute_later(self, boot):
        """A file that failed waits for a minute, over a restart too: the store is told that it
        has passed."""
        self.device.stop()
        with contextlib.closing(sqlite3.connect(self.device.database)) as store:
            store.execute("UPDATE Files SET lastfail = lastfail - 60000")
            store.commit()
        self.restart(boot, 1)

    def restart_and_put_events(self, boot, verdict):
        """A start-up, which sends what is stored; waits until the answer has been handled."""
        asked = len(self.cloud.requests("firehose", verdict))
        self.restart_a_minute_later(boot)
        wait_until(lambda: len(self.cloud.requests("firehose", verdict)) > asked, "the put", 10)
        wait_until(lambda: self.device.errors_beginning(UPLOAD_FAILED)
                   or not set(self.sent) <= set(self.waiting()), "the end of the upload")

    def assert_file_has_failed(self, verdict, before=1):
        wait_until(lambda: self.cloud.requests("s3", verdict), "the put of the file", 10)
        wait_until(lambda: self.retries() != [before], "the end of the file's upload")
        self.assertEqual(self.retries(), [before + 1])

    def assert_all_arrives_after_restart(self, boot):
        self.cloud.misbehave(**{service: None for service in SERVICES})
        self.restart_a_minute_later(boot)
        self.wait_for_events(len(self.sent), "usage.epg")
        self.device.wait_for_empty_store()
        self.assertEqual(sorted(event["number"] for event in self.cloud.events("usage.epg")),
                         self.sent)
        wait_until(lambda: list(self.cloud.objects().values()) == [b"content"], "the file")

    def assert_loses_nothing_to(self, action, spared=()):
        self.keep_events_and_a_file()
        self.cloud.misbehave(**{service: action for service in SERVICES if service not in spared})
        self.restart_and_put_events(2, "misbehaved: " + action)
        self.assertLessEqual(set(self.sent), set(self.waiting()))
        self.assert_file_has_failed("misbehaved: " + action)
        self.assert_all_arrives_after_restart(3)

    #: A captive portal on every target deletes no event and no file; all of them arrive once
    #: it has gone.
    def test_captive_portal_on_every_target_loses_nothing(self):
        self.assert_loses_nothing_to("portal")

    #: A redirect to a captive portal's page deletes no event and no file; all of them arrive
    #: once it has gone.
    def test_redirect_to_a_captive_portal_loses_nothing(self):
        # A redirect tells no time, and without the time nothing would be put at all.
        self.assert_loses_nothing_to("redirect", spared=("time",))

    #: A put of a record counts only with a record id in the answer, whatever else it holds.
    def test_put_without_a_record_id_has_failed(self):
        self.keep_events_and_a_file()
        for boot, form in enumerate(("json", "empty", "html", "broken", "nothing"), start=2):
            self.cloud.misbehave(firehose={"action": "no-record-id", "form": form})
            self.restart_and_put_events(boot, "misbehaved: no-record-id")
            self.assertLessEqual(set(self.sent), set(self.waiting()), form)
        self.assert_all_arrives_after_restart(10)

    #: A put of a file counts only with an ETag in the answer.
    def test_put_without_an_etag_has_failed(self):
        self.keep_events_and_a_file()
        self.cloud.misbehave(s3="no-etag")
        self.restart_a_minute_later(2)
        self.assert_file_has_failed("misbehaved: no-etag")
        self.assert_all_arrives_after_restart(3)

    #: A city of 200 000 characters is no place, and does not stop the uploads.
    def test_city_of_200000_characters_does_not_stop_uploads(self):
        self.cloud.misbehave(geo="long-city")
        self.start_with_consent()
        self.send_event()
        wait_until(lambda: self.cloud.requests("geo"), "the request for the place")
        wait_until(lambda: self.device.alive() and self.cloud.events("usage.epg"), "the event", 10)
        self.assertEqual(self.cloud.blocks()[-1]["location"], {})
        self.assertEqual(self.device.query("SELECT * FROM Location"), [])


class NoDocumentTest(WholeProgramTest):
    """An empty object, and good documents under a status that says they are none."""

    ANSWERS = ({"action": "empty-object"},
               *({"action": "status", "status": status} for status in STATUSES))

    def start_with_answer(self, boot, target, told):
        self.cloud.misbehave(**{target: told})
        asked = len(self.cloud.requests(target))
        self.restart(boot, 1, "-v")
        wait_until(lambda: len(self.cloud.requests(target)) > asked, f"a request to {target}")
        self.device.wait_for_output("eventsTimeCheck request")  # after all of the start-up's work

    #: An empty object, and any document with a status of 400 or more, changes nothing of the
    #: configuration.
    def test_configuration_that_is_none_changes_nothing(self):
        self.cloud.control({"config": {"*": {"version": "server's"}}})
        for boot, told in enumerate(self.ANSWERS, start=1):
            with self.subTest(told):
                self.device.stop()
                self.device.write_config(age_s=3600, upload_events={"min-size": 100})
                before = (self.device.folder / "Config").read_bytes()
                self.start_with_answer(boot, "config", told)
                self.assertEqual((self.device.folder / "Config").read_bytes(), before)
        self.device.stop()
        self.device.write_config(age_s=3600, upload_events={"min-size": 100})
        self.start_with_answer(20, "config", None)
        self.device.wait_for_config(version="server's")

    #: An empty object, and any document with a status of 400 or more, changes nothing of the
    #: terms of use.
    def test_terms_of_use_that_are_none_change_nothing(self):
        self.cloud.control({"tou": {"version": 2, "url": URL, "mandatory": True}})
        shown = self.device.folder / "show_new_tou.txt"
        answer = self.device.folder / "tou_server_answer.txt"
        for boot, told in enumerate(self.ANSWERS, start=1):
            with self.subTest(told):
                shown.unlink(missing_ok=True)
                answer.unlink(missing_ok=True)
                self.start_with_answer(boot, "tou", told)
                self.assertEqual((shown.exists(), answer.exists()), (False, False))
        self.start_with_answer(20, "tou", None)
        self.assertEqual(shown.read_text(), URL)


class UsersNoTest(WholeProgramTest):
    #: A user's no holds from the next start: nothing is kept, although the stored configuration
    #: says yes.
    def test_users_no_keeps_nothing_although_the_stored_configuration_says_yes(self):
        self.device.write_config(upload_events={"min-size": 100})
        self.device.write_consent("CUL-TOU 1 FALSE")
        self.device.start("-v")
        self.device.wait_for_output("eventsTimeCheck request")
        for _ in range(2):
            self.device.send("usage.epg", LONG)
        refused = "TOU not accepted: will not send event"  # the start event is refused as well
        wait_until(lambda: self.device.out().count(refused) >= 3 or self.device.stored_events()
                   or self.cloud.requests("firehose"), "what becomes of the events")
        self.assertEqual(self.device.stored_events(), [])
        self.assertEqual(self.cloud.requests("firehose"), [])
        self.assertTrue(self.device.config()["kiv_tou"])

    #: A user's no holds from the next start: nothing that was kept before is sent, although the
    #: stored configuration says yes.
    def test_users_no_sends_nothing_of_what_was_kept_before(self):
        self.cloud.misbehave(firehose="refuse")
        self.start_with_consent()
        self.device.send("usage.epg", LONG)
        self.device.wait_for_stored(1)
        self.device.wait_for_error(UPLOAD_FAILED)
        self.device.stop()
        self.cloud.misbehave(firehose=None)
        asked = len(self.cloud.requests("firehose"))
        self.device.write_consent("CUL-TOU 1 FALSE")
        self.restart(2, 1, "-v")
        self.device.wait_for_output("uploadEvents request")
        self.device.wait_for_output("eventsTimeCheck request")
        self.device.stop()
        self.assertEqual(len(self.cloud.requests("firehose")), asked)
        self.assertTrue(self.device.config()["kiv_tou"])


if __name__ == "__main__":
    unittest.main()
