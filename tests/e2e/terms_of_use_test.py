#!/usr/bin/python3
"""A newer version of the terms of use: what the user interface is told, and the user's answer."""
import json
import unittest

from harness import WholeProgramTest, wait_until

URL = "https://localhost:18443/terms-of-use/2"


class TermsOfUseTest(WholeProgramTest):
    def setUp(self):
        super().setUp()
        self.shown = self.device.folder / "show_new_tou.txt"
        self.answer = self.device.folder / "tou_server_answer.txt"

    def start_and_wait(self, boot):
        asked = len(self.cloud.requests("tou"))
        self.restart(boot, 1, "-v")
        self.device.wait_for_output("TOU: tou version=")
        wait_until(lambda: len(self.cloud.requests("tou")) > asked, "the terms-of-use request")
        self.device.wait_for_output("eventsTimeCheck request")  # the last step of the start-up

    def accepted(self):
        return "CKivApp: TOU accepted in TV       : true" in self.device.out_lines()

    def announced(self):
        return self.cloud.requests("tou")[-1]["headers"]["X-currentTou"]

    #: A version of the terms that is not newer leaves no file; a newer one is shown and
    #: consent stays.
    def test_version_that_is_not_newer_leaves_no_file(self):
        self.start_and_wait(1)
        self.assertFalse(self.shown.exists() or self.answer.exists())

    #: A version of the terms that is not newer leaves no file; a newer one is shown and
    #: consent stays.
    def test_newer_version_is_shown_and_consent_stays(self):
        self.cloud.control({"tou": {"version": 2, "url": URL}})
        self.start_and_wait(1)
        self.assertEqual(self.shown.read_text(), URL)
        self.assertFalse(self.answer.exists())
        self.start_and_wait(2)
        self.assertTrue(self.accepted())
        self.assertEqual(self.announced(), "1")

    #: A mandatory version withdraws consent at the next start until the user accepts; a
    #: refusal is an answer too.
    def test_mandatory_version_withdraws_consent_at_the_next_start_until_the_user_accepts(self):
        self.cloud.control({"tou": {"version": 2, "url": URL, "mandatory": True}})
        self.start_and_wait(1)
        self.assertEqual(self.shown.read_text(), URL)
        self.assertEqual(json.loads(self.answer.read_text()),
                         {"version": 2, "url": URL, "mandatory": True})
        self.assertTrue(self.accepted())

        self.start_and_wait(2)
        self.assertFalse(self.accepted())
        self.assertIn("CKivApp: TOU version in TV        : 1", self.device.out_lines())
        self.assertEqual(self.announced(), "-1")
        self.assertTrue(self.answer.exists())

        self.device.write_consent("CUL-TOU 2 TRUE\n")
        self.start_and_wait(3)
        self.assertTrue(self.accepted())
        self.assertEqual(self.announced(), "2")
        self.assertFalse(self.answer.exists())

    #: A mandatory version withdraws consent at the next start until the user accepts; a
    #: refusal is an answer too.
    def test_refusal_of_the_new_version_is_an_answer_too(self):
        self.answer.write_text('{"version": 2}')
        self.device.write_consent("CUL-TOU 2 FALSE")
        self.start_and_wait(1)
        self.assertFalse(self.accepted())
        self.assertFalse(self.answer.exists())

    #: Bad answers of the terms' server leave all files alone; a missing directory is
    #: reported.
    def test_bad_answers_of_the_server_leave_all_files_alone(self):
        self.shown.write_text("before")
        for boot, told in enumerate((
                {"action": "error-answer", "message": "no"}, {"action": "server-error"},
                {"action": "not-json"}, {"action": "reset"}, {"action": "cut"},
                {"action": "answer", "body": "[]"},
                {"action": "answer", "body": '{"version": 0, "url": "x"}'},
                {"action": "answer", "body": '{"version": 9, "url": ""}'},
                {"action": "answer", "body": '{"version": "9", "url": "x"}'}), start=1):
            self.cloud.misbehave(tou=told)
            asked = len(self.cloud.requests("tou"))
            self.restart(boot, 1, "-v")
            wait_until(lambda asked=asked: len(self.cloud.requests("tou")) > asked, "the request")
            self.device.wait_for_output("eventsTimeCheck request")
            self.assertEqual(self.shown.read_text(), "before", told)
            self.assertFalse(self.answer.exists(), told)
            if told["action"] == "error-answer":
                self.assertIn("TOU:ToU server error: no", self.device.err_lines())

    #: Bad answers of the terms' server leave all files alone; a missing directory is
    #: reported.
    def test_missing_directory_is_reported_and_the_daemon_goes_on(self):
        self.cloud.control({"tou": {"version": 2, "url": URL, "mandatory": True}})
        self.device.start("-t", f"{self.device.folder}/nowhere/")
        self.device.wait_for_error("TOU:File tou_server_answer.txt cannot be created")
        self.device.wait_for_error("TOU:File show_new_tou.txt cannot be created")
        self.device.alive()


if __name__ == "__main__":
    unittest.main()
