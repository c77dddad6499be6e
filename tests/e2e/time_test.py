#!/usr/bin/python3
"""UTC from the middleware's pipe and from the web."""
import calendar
import errno
import os
import stat
import time
import unittest

from harness import (PIPE, WholeProgramTest, forget_system_wide_names, kernel_ms,
                     utc_ms, wait_until)

LONG = {"text": "x" * 100}
NO_DATE = {"action": "date", "value": None}
HOUR_MS = 3600000


class TimeTest(WholeProgramTest):
    def start_without_web_time(self):
        """The set has a fresh configuration of an earlier cycle but knows no time of this one."""
        self.device.write_config(upload_events={"min-size": 100})
        self.cloud.misbehave(time=NO_DATE, config="reset")
        self.device.start("-v")
        self.device.wait_for_error("kivwebtime: No time received")
        self.device.wait_for_error("kivconfig: Config could not be retrieved from server")
        wait_until(lambda: os.path.exists(PIPE), "the pipe")

    def tell(self, message):
        """Writes bytes on the pipe, as the middleware its clock, once the daemon listens."""
        def taken():
            try:
                pipe = os.open(PIPE, os.O_WRONLY | os.O_NONBLOCK)
            except OSError as error:
                if error.errno != errno.ENXIO:
                    raise
                return False
            os.write(pipe, message if isinstance(message, bytes) else message.encode())
            os.close(pipe)
            return True
        before = self.handled()
        wait_until(lambda: self.device.alive() and taken(), "a reader of the pipe")
        # Two messages that wait in the pipe together would be read as one.
        wait_until(lambda: self.handled() > before, "the end of the message's handling")

    def handled(self):
        return (self.device.out().count("MW time = ")
                + self.device.err().count("Invalid MW time : "))

    def starts(self):
        """{(boot, standby, source): UTC milliseconds of kernel time 0}"""
        return {row[:3]: row[3] for row in self.device.query(
            "SELECT bootCount,standbyCount,source,startTime FROM TimeOffsets")}

    def nudge_until(self, condition, what):
        """Posts an event every second, as a set in use: each asks for an upload, and so for the
        time. Returns how many it were."""
        posted = 0
        def nudged():
            nonlocal posted
            if condition():
                return True
            self.device.send("usage.epg", LONG)
            posted += 1
            time.sleep(1)
            return condition()
        wait_until(nudged, what, 60)
        return posted

    @staticmethod
    def utc_now_ms():
        return time.time_ns() // 1000000

    def wait_for_start(self, source, expected, within_ms):
        start = wait_until(lambda: self.starts().get((1, 1, source)), f"a start by {source}")
        self.assertLessEqual(abs(start - expected), within_ms)
        return start

    #: The middleware dates the cycle until the web does, which also dates the signed
    #: requests.
    def test_middleware_dates_the_cycle_until_the_web_does(self):
        self.start_without_web_time()
        self.assertEqual(stat.S_IFMT(os.stat(PIPE).st_mode), stat.S_IFIFO)
        self.device.send("usage.epg", {"number": 1, **LONG})
        self.device.wait_for_stored(2)  # with the start event
        ahead = self.utc_now_ms() + HOUR_MS  # a clock that is an hour wrong
        base = kernel_ms()
        self.tell(str(ahead))
        system = self.wait_for_start(0, ahead - base, 2000)
        tried = self.device.out().count("uploadEvents request")
        self.device.send("usage.epg", {"number": 2, **LONG})
        self.device.wait_for_output("uploadEvents request", tried + 1)
        self.device.wait_for_stored(3)
        self.assertEqual(self.cloud.requests("firehose"), [])  # system time is not enough

        self.cloud.misbehave(time=None)
        posted = self.nudge_until(lambda: (1, 1, 1) in self.starts(), "web time")
        web = self.wait_for_start(1, self.utc_now_ms() - kernel_ms(), 3000)
        self.device.send("usage.epg", {"number": 4, **LONG})
        self.wait_for_events(posted + 4)
        for block in self.cloud.blocks():
            self.assertEqual(block["times"], [{"src": "system", "utc": system},
                                              {"src": "web", "utc": web}])
        self.assertEqual({event["utc-src"] for event in self.cloud.events()}, {"web"})
        # The application clock dates the signed requests: the web has put it right.
        signed = self.cloud.requests("firehose")[0]["headers"]["x-amz-date"]
        self.assertLessEqual(abs(calendar.timegm(time.strptime(signed, "%Y%m%dT%H%M%SZ"))
                                 - time.time()), 5)

    #: After a failed request for the time the next follows no sooner than 10 s, then 20 s, however
    #: often it is wanted.
    def test_failed_requests_for_the_time_are_followed_by_pauses(self):
        self.start_without_web_time()
        self.nudge_until(lambda: len(self.cloud.requests("time")) >= 3, "three requests")
        times = [utc_ms(entry["time"]) for entry in self.cloud.requests("time")]
        pauses = [later - earlier for earlier, later in zip(times, times[1:])]
        self.assertGreaterEqual(pauses[0], 9900, pauses)
        self.assertGreaterEqual(pauses[1], 19900, pauses)

    #: The same junk on the pipe gets one line in 10 s, with a count later, and long junk is cut.
    def test_same_junk_on_the_pipe_gets_one_line_in_10_seconds(self):
        self.start_without_web_time()
        pipe = os.open(PIPE, os.O_WRONLY)
        for _ in range(2000):
            os.write(pipe, b"\x1b[31m" + b"x" * 1019)
        self.device.wait_for_error("TimeMgr: Invalid MW time : ")
        base = self.utc_now_ms()
        os.write(pipe, b" " * 1024)
        os.write(pipe, str(base).encode())
        os.close(pipe)
        wait_until(lambda: (1, 1, 0) in self.starts(), "system time")
        lines = [line for line in self.device.err_lines() if "Invalid MW time" in line]
        self.assertLessEqual(len(lines), 10)
        self.assertIn("TimeMgr: Invalid MW time : \\x1B[31m" + "x" * 251 + "... (1024 bytes)", lines)

    #: Once the web knows the time the pipe is no longer read.
    def test_pipe_is_no_longer_read_once_the_web_knows_the_time(self):
        self.start_with_consent()
        wait_until(lambda: (1, 1, 1) in self.starts(), "web time")

        def nobody_reads():
            try:
                os.close(os.open(PIPE, os.O_WRONLY | os.O_NONBLOCK))
                return False
            except OSError:
                return True
        wait_until(nobody_reads, "the end of the watch")
        self.assertEqual(list(self.starts()), [(1, 1, 1)])

    #: Small steps of the middleware change nothing, large ones do.
    def test_small_steps_of_the_middleware_change_nothing_and_large_ones_do(self):
        self.start_without_web_time()
        base = self.utc_now_ms() - kernel_ms()
        self.tell(str(base + kernel_ms()))
        first = self.wait_for_start(0, base, 2000)
        self.tell(str(base + kernel_ms() + 55000))
        self.tell(str(base + kernel_ms() + 55000 + 180000))
        wait_until(lambda: self.starts()[1, 1, 0] != first, "the jump")
        self.assertLessEqual(abs(self.starts()[1, 1, 0] - base - 235000), 3000)

    #: Junk on the pipe gets a line; a file in its place is a failed opening.
    def test_junk_on_the_pipe_gets_a_line_and_changes_nothing(self):
        self.start_without_web_time()
        for count, junk in enumerate(("yesterday", "-", "99999999999999999999999", "{}"), start=1):
            self.tell(junk)
            self.device.wait_for_error("TimeMgr: Invalid MW time : ", count)
            self.device.wait_for_error(f"TimeMgr: Invalid MW time : {junk}")
        for unacceptable in ("0", "-5", "1000", "1470009599"):  # before 2016
            self.tell(unacceptable)
        self.tell(b"\0\xff" * 512)
        self.device.wait_for_error("TimeMgr: Invalid MW time : ", 5)
        self.assertEqual(self.starts(), {})
        now = self.utc_now_ms() - kernel_ms()
        self.tell(str(now + kernel_ms()))
        self.wait_for_start(0, now, 2000)

    #: Junk on the pipe gets a line; a file in its place is a failed opening.
    def test_place_of_the_pipe_taken_by_a_file_is_a_failed_open(self):
        forget_system_wide_names()
        with open(PIPE, "w") as file:
            file.write("1")
        try:
            self.device.runs = 1  # the file is to be found there
            self.device.write_config(upload_events={"min-size": 100})
            self.cloud.misbehave(time=NO_DATE, config="reset")
            self.device.start(ready=False)
            self.device.wait_for_error("TimeMgr: Cannot open fifo : ")
            self.device.alive()
            self.assertEqual(self.starts(), {})
        finally:
            os.unlink(PIPE)

    #: Wrong dates of the web are not believed; each cycle gets a start of its own.
    def test_wrong_dates_of_the_web_are_not_believed(self):
        self.device.write_config(upload_events={"min-size": 100})
        for boot, value in enumerate(("yesterday", None, "Thu, 01 Jan 1970 00:00:10 GMT",
                                      "Fri, 31 Dec 1999 23:59:59 GMT",
                                      "Thu, 07 Mar 2019 10:15:00 GMT"), start=1):  # not after build
            self.cloud.misbehave(time={"action": "date", "value": value}, config="reset")
            asked = len(self.cloud.requests("tou"))
            self.restart(boot, 1)
            wait_until(lambda asked=asked: len(self.cloud.requests("tou")) > asked, "the start")
            self.assertEqual(self.starts(), {}, value)
        self.cloud.misbehave(time=None, config=None)
        self.restart(9, 1)
        wait_until(lambda: (9, 1, 1) in self.starts(), "web time")

    #: Wrong dates of the web are not believed; each cycle gets a start of its own.
    def test_each_cycle_gets_a_start_of_its_own(self):
        self.cloud.misbehave(firehose="refuse")
        self.start_with_consent()
        self.device.send("usage.epg", LONG)
        self.device.wait_for_stored(1)
        self.restart(1, 2)
        wait_until(lambda: (1, 2, 1) in self.starts(), "the second cycle's time")
        self.assertEqual(sorted(self.starts()), [(1, 1, 1), (1, 2, 1)])
        self.device.stop()
        self.cloud.misbehave(firehose=None)
        self.restart(2, 1)
        self.device.wait_for_empty_store()
        wait_until(lambda: list(self.starts()) == [(2, 1, 1)], "only the running cycle's time")


if __name__ == "__main__":
    unittest.main()
