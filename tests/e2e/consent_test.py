#!/usr/bin/python3
"""No consent, no telemetry; and what the filters let through."""
import os
import unittest

from harness import WholeProgramTest, wait_until

LONG = {"text": "x" * 100}
MORE_THAN_WAIT = 800  # events; at most 768 of them are in the daemon's memory


class ConsentTest(WholeProgramTest):
    def expect_none_kept(self, stored=0, data=LONG):
        """Posts so many events that, were they kept, some would be in the store by then, or sent.
        `stored`: those that are there already."""
        put = len(self.cloud.requests("firehose"))
        self.device.send("usage.epg", data, "--repeat", str(MORE_THAN_WAIT))
        self.assertEqual(self.device.query("SELECT COUNT(*) FROM Events"), [(stored,)])
        self.assertEqual(len(self.cloud.requests("firehose")), put)

    #: Without the server's consent nothing is kept or sent; only JSON true counts.
    def test_nothing_is_kept_while_the_server_knows_of_no_consent(self):
        self.cloud.control({"config": {"*": {"kiv_tou": False}}})
        log = self.device.folder / "file.log"
        log.write_text("announced")
        self.device.start("-v")
        self.device.wait_for_output("TOU: tou version=1")
        self.device.send("usage.epg", LONG, "--url", str(log))
        self.expect_none_kept()  # the semaphores are posted all the same
        self.device.wait_for_output("TOU not accepted: will not send event", 2 + MORE_THAN_WAIT)
        self.assertEqual(self.device.query("SELECT COUNT(*) FROM Files"), [(0,)])
        self.assertEqual(self.cloud.requests("firehose") + self.cloud.requests("s3"), [])

    #: Without the server's consent nothing is kept or sent; only JSON true counts.
    def test_only_the_json_value_true_counts_as_consent(self):
        for run, value in enumerate(("true", 1, {"accepted": True}), start=1):
            self.cloud.control({"config": {"*": {"kiv_tou": value}}})
            self.device.write_boot(run, 1)
            self.device.start()
            wait_until(lambda value=value: self.device.config().get("kiv_tou") == value,
                       f"a configuration that says {value}")
            self.expect_none_kept()
            self.device.stop()
            (self.device.folder / "Config").unlink()

    #: Later consent counts from then on; withdrawn consent keeps stored events from leaving.
    def test_consent_that_comes_later_counts_from_then_on(self):
        self.cloud.control({"config": {"*": {"kiv_tou": False}}})
        self.device.start()
        wait_until(lambda: self.cloud.requests("config") and self.device.config().get(
            "UTC-Time"), "the first configuration")
        self.expect_none_kept(data={"before": True, **LONG})
        self.device.stop()
        self.cloud.control({"config": {"*": self.configuration}})
        self.device.change_config(**{"UTC-Time": 1})  # as a set that was off for years
        self.start_with_consent()
        self.device.send("usage.epg", {"before": False, **LONG})
        self.wait_for_events(1, "usage.epg")
        self.assertEqual([event["before"] for event in self.cloud.events("usage.epg")], [False])

    #: Later consent counts from then on; withdrawn consent keeps stored events from leaving.
    def test_consent_that_is_withdrawn_keeps_stored_events_from_leaving(self):
        self.cloud.misbehave(firehose="refuse")
        self.start_with_consent()
        self.device.send("usage.epg", LONG)
        self.device.wait_for_stored(1)
        self.device.wait_for_error("kivUpload: Event upload failed")
        self.device.stop()
        self.cloud.control({"clear": True, "config": {"*": {**self.configuration,
                                                             "kiv_tou": False}}})
        self.device.change_config(**{"UTC-Time": 1})
        refused = len(self.cloud.requests("firehose"))
        # The event of the start comes before the withdrawal, and is kept.
        stored = len(self.device.stored_events()) + 1
        self.device.start("-v")
        self.device.wait_for_stored(stored)
        wait_until(lambda: self.device.config().get("kiv_tou") is False, "the withdrawal")
        self.device.wait_for_output("TOU: tou version=1")
        self.device.wait_for_output("uploadEvents request")
        self.expect_none_kept(stored=stored)
        self.assertEqual(len(self.cloud.requests("firehose")), refused)

    #: A user's no holds at once at the next start, whatever a stored configuration says.
    def test_users_no_holds_at_the_next_start_whatever_a_stored_configuration_says(self):
        self.cloud.misbehave(config="reset")  # the stored one stays in force
        self.device.write_config(**self.configuration)
        for boot, text in enumerate(("CUL-TOU 1 FALSE", "CUL-TOU 1 true", "CUL-TOU", ""), start=1):
            self.device.write_consent(text)
            self.device.write_boot(boot, 1)
            self.device.start("-v")
            self.device.wait_for_output("TOU: tou version=1")
            self.expect_none_kept()
            self.device.wait_for_output("TOU not accepted: will not send event")
            self.assertTrue(self.device.config()["kiv_tou"])
            self.device.stop()
        self.assertEqual(self.cloud.requests("firehose"), [])

    #: A user's no holds at once at the next start: what was stored before does not leave.
    def test_users_no_keeps_stored_events_from_leaving(self):
        self.cloud.misbehave(firehose="refuse")
        self.start_with_consent()
        self.device.send("usage.epg", LONG)
        self.device.wait_for_error("kivUpload: Event upload failed")
        self.device.stop()
        stored = len(self.device.stored_events())
        refused = len(self.cloud.requests("firehose"))
        self.cloud.misbehave(firehose=None)
        self.device.write_consent("CUL-TOU 1 FALSE")
        self.device.start("-v")
        self.device.wait_for_output("TOU: tou version=1")
        self.device.wait_for_output("uploadEvents request")
        self.expect_none_kept(stored=stored)
        self.assertEqual(len(self.cloud.requests("firehose")), refused)

    #: A version that the server demands and the user has not accepted is a no at the next start.
    def test_mandatory_new_version_is_a_no_at_the_next_start(self):
        self.cloud.misbehave(config="reset")
        self.device.write_config(**self.configuration)
        (self.device.folder / "tou_server_answer.txt").write_text(
            '{"version": 2, "url": "https://terms/2", "mandatory": true}')
        self.device.start("-v")
        self.device.wait_for_output("TOU: tou version=1")
        self.expect_none_kept()
        self.device.wait_for_output("TOU not accepted: will not send event")
        self.device.stop()
        self.device.write_consent("CUL-TOU 2 TRUE")
        self.device.start("-v")
        self.device.send("usage.epg", LONG)
        wait_until(lambda: self.device.alive() and self.cloud.events("usage.epg"), "an upload")

    #: Where there is no answer of the user a stored configuration's word holds.
    def test_without_an_answer_of_the_user_the_servers_word_holds(self):
        os.unlink(self.device.folder / "current_tou.txt")
        self.device.write_config(**self.configuration)
        self.device.start()
        self.device.send("usage.epg", LONG)
        self.wait_for_events(1, "usage.epg")

    #: A pipe in the place of the user's answer holds nobody, and is a no.
    def test_pipe_in_the_place_of_the_users_answer_is_a_no(self):
        os.unlink(self.device.folder / "current_tou.txt")
        os.mkfifo(self.device.folder / "current_tou.txt")
        self.device.write_config(**self.configuration)
        self.device.start("-v")
        self.expect_none_kept()
        self.device.wait_for_output("TOU not accepted: will not send event")

    #: Without the user's answer no configuration is fetched; a malformed answer is not an
    #: acceptance.
    def test_no_configuration_is_fetched_without_the_users_answer(self):
        os.unlink(self.device.folder / "current_tou.txt")
        self.device.start()
        self.device.wait_for_error("kivconfig: Tou does not exist, Retry later")
        self.assertEqual(self.device.errors_beginning("TOU:TOU file wrong format: "), 2)
        self.assertEqual(self.cloud.requests("config"), [])
        self.assertFalse(self.device.config()["kiv_tou"])
        wait_until(lambda: self.cloud.requests("tou"), "the request for the terms of use")
        self.assertEqual(self.cloud.requests("tou")[0]["headers"]["X-currentTou"], "-1")
        self.expect_none_kept()
        self.device.stop()
        self.device.write_consent("CUL-TOU 1 TRUE")
        self.start_with_consent()

    #: Without the user's answer no configuration is fetched; a malformed answer is not an
    #: acceptance.
    def test_malformed_answers_of_the_user_are_no_acceptance(self):
        for text, error in (("", "TOU:TOU file wrong format: "),
                            ("CUL-TOU 2", "TOU:TOU file wrong format: CUL-TOU 2"),
                            ("cul-tou 2 TRUE", "TOU:TOU file wrong acceptance name: cul-tou 2 TRUE"),
                            ("CUL-TOU 0 TRUE", "TOU:TOU version invalid: 0"),
                            ("CUL-TOU 99999999999 TRUE", "TOU:TOU version invalid: 0"),
                            ("CUL-TOU 1 true", None), ("CUL-TOU 1 FALSE", None)):
            asked = len(self.cloud.requests("config"))
            self.device.write_consent(text)
            self.device.start()
            wait_until(lambda asked=asked: len(self.cloud.requests("config")) > asked,
                       f"a configuration request with {text!r}")
            self.assertIn("CKivApp: TOU accepted in TV       : false", self.device.out_lines())
            self.assertEqual(self.cloud.requests("config")[-1]["headers"]["X-currentTou"], "-1")
            self.assertEqual(self.device.err_lines()[:1], [error] if error else [])
            self.device.stop()
            (self.device.folder / "Config").unlink(missing_ok=True)


class FilterTest(WholeProgramTest):
    configuration = {
        "upload_events": {"min-size": 100},
        "event-filter": {"include": [{"event-type": ["usage.epg", "usage.app", "kiv.start"]}],
                         "exclude": [{"data": {"channel": {"$and": [{"$>=": 900}, {"$<": 1000}]}}},
                                     {"data": {"text": {"$regex": "se.ret.*"}}}]}}

    #: The filter in force at the start decides what is kept; a later one does not count in
    #: this run.
    def test_filter_in_force_at_the_start_decides_what_is_kept(self):
        self.start_with_consent()
        self.restart(2, 1)
        self.wait_for_events(1, "kiv.start")
        for event_type, data in (("usage.epg", {"channel": 1}), ("usage.epg", {"channel": 900}),
                                 ("usage.epg", {"channel": 1000}), ("usage.moreinfo", LONG),
                                 ("usage.app", {"text": "secret"}), ("usage.app", LONG)):
            self.device.send(event_type, data)
        self.wait_for_events(4)
        self.device.wait_for_empty_store()
        self.assertEqual([(event["event-type"], event.get("channel"))
                          for event in self.cloud.events()],
                         [("kiv.start", None), ("usage.epg", 1), ("usage.epg", 1000),
                          ("usage.app", None)])

    #: The filter in force at the start decides what is kept; a later one does not count in
    #: this run.
    def test_filter_that_arrives_while_running_counts_from_the_next_start(self):
        self.start_with_consent()
        self.device.send("usage.moreinfo", LONG)
        self.wait_for_events(1, "usage.moreinfo")

    #: The file filter takes some files and leaves the events.
    def test_filter_for_files_takes_some_and_leaves_the_event_either_way(self):
        self.device.write_config(**self.configuration, **{
            "file-filter": {"exclude": [{"event-type": "usage.app"}]}})
        self.device.start()
        for name, event_type in (("one", "usage.epg"), ("two", "usage.app")):
            path = self.device.folder / name
            path.write_text(name)
            self.device.send(event_type, LONG, "--url", str(path))
        self.wait_for_events(1, "usage.app")
        wait_until(self.cloud.objects, "an object")
        taken, = self.wait_for_events(1, "usage.epg")
        left, = self.cloud.events("usage.app")
        self.assertIn("oob-id", taken)
        self.assertNotIn("oob-id", left)
        self.assertEqual(list(self.cloud.objects().values()), [b"one"])


if __name__ == "__main__":
    unittest.main()
