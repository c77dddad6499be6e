#!/usr/bin/python3
"""The remote configuration: refresh, expiry, bad answers, the persistent file."""
import json
import os
import random
import time
import unittest

from harness import WholeProgramTest, wait_until

LONG = {"text": "x" * 100}
TOO_RECENT = "Last request was too recent : time = "


class ExpiryTest(WholeProgramTest):
    configuration = {"expiry_tou": 4, "upload_events": {"min-size": 100}}

    #: An expired configuration stops uploads and is not asked for again within 600 s; a
    #: fresh one is not asked for.
    def test_expired_configuration_stops_uploads_and_is_not_asked_for_again_within_600_s(self):
        self.start_with_consent("-v")
        self.device.send("usage.epg", {"number": 1, **LONG})
        self.wait_for_events(1, "usage.epg")
        self.device.wait_for_output(TOO_RECENT)
        wait_until(lambda: any(590000 < int(line.rsplit(":", 1)[1]) <= 600000
                               for line in self.device.out_lines()
                               if line.startswith("kivUpload: ScheduleRefreshConfig delay:")),
                   "the next try after the rest of 600 s")
        self.device.send("usage.epg", {"number": 2, **LONG})
        self.device.wait_for_stored(1)
        self.device.wait_for_output(TOO_RECENT, 2)
        self.assertEqual(len(self.cloud.requests("config")), 1)
        self.assertEqual(len(self.cloud.events("usage.epg")), 1)
        self.restart(2, 1)  # knows of no attempt: asks at once
        self.wait_for_events(2, "usage.epg")
        self.assertEqual(len(self.cloud.requests("config")), 2)

    #: An expired configuration stops uploads and is not asked for again within 600 s; a
    #: fresh one is not asked for.
    def test_fresh_configuration_is_not_asked_for(self):
        self.device.write_config(expiry_tou=600, upload_events={"min-size": 100})
        self.device.start()
        self.device.send("usage.epg", {"number": 1, **LONG})
        self.wait_for_events(1, "usage.epg")
        wait_until(lambda: self.cloud.requests("tou"), "the terms of use")
        self.assertEqual(self.cloud.requests("config"), [])


class AnswerTest(WholeProgramTest):
    """What a set with an old configuration does with each kind of answer."""

    def start_with_old_config(self, answer, **clock):
        self.device.write_config(age_s=3600, upload_events={"min-size": 100})
        self.before = (self.device.folder / "Config").read_bytes()
        self.cloud.misbehave(config=answer)
        self.device.start()
        wait_until(lambda: self.cloud.requests("tou"), "the request after the configuration's")
        self.device.send("usage.epg", {"number": 1, **LONG})

    def assert_configuration_in_force_stays(self):
        self.assertEqual((self.device.folder / "Config").read_bytes(), self.before)

    def assert_expired_until_next_start(self):
        self.assertEqual(len(self.device.wait_for_stored(2)), 2)  # start event and ours
        self.assert_configuration_in_force_stays()
        self.assertEqual(self.cloud.requests("firehose"), [])
        self.cloud.misbehave(config=None)
        self.restart(2, 1)
        self.wait_for_events(1, "usage.epg")
        self.assertNotEqual((self.device.folder / "Config").read_bytes(), self.before)

    #: An error answer changes nothing and counts as fresh.
    def test_error_answer_changes_nothing_and_counts_as_fresh(self):
        self.start_with_old_config("error-answer")
        self.wait_for_events(1, "usage.epg")
        self.assert_configuration_in_force_stays()

    #: An error answer with a status of 400 or more is a failed request: nothing counts as fresh.
    def test_forbidden_is_a_failed_request(self):
        self.start_with_old_config("refuse")
        self.device.wait_for_error("kivconfig: Config could not be retrieved from server")
        self.assert_expired_until_next_start()

    #: Answers that are not a JSON object change nothing and are reported.
    def test_broken_json_is_reported_whole_and_changes_nothing(self):
        self.start_with_old_config("not-json")
        self.device.wait_for_error(
            'kivconfig: Invalid Config JSON object received: {"kiv_tou": tru')
        self.assert_expired_until_next_start()

    #: Answers that are not a JSON object change nothing and are reported.
    def test_json_that_is_no_object_changes_nothing(self):
        self.start_with_old_config({"action": "answer", "body": '["kiv_tou", true]'})
        self.device.wait_for_error(
            'kivconfig: Invalid Config JSON object received: ["kiv_tou", true]')
        self.assert_expired_until_next_start()

    #: Answers that are not a JSON object change nothing and are reported, cut at 256 characters and
    #: on one line.
    def test_page_of_a_captive_portal_changes_nothing(self):
        self.start_with_old_config({"action": "answer", "content-type": "text/html",
                                    "body": "<html>\n" + "x" * 1000})
        self.device.wait_for_error("kivconfig: Invalid Config JSON object received: <html>\\x0A"
                                   + "x" * 249 + "... (1007 bytes)")
        self.assert_expired_until_next_start()

    #: An answer with a status of 400 or more changes nothing, and the log names URL and status.
    def test_status_of_400_or_more_changes_nothing(self):
        self.start_with_old_config("server-error")
        self.device.wait_for_error("kivNetwork: Request of https://localhost:18443/prod/config/"
                                   "TV-E2E-1 failed: HTTP status 500")
        self.device.wait_for_error("kivconfig: Config could not be retrieved from server")
        self.assert_expired_until_next_start()

    #: An object without a member of a configuration changes nothing.
    def test_object_that_is_no_configuration_changes_nothing(self):
        self.start_with_old_config({"action": "answer", "body": "{}"})
        self.device.wait_for_error("kivconfig: Invalid Config JSON object received: {}")
        self.assert_expired_until_next_start()

    #: Answers above 1 MiB, headers above 64 KiB, cut and reset connections change nothing.
    def test_answer_above_a_mebibyte_is_refused(self):
        for length in (True, False):
            with self.subTest(length=length):
                self.start_with_old_config({"action": "huge", "length": length})
                self.device.wait_for_error("kivconfig: Config could not be retrieved from server")
                self.device.wait_for_error(
                    "kivNetwork: Error from server, curl_easy_perform() failed: ")
                self.assert_configuration_in_force_stays()
                self.device.stop()

    #: Answers above 1 MiB, headers above 64 KiB, cut and reset connections change nothing.
    def test_headers_above_64_kib_are_refused(self):
        self.start_with_old_config({"action": "huge", "part": "headers"})
        self.device.wait_for_error("kivconfig: Config could not be retrieved from server")
        self.assert_configuration_in_force_stays()

    #: Answers above 1 MiB, headers above 64 KiB, cut and reset connections change nothing.
    def test_connection_that_is_cut_or_reset_changes_nothing(self):
        for action in ("cut", "reset"):
            with self.subTest(action):
                self.start_with_old_config(action)
                self.device.wait_for_error("kivconfig: Config could not be retrieved from server")
                self.assert_configuration_in_force_stays()
                self.device.stop()

    #: Wrong types everywhere do not harm the daemon.
    def test_document_with_wrong_types_everywhere_does_not_harm_the_daemon(self):
        body = json.dumps({
            "version": 3, "kiv_tou": "true", "expiry_tou": "x", "event-filter": [1], "file-filter":
            "no", "upload_events": [1, 2], "firehose_endpoint": 5, "firehose_stream": {},
            "s3_endpoint": None, "s3_bucket": [], "credentials": {"iv": 7, "AccessKeyId": "zz",
                                                                  "SecretAccessKey": None}})
        self.start_with_old_config({"action": "answer", "body": body})
        wait_until(lambda: self.device.config().get("version") == 3, "the document on file")
        self.restart(2, 1)
        self.device.send("usage.epg", {"number": 2, **LONG})
        self.device.alive()
        self.assertEqual(self.cloud.records(), [])


class PersistentFileTest(WholeProgramTest):
    #: A missing or broken configuration file becomes the default document.
    def test_missing_or_broken_file_is_replaced_by_the_default_document(self):
        self.cloud.misbehave(config="reset")
        for run, text in enumerate((None, "", '{"kiv_tou": tr', "\0\1\2", "null"), start=1):
            path = self.device.folder / "Config"
            path.unlink(missing_ok=True)
            if text is not None:
                path.write_text(text)
            self.device.write_boot(run, 1)
            self.device.start()
            document = wait_until(self.device.config, f"a configuration instead of {text!r}")
            self.assertEqual(list(document.items()), [
                ("kiv_tou", False), ("version", "1.0"), ("expiry_tou", 600), ("event-filter", {}),
                ("file-filter", {}),
                ("upload_events", {"max-delay": 3500, "min-size": 16384, "max-size": 131072}),
                ("firehose_endpoint", "https://localhost:18443"),
                ("firehose_stream", "kiv-eventsrc-stream-test"),
                ("s3_endpoint", "https://localhost:18443"),
                ("s3_bucket", "norvane-ddump/kiv-test"), ("Last-Modified", ""), ("UTC-Time", 0)])
            self.device.stop()

    #: A stored configuration that is dated ahead counts as expired: the server is asked.
    def test_configuration_dated_ahead_is_asked_for_anew(self):
        self.device.write_config(age_s=-8 * 31557600, version="old")
        self.device.start()
        self.device.wait_for_config(version="1.0")
        self.assertLess(abs(self.device.config()["UTC-Time"] - time.time()), 10)

    #: Device files and the configuration that are pipes hold nobody at the start.
    def test_pipe_in_the_place_of_a_file_holds_nobody(self):
        for run, names in enumerate((("Config", "BootInfo", "dbuuid.json", "pimversion.json"),
                                     ("GlobalInfo",))):
            for name in names:
                path = self.device.folder / name
                path.unlink(missing_ok=True)
                os.mkfifo(path)
            self.device.start(ready=False)
            self.device.wait_for_output("CKivApp: Options summary:")
            self.device.wait_for_error("CKivApp: Cannot read bootinfo file BootInfo")
            self.assertEqual(self.device.errors_beginning("CKivApp: Cannot read globalinfo"), run)
            self.device.stop()

    #: An answer is mirrored whole with the time of its arrival.
    def test_answer_is_mirrored_whole_with_the_time_of_its_arrival(self):
        self.cloud.control({"config": {"*": {"version": "7", "unknown": {"deep": [1, None]}}}})
        self.start_with_consent()
        document = self.device.config()
        self.assertEqual((document["version"], document["unknown"]), ("7", {"deep": [1, None]}))
        self.assertLess(abs(document["UTC-Time"] - time.time()), 10)
        self.assertRegex(document["Last-Modified"], r"\A\w{3}, \d\d \w{3} \d{4} [0-9:]{8} GMT\Z")

    #: A power cut at any moment of a refresh leaves a whole document.
    def test_power_cut_at_any_moment_of_the_refresh_leaves_a_whole_document(self):
        dice = random.Random(1558062013)
        self.device.write_config(version="0")
        for run in range(1, 13):
            self.cloud.control({"config": {"*": {"version": str(run), "padding": "x" * 200000}}})
            self.device.change_config(**{"UTC-Time": 1})
            before = self.device.config()["version"]
            self.device.write_boot(run, 1)
            asked = len(self.cloud.requests("config"))
            self.device.start(ready=False)
            wait_until(lambda asked=asked: len(self.cloud.requests("config")) > asked,
                       "the configuration request")
            time.sleep(dice.uniform(0, 0.03))  # the moment of the cut is the point
            self.device.kill()
            document = json.loads((self.device.folder / "Config").read_text())
            self.assertIn(document["version"], (before, str(run)))
            self.assertTrue(document["kiv_tou"])


if __name__ == "__main__":
    unittest.main()
