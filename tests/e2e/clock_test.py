#!/usr/bin/python3
"""Sets whose system clock is wrong at the start: they learn the time by themselves, and trust no
server that they would not trust with the right one."""
import calendar
import os
import time
import unittest

from harness import BUILD, WholeProgramTest, kernel_ms, wait_until

LONG = {"text": "x" * 100}
IN_1970 = 3600
IN_2020 = calendar.timegm((2020, 1, 1, 0, 0, 0))
IN_2110 = calendar.timegm((2110, 1, 1, 0, 0, 0))
WITH_AWS_SDK = os.environ.get("KIV_CLOUD_CLIENT") == "sdk"


@unittest.skipIf(os.environ.get("KIV_LAUNCHER"), "an emulated daemon takes no preloaded library")
class ClockTest(WholeProgramTest):
    def start_in(self, utc_seconds, *options):
        ahead = utc_seconds - int(time.time())
        self.device.environment.update({
            "LD_PRELOAD": str(BUILD / "wrongclock.so"), "KIV_CLOCK_AHEAD": str(ahead),
            "ASAN_OPTIONS": self.device.environment.get("ASAN_OPTIONS", "")
                            + ":verify_asan_link_order=0"})
        self.device.start(*options)

    def starts(self):
        """{(boot, standby, source): UTC milliseconds of kernel time 0}"""
        return {row[:3]: row[3] for row in self.device.query(
            "SELECT bootCount,standbyCount,source,startTime FROM TimeOffsets")}

    def wait_for_time(self):
        start = wait_until(lambda: self.device.alive() and self.starts().get((1, 1, 1)), "web time")
        self.assertLessEqual(abs(start - (time.time_ns() // 1000000 - kernel_ms())), 5000)

    def nudge_until(self, condition, what):
        """Posts an event every second, as a set in use: each asks for an upload."""
        def nudged():
            if condition():
                return True
            self.device.send("usage.epg", LONG)
            time.sleep(1)
            return condition()
        wait_until(nudged, what, 60)

    def accepted(self, *targets):
        return [entry for target in targets for entry in self.cloud.requests(target, "accepted")]

    def expect_way_back(self, utc_seconds):
        self.start_in(utc_seconds)
        self.wait_for_time()
        self.device.wait_for_config()
        wait_until(lambda: self.accepted("tou"), "the terms of use")

    #: A set that starts in 1970 learns the time by itself, and then the rest.
    def test_set_that_starts_in_1970_learns_the_time(self):
        self.expect_way_back(IN_1970)

    #: A set that starts in 2110 learns the time by itself, and then the rest.
    def test_set_that_starts_in_2110_learns_the_time(self):
        self.expect_way_back(IN_2110)

    #: A set two hours ahead, and one two hours behind, upload events and files. The AWS SDK, which
    #: dates requests by the system clock, is refused once a put for it, and no more.
    def test_set_two_hours_off_uploads_events_and_files(self):
        for boot, hours in enumerate((2, -2), start=1):
            self.device.stop()
            self.device.write_boot(boot, 1)
            self.start_in(int(time.time()) + hours * 3600)
            wait_until(lambda boot=boot: (boot, 1, 1) in self.starts(), "web time")
            self.device.wait_for_config()
            path = self.device.folder / f"{boot}.log"
            path.write_text("content")
            self.device.send("usage.app", LONG, "--url", str(path))
            self.wait_for_events(boot, "usage.app")
            wait_until(lambda boot=boot: len(self.cloud.objects()) == boot, "the file")
        self.assertEqual(set(self.cloud.objects().values()), {b"content"})
        for target in ("firehose", "s3"):
            accepted = len(self.cloud.requests(target, "accepted"))
            refused = len(self.cloud.requests(target)) - accepted
            self.assertEqual(refused, accepted if WITH_AWS_SDK else 0, target)

    #: Events of a set that started in 1970, or in 2110, are uploaded, with the right time.
    @unittest.skipIf(WITH_AWS_SDK, "the AWS SDK judges certificates by the system clock")
    def test_events_of_a_set_with_a_wrong_clock_are_uploaded(self):
        for boot, year in enumerate((IN_1970, IN_2110), start=1):
            self.device.stop()
            self.device.write_boot(boot, 1)
            self.start_in(year)
            wait_until(lambda boot=boot: (boot, 1, 1) in self.starts(), "web time")
            self.device.wait_for_config()
            self.device.send("usage.app", {"boot": boot, **LONG})
            self.wait_for_events(boot, "usage.app")

    def expect_no_trust(self, kind):
        """Whatever the clock says, nothing is asked of such a server; a right one is believed."""
        for boot, year in enumerate((IN_1970, IN_2110), start=1):
            known = len(self.starts()) if self.device.database.exists() else 0
            accepted = len(self.accepted("time", "config", "tou", "firehose"))
            self.cloud.misbehave(https={"action": "certificate", "kind": kind})
            self.device.write_boot(boot, 1)
            self.device.write_config(age_s=100000, **self.configuration)  # of an earlier run
            self.start_in(year)
            self.device.wait_for_error("kivwebtime: Time could not be retrieved from server")
            self.device.wait_for_error("kivconfig: Config could not be retrieved from server")
            self.device.wait_for_error("kivNetwork: Request of https://localhost", 3)
            self.assertIn("/prod/tou not made: the time is not known", self.device.err())
            self.assertEqual(len(self.starts()), known)
            self.assertEqual(len(self.accepted("time", "config", "tou", "firehose")), accepted)
            self.cloud.misbehave(https=None)
            self.nudge_until(lambda boot=boot: (boot, 1, 1) in self.starts(), "web time")
            self.device.stop()

    #: A certificate of another authority is refused while the time is not known.
    def test_certificate_of_another_authority_is_refused(self):
        self.expect_no_trust("untrusted")

    #: A certificate of another host is refused while the time is not known.
    def test_certificate_of_another_host_is_refused(self):
        self.expect_no_trust("other-host")

    #: A certificate that bears the authority's name and another key's signature is refused while the
    #: time is not known.
    def test_forged_certificate_is_refused(self):
        self.expect_no_trust("forged")

    def expect_the_time_and_no_more(self, kind, year, reason):
        self.cloud.misbehave(https={"action": "certificate", "kind": kind})
        self.start_in(year)
        self.wait_for_time()
        self.device.wait_for_error("kivconfig: Config could not be retrieved from server")
        self.assertIn(reason, self.device.err())
        self.assertEqual(self.accepted("config", "tou", "firehose"), [])

    #: An expired certificate tells a set of 1970 the time, and is refused from then on.
    def test_expired_certificate_tells_the_time_and_no_more(self):
        self.expect_the_time_and_no_more("expired", IN_1970, "certificate has expired")

    #: A certificate that is not valid yet tells a set of 1970 the time, and is refused from then
    #: on.
    def test_certificate_too_new_tells_a_set_of_1970_the_time_and_no_more(self):
        self.expect_the_time_and_no_more("too-new", IN_1970, "certificate is not yet valid")

    #: A certificate that is not valid yet tells a set of 2110 the time, and is refused from then
    #: on.
    def test_certificate_too_new_tells_a_set_of_2110_the_time_and_no_more(self):
        self.expect_the_time_and_no_more("too-new", IN_2110, "certificate is not yet valid")

    #: A clock that lies before the daemon was built is not believed: a certificate that was not
    #: valid then tells a set of 2020 the time, and is refused from then on.
    def test_set_of_2020_is_not_believed(self):
        self.expect_the_time_and_no_more("too-new", IN_2020, "certificate is not yet valid")

    def expect_refused_from_the_first_request_on(self, kind):
        self.cloud.misbehave(https={"action": "certificate", "kind": kind})
        self.device.start()
        self.device.wait_for_error("kivwebtime: Time could not be retrieved from server")
        self.device.wait_for_error("kivconfig: Config could not be retrieved from server")
        self.assertEqual(self.starts(), {})
        self.assertEqual(self.accepted("time", "config", "tou", "firehose"), [])

    #: A set with a clock of these years refuses an expired certificate from the first request on.
    def test_expired_certificate_is_refused_by_a_set_with_a_right_clock(self):
        self.expect_refused_from_the_first_request_on("expired")

    #: A set with a clock of these years refuses a certificate that is not valid yet from the first
    #: request on.
    def test_certificate_too_new_is_refused_by_a_set_with_a_right_clock(self):
        self.expect_refused_from_the_first_request_on("too-new")


if __name__ == "__main__":
    unittest.main()
