#!/usr/bin/python3
"""Messages and files that nobody should write, and a network that answers rubbish everywhere."""
import json
import os
import pathlib
import random
import resource
import unittest

from harness import WholeProgramTest, wait_until

LONG = {"text": "x" * 100}
INVALID = "kivGateway:Invalid JSON object: Ignore"


class QueueTest(WholeProgramTest):
    def assert_takes_events(self):
        before = len(self.cloud.events("usage.epg"))
        self.device.send("usage.epg", LONG)
        self.wait_for_events(before + 1, "usage.epg")

    #: Messages that are not a JSON object get one line each; strange but valid ones do no
    #: harm.
    def test_messages_that_are_no_json_object_get_one_line_each_and_are_dropped(self):
        self.start_with_consent()
        junk = [b"hello", b"{", b"[]", b"17", b"null", b'"text"', b"\0", b"\xff\xfe\xfd",
                b'{"event-type": "usage.epg"} and more', b'{"a": 1', b"[" * 8000,
                b'{"a":' * 1600, b'{"event-type": "\xff"}', b"x" * 8192, os.urandom(8192)]
        for count, message in enumerate(junk, start=1):
            self.device.post_raw(message)
            self.device.wait_for_error(INVALID, count)
        self.assert_takes_events()
        self.assertEqual(self.device.errors_beginning(INVALID), len(junk))
        self.assertEqual({event["event-type"] for event in self.cloud.events()}, {"usage.epg"})

    #: Messages that are not a JSON object get one line each; strange but valid ones do no
    #: harm.
    def test_strange_but_valid_messages_do_not_harm_the_daemon(self):
        self.start_with_consent()
        for message in ({}, {"event-type": 5}, {"event-type": None}, {"event-type": ""},
                        {"event-type": "99999999999999999999"}, {"event-type": "-1"},
                        {"event-type": "usage.epg", "data": 7},
                        {"event-type": "usage.epg", "data": {"oob-info": 7}},
                        {"event-type": "usage.epg", "oob-url": 7, "data": {"oob-info": {}}},
                        {"event-type": "usage.epg", "oob-url": ""},
                        {"event-type": "usage.epg", "kernel-time": -(2 ** 63)},
                        {"event-type": "usage.epg", "kernel-time": 2 ** 63 - 1},
                        {"event-type": "usage.epg", "kernel-time": "soon"},
                        {"event-type": "usage.epg", "utc-time": "9" * 40},
                        {"event-type": "usage.epg", "utc-time": str(2 ** 63 - 1)},
                        {"event-type": "usage.epg", "utc-time": "-1"},
                        {"event-type": "pim.start"}, {"event-type": "pim.start", "data": [1]},
                        {"event-type": "pim.start", "data": {"pim-version": {}}},
                        {"event-type": "usage.epg", "syncsem": "no/such"},
                        {"event-type": "usage.epg", "syncsem": 5},
                        {"event-type": "usage.epg", "data": {"a": "\0\1\x7f\u2028"}},
                        {"event-type": "x" * 7000}, {"event-type": "logging.overflow"},
                        {"event-type": "kiv.start"}, {"event-type": "db.error"}):
            self.device.post_raw(json.dumps(message).encode())
        self.device.post_raw(b'{"event-type": "usage.epg", "data": {"deep": '
                             + b'{"a":' * 500 + b"1" + b"}" * 502)
        self.assert_takes_events()

    #: An event with a single quote is refused alone and does nothing else.
    def test_event_with_a_single_quote_is_refused_alone_and_does_nothing_else(self):
        self.start_with_consent()
        self.device.post_raw(b'{"event-type":"usage.epg","data":{"text":"it\'s"}}')
        self.device.wait_for_error("kivDB: SQL error (insert event): ")
        self.device.post_raw(b'{"event-type":"usage\'); DELETE FROM TimeOffsets; --",'
                             b'"data":{"text":"x"}}')
        self.device.wait_for_error("kivDB: SQL error (insert event): ", 2)
        self.assertEqual(self.device.query("SELECT COUNT(*) FROM TimeOffsets"), [(1,)])
        self.assert_takes_events()

    #: Messages that are not a JSON object get one line each; strange but valid ones do no
    #: harm.
    def test_random_bytes_in_valid_events_never_end_the_daemon(self):
        dice = random.Random(4242)
        self.start_with_consent()
        whole = json.dumps({"event-type": "usage.epg", "oob-url": "/x", "kernel-time": 5,
                            "data": {"oob-info": {"unique-id": "u"}, "channel": 5}}).encode()
        for _ in range(500):
            message = bytearray(whole)
            for _ in range(dice.randrange(1, 4)):
                message[dice.randrange(len(message))] = dice.randrange(256)
            self.device.post_raw(bytes(message[:dice.randrange(1, len(message) + 1)]))
        self.assert_takes_events()

    #: A missing semaphore is reported with name and reason.
    def test_missing_semaphore_is_reported_with_its_name_and_reason(self):
        self.start_with_consent()
        self.device.post_raw(b'{"event-type": "usage.epg", "syncsem": "/nobody.waits"}')
        self.device.wait_for_error(
            "kivGateway:Cannot open semaphore /nobody.waits: No such file or directory")

    #: What stands in a semaphore's place may be anything: it gets a line and ends nothing.
    def test_what_is_not_a_semaphore_gets_a_line_and_ends_nothing(self):
        self.start_with_consent()
        stem = f"kive2e-{os.getpid()}-"
        makers = {
            "empty": lambda path: path.write_bytes(b""),
            "short": lambda path: path.write_bytes(b"\0" * 15),
            "long": lambda path: path.write_bytes(b"\0" * 4096),
            "garbage": lambda path: path.write_bytes(b"\xab" * 32),
            "zeroes": lambda path: path.write_bytes(b"\0" * 32),
            "directory": lambda path: path.mkdir(),
            "pipe": os.mkfifo,
            "link": lambda path: path.symlink_to("/etc/hostname"),
        }
        for name, make in makers.items():
            path = pathlib.Path("/dev/shm/sem." + stem + name)
            make(path)
            self.addCleanup(path.rmdir if name == "directory" else path.unlink)
            self.device.post_raw(json.dumps({"event-type": "usage.epg",
                                             "syncsem": "/" + stem + name}).encode())
            self.device.wait_for_error(f"kivGateway:Cannot open semaphore /{stem}{name}: ")
        self.assert_takes_events()

    #: A daemon that may have no queue at its start takes events once it may.
    def test_daemon_that_may_have_no_queue_takes_events_once_it_may(self):
        most = resource.getrlimit(resource.RLIMIT_MSGQUEUE)[1]
        self.device.launcher = ["prlimit", f"--msgqueue=0:{most if most >= 0 else 'unlimited'}", *self.device.launcher]
        self.device.start(ready=False)
        self.device.wait_for_error("kivGateway:mq_open failed : Too many open files")
        self.device.wait_for_config()
        resource.prlimit(self.device.process.pid, resource.RLIMIT_MSGQUEUE, (most, most))
        wait_until(self.device.queue_exists, "the message queue")
        self.assert_takes_events()

    #: The daemon's own files are not announced by anybody, under no name.
    def test_own_files_of_the_daemon_cannot_be_announced(self):
        self.start_with_consent()
        self.device.send("pim.start", {"pim-version": "1", "pim-builddate": "2"})
        folder = self.device.folder
        (folder / "harmless.log").symlink_to(folder / "Config")
        os.link(folder / "Config", folder / "second.log")
        names = ["Db", "Config", "dbuuid.json", "pimversion.json", "current_tou.txt", "GlobalInfo",
                 "BootInfo", "harmless.log", "second.log", "Db-wal", "x/../Config"]
        for count, name in enumerate(names, start=1):
            self.device.post_raw(json.dumps({
                "event-type": "usage.epg", "oob-url": f"{folder}/{name}",
                "data": {"oob-info": {"unique-id": name}}}).encode())
            self.device.wait_for_error(
                "kivGateway:File is the daemon's own: Ignore the file ", count)
        self.assertEqual(self.device.query("SELECT COUNT(*) FROM Files"), [(0,)])
        self.assert_takes_events()
        self.assertEqual(self.cloud.objects(), {})
        for name in names[:9]:
            self.assertTrue((folder / name).exists(), name)


class JunkFilesTest(WholeProgramTest):
    #: Junk in every file of the set leaves a running daemon.
    def test_junk_in_every_file_of_the_set_leaves_a_running_daemon(self):
        for boot, junk in enumerate((b"", b"junk", b"\0" * 100, b"[]", b"17", b"\xff" * 5000,
                                     b"[" * 100000, b"{}"), start=1):
            for name in ("GlobalInfo", "BootInfo", "Config", "current_tou.txt", "dbuuid.json",
                         "pimversion.json", "tou_server_answer.txt", "Db"):
                (self.device.folder / name).write_bytes(junk)
            self.device.start("-v" if boot % 2 else "-s")
            self.device.wait_for_output("took")
            self.device.send("usage.epg", LONG)
            self.device.alive()
            self.device.stop()
        self.device.write_global_info()
        self.device.write_boot(9, 1)
        self.device.write_consent("CUL-TOU 1 TRUE")
        self.start_with_consent()
        self.device.send("usage.epg", LONG)
        self.wait_for_events(1, "usage.epg")


class CaptivePortalTest(WholeProgramTest):
    SERVICES = ("config", "tou", "time", "geo", "firehose", "s3")

    #: A captive portal on every service harms nothing and passes.
    def test_page_of_a_captive_portal_on_every_service_harms_nothing_and_passes(self):
        self.start_with_consent()
        self.device.send("usage.epg", LONG)
        self.wait_for_events(1, "usage.epg")
        self.device.wait_for_empty_store()
        self.device.stop()
        before = self.device.config()
        for boot, told in enumerate((
                {"action": "answer", "body": "<html>Log in</html>", "content-type": "text/html"},
                {"action": "answer", "body": ""}, {"action": "answer", "body": "null"},
                {"action": "huge"}, {"action": "date", "value": "never"},
                {"action": "server-error"}), start=2):
            self.cloud.misbehave(**{service: told for service in self.SERVICES})
            asked = len(self.cloud.requests("tou"))
            self.restart(boot, 1)
            wait_until(lambda asked=asked: len(self.cloud.requests("tou")) > asked, "the start")
            self.device.send("usage.epg", LONG)
            self.device.alive()
            self.device.stop()
        self.assertEqual(self.device.config()["event-filter"], before["event-filter"])
        self.assertTrue(self.device.config()["kiv_tou"])
        self.cloud.misbehave(**{service: None for service in self.SERVICES})
        self.restart(20, 1)
        self.device.send("usage.epg", {"number": 20, **LONG})
        wait_until(lambda: any(event.get("number") == 20 for event in self.cloud.events("usage.epg")),
                   "the event after all portals")


if __name__ == "__main__":
    unittest.main()
