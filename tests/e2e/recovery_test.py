#!/usr/bin/python3
"""Refused and broken transfers, restarts and power cuts: nothing lost, nothing sent twice."""
import json
import random
import sqlite3
import threading
import time
import unittest

from harness import STREAM, WholeProgramTest, wait_until

LONG = {"text": "x" * 100}
FAILED = "kivUpload: Event upload failed, will try later in 60 seconds"


def deliveries(cloud):
    """How often each numbered event is in the cloud."""
    counts = {}
    for event in cloud.events("usage.epg"):
        counts[event["number"]] = counts.get(event["number"], 0) + 1
    return counts


def numbers_in_store(device):
    return {event["data"]["number"] for event in device.stored_events()
            if event["event-type"] == "usage.epg"}


class RefusalTest(WholeProgramTest):
    """Each failure keeps the rows; a new start sends them once (the minute's pause is forgotten)."""

    def fail_and_recover(self, error, times=1, limit_s=30, **misbehaviour):
        self.start_with_consent()
        self.wait_for_quiet_connections()
        self.cloud.misbehave(**misbehaviour)
        self.device.send("usage.epg", {"number": 1, **LONG})
        self.device.wait_for_error(FAILED, limit_s=limit_s)
        self.assertIn("kivAWSWrapper: Failed sending packet to Firehose AWS",
                      self.device.err_lines())
        self.assertIn(error, self.device.err())
        self.assertEqual(numbers_in_store(self.device), {1})
        self.cloud.misbehave(**{target: None for target in misbehaviour})
        self.restart(2, 1)
        wait_until(lambda: deliveries(self.cloud).get(1, 0) == times, f"event 1, {times} times")
        self.device.wait_for_empty_store()
        self.assertEqual(deliveries(self.cloud), {1: times})

    def wait_for_quiet_connections(self):
        wait_until(lambda: self.cloud.requests("tou"), "the end of the start-up's requests")

    #: Refusals, error pages, portals and resets of the stream keep the events for the next
    #: start.
    def test_refusal_with_403_keeps_the_events(self):
        self.fail_and_recover("Error = ", firehose={"action": "refuse", "status": 403,
                                                    "code": "AccessDeniedException"})

    #: Refusals, error pages, portals and resets of the stream keep the events for the next
    #: start.
    def test_server_error_page_keeps_the_events(self):
        self.fail_and_recover("Error = ", firehose="server-error")

    #: Refusals, error pages, portals and resets of the stream keep the events for the next
    #: start.
    def test_success_status_with_a_captive_portals_page_keeps_the_events(self):
        self.fail_and_recover("Error = ", firehose={
            "action": "answer", "status": 200, "body": "<html>Please log in</html>",
            "content-type": "text/html"})

    #: Refusals, error pages, portals and resets of the stream keep the events for the next
    #: start.
    def test_reset_connection_keeps_the_events(self):
        self.fail_and_recover("Error = ", firehose="reset")

    #: A lost or cut answer repeats its packet once.
    def test_answer_lost_behind_a_kept_record_repeats_that_packet_once(self):
        self.fail_and_recover("Error = ", times=2, firehose={"action": "reset",
                                                             "processed": True})

    #: A lost or cut answer repeats its packet once.
    def test_cut_answer_repeats_that_packet_at_most_once(self):
        self.fail_and_recover("Error = ", times=2, firehose="cut")

    #: A stranger's certificate is never trusted.
    def test_certificate_of_a_stranger_is_never_trusted(self):
        for kind in ("untrusted", "expired", "other-host"):
            with self.subTest(kind):
                self.start_with_consent()
                self.wait_for_quiet_connections()
                self.cloud.misbehave(https={"action": "certificate", "kind": kind})
                self.device.send("usage.epg", {"number": 1, **LONG})
                self.device.wait_for_error(FAILED)
                self.device.stop()
                self.assertEqual(numbers_in_store(self.device), {1})
                self.cloud.misbehave(https=None)
                (self.device.folder / "Config").unlink()
                self.device.database.rename(self.device.folder / "kept")
        self.assertEqual(self.cloud.requests("firehose"), [])
        (self.device.folder / "kept").rename(self.device.database)
        self.start_with_consent()
        self.wait_for_events(1, "usage.epg")
        self.device.wait_for_empty_store()
        self.assertEqual(deliveries(self.cloud), {1: 1})

    #: Rotated credentials are refused until a new configuration names them.
    def test_rotated_credentials_are_refused_until_a_new_configuration_names_them(self):
        self.start_with_consent()
        self.wait_for_quiet_connections()
        self.cloud.control({"credentials": {"access-key-id": "ASIAROTATED",
                                            "session-token": "second"}})
        self.device.send("usage.epg", {"number": 1, **LONG})
        self.device.wait_for_error(FAILED)
        self.device.stop()
        self.device.change_config(**{"UTC-Time": 1})
        self.device.start()
        self.wait_for_events(1, "usage.epg")
        self.assertEqual(deliveries(self.cloud), {1: 1})

    #: A slow answer is waited for, a silent stream given up after half a minute.
    def test_answer_that_drips_in_is_waited_for(self):
        self.start_with_consent()
        self.cloud.misbehave(firehose={"action": "drip", "delay": 0.02})
        self.device.send("usage.epg", {"number": 1, **LONG})
        self.wait_for_events(1, "usage.epg")
        self.device.wait_for_empty_store()
        self.assertEqual(deliveries(self.cloud), {1: 1})
        self.assertEqual(self.device.errors_beginning(FAILED), 0)

    #: A slow answer is waited for, a silent stream given up after half a minute.
    def test_silent_stream_is_given_up_after_half_a_minute(self):
        started = time.monotonic()
        self.fail_and_recover("Error = ", limit_s=50, firehose="hang")
        self.assertGreater(time.monotonic() - started, 25)


class RestartTest(WholeProgramTest):
    #: Stored events leave with the next start.
    def test_events_in_the_store_leave_with_the_next_start(self):
        self.cloud.misbehave(firehose="refuse")
        self.start_with_consent()
        for number in range(5):
            self.device.send("usage.epg", {"number": number, **LONG})
        self.device.wait_for_stored(5)
        self.cloud.misbehave(firehose=None)
        self.restart(1, 2)
        self.wait_for_events(5, "usage.epg")
        self.device.wait_for_empty_store()
        self.assertEqual(deliveries(self.cloud), {number: 1 for number in range(5)})
        self.assertEqual(self.cloud.blocks()[0]["standby-count"], 1)

    #: A power cut while a packet is under way loses nothing; one after the answer repeats
    #: that packet.
    def test_power_cut_while_a_packet_is_under_way_loses_nothing(self):
        self.start_with_consent()
        self.cloud.misbehave(firehose="hang")
        for number in range(5):
            self.device.send("usage.epg", {"number": number, **LONG})
        self.device.wait_for_stored(5)
        wait_until(lambda: self.cloud.requests("firehose"), "the packet under way")
        self.device.kill()
        self.cloud.misbehave(firehose=None)
        self.device.write_boot(2, 1)
        self.device.start()
        self.wait_for_events(5, "usage.epg")
        self.device.wait_for_empty_store()
        self.assertEqual(deliveries(self.cloud), {number: 1 for number in range(5)})

    #: A power cut while a packet is under way loses nothing; one after the answer repeats
    #: that packet.
    def test_power_cut_behind_the_answer_repeats_at_most_that_packet(self):
        self.start_with_consent()
        self.cloud.misbehave(firehose={"action": "hang", "processed": True})
        self.device.send("usage.epg", {"number": 1, **LONG})
        self.wait_for_events(1, "usage.epg")
        self.device.kill()
        self.cloud.misbehave(firehose=None)
        self.device.write_boot(2, 1)
        self.device.start()
        self.wait_for_events(2, "usage.epg")
        self.device.wait_for_empty_store()
        self.assertEqual(deliveries(self.cloud), {1: 2})

    #: Power cuts during a stream of events leave every stored row and a sound database.
    def test_power_cuts_during_a_stream_of_events_leave_every_stored_row_and_a_sound_database(self):
        """What was seen in the store before the cut is delivered, in the end, at least once."""
        self.cloud.misbehave(firehose="refuse")
        self.start_with_consent()
        dice = random.Random(20190307)
        stored, sent = set(), 0
        for boot in range(1, 7):
            numbers = list(range(sent, sent + 150))
            sent += len(numbers)
            gone = threading.Event()
            sender = threading.Thread(target=self.send_until, args=(gone, numbers))
            sender.start()
            time.sleep(dice.uniform(0.05, 0.4))  # the moment of the cut is the point
            stored |= numbers_in_store(self.device)
            self.device.kill()
            gone.set()
            sender.join()
            self.assertEqual(self.device.integrity(), "ok")
            self.assertLessEqual(stored, numbers_in_store(self.device))
            self.device.write_boot(boot + 1, 1)
            self.device.start()
        self.cloud.misbehave(firehose=None)
        stored |= numbers_in_store(self.device)
        self.assertTrue(stored)
        self.restart(9, 1)
        wait_until(lambda: stored <= deliveries(self.cloud).keys(), "all that was stored")
        self.device.wait_for_empty_store()
        self.assertEqual(set(deliveries(self.cloud).values()), {1})
        self.assertEqual(self.device.integrity(), "ok")

    def send_until(self, gone, numbers):
        for number in numbers:
            message = json.dumps({"event-type": "usage.epg", "data": {"number": number}})
            while not gone.wait(0.002) and not self.device.post_now(message.encode()):
                pass

    #: A restart keeps the token, a lost store gets a new one.
    def test_start_over_keeps_the_token_and_a_lost_store_gets_a_new_one(self):
        self.start_with_consent()
        token = self.device.db_token()
        self.restart(2, 1)
        self.wait_for_events(1, "kiv.start")
        self.device.kill()
        self.device.database.unlink()
        self.restart(3, 1)
        self.wait_for_events(2, "kiv.start")
        first, second = (block["db-token"] for block in self.cloud.blocks())
        self.assertEqual(first, token)
        self.assertNotEqual(second, token)
        self.assertEqual(self.device.db_token(), second)
        self.assertEqual(len(self.cloud.records(STREAM)), 2)


class ReaderTest(WholeProgramTest):
    #: Another process that reads the database costs no event.
    def test_other_process_reading_the_database_costs_no_event(self):
        self.start_with_consent()
        self.device.query("SELECT 1")
        with sqlite3.connect(f"file:{self.device.database}?mode=ro", uri=True) as reader:
            reader.execute("BEGIN")
            reader.execute("SELECT COUNT(*) FROM Events").fetchall()  # holds the shared lock
            self.device.send("usage.epg", {"number": 1, **LONG})
            time.sleep(1)  # for as long as someone looks
            reader.rollback()
        reader.close()
        self.wait_for_events(1, "usage.epg")
        self.assertEqual(self.device.errors_beginning("kivDB: SQL error"), 0, self.device.err())


if __name__ == "__main__":
    unittest.main()
