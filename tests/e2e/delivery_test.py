#!/usr/bin/python3
"""Events on their road from the queue to the stream, and the record to the letter."""
import json
import unittest

from harness import DEVICE, WholeProgramTest, kernel_ms, utc_ms, utc_text, wait_until


class DeliveryTest(WholeProgramTest):
    #: An event posted on the queue reaches the stream and leaves the store.
    def test_event_posted_on_the_queue_reaches_the_stream(self):
        self.start_with_consent()
        for channel in range(5):
            self.device.send("usage.epg", {"channel": channel})
        events = self.wait_for_events(5, "usage.epg")
        self.assertEqual([event["channel"] for event in events], list(range(5)))
        self.device.wait_for_empty_store()

    #: A number as type arrives as name, an unknown name as it is.
    def test_number_as_event_type_becomes_the_name_and_an_unknown_name_stays(self):
        self.start_with_consent()
        for event_type in ("15", "my.event"):
            self.device.send(event_type, {"text": "x" * 100})
        self.wait_for_events(2)
        self.assertEqual([(event["event-type"], event["eventid"]) for event in self.cloud.events()],
                         [("ui.key.press", 15), ("my.event", 0)])

    #: A sender's time is kept without a source; an unreadable one is reported and the cycle
    #: dates the event.
    def test_time_that_the_sender_knows_is_kept_without_a_source(self):
        self.start_with_consent()
        self.device.send_lines([{"event-type": "usage.epg", "utc-time": "1500000000123",
                                 "kernel-time": 77, "data": {"text": "x" * 100}}])
        event, = self.wait_for_events(1, "usage.epg")
        self.assertEqual(event, {"event-type": "usage.epg", "eventid": 6, "text": "x" * 100,
                                 "time": "2017-07-14T02:40:00.123Z", "ts": 77})
        self.assertEqual(self.cloud.blocks()[0]["start-time"], "2017-07-14T02:40:00.123Z")

    #: A sender's time is kept without a source; an unreadable one is reported and the cycle
    #: dates the event.
    def test_unreadable_utc_time_is_reported_and_the_cycle_dates_the_event(self):
        self.start_with_consent()
        at = kernel_ms() - 5000
        self.device.send_lines([{"event-type": "usage.epg", "utc-time": "yesterday",
                                 "kernel-time": at, "data": {"text": "x" * 100}}])
        event, = self.wait_for_events(1, "usage.epg")
        self.device.wait_for_error("kivUpload: Cannot convert this string to a long long!")
        start = dict(self.device.query("SELECT source,startTime FROM TimeOffsets"))[1]
        self.assertEqual((event["time"], event["utc-src"]), (utc_text(start + at), "web"))

    #: A store below the least size waits until its oldest event is of age.
    def test_store_below_the_least_size_waits_until_its_oldest_event_comes_of_age(self):
        self.device.write_config(upload_events={"min-size": 100000, "max-delay": 3})
        self.cloud.control({"config": {"*": {"upload_events": {"min-size": 100000,
                                                               "max-delay": 3}}}})
        self.device.start()
        posted = kernel_ms()
        self.device.send("usage.epg", {"channel": 1})
        event, = self.wait_for_events(1, "usage.epg")
        self.assertGreaterEqual(kernel_ms() - posted, 2000)
        self.assertLessEqual(event["ts"] - posted, 1000)
        self.device.wait_for_empty_store()


class BacklogTest(WholeProgramTest):
    configuration = {"upload_events": {"min-size": 1000, "max-delay": 3500, "max-size": 3000}}

    #: A backlog is drained in order, packets full and within the limit.
    def test_backlog_is_drained_packet_after_packet_in_order(self):
        self.cloud.misbehave(firehose="refuse")
        self.start_with_consent()
        for channel in range(60):
            self.device.send("usage.epg", {"channel": channel, "text": "x" * 200}, sync=False)
        self.device.wait_for_stored(60)
        self.cloud.misbehave(firehose=None)
        self.restart(2, 1)  # no failure of this run forbids sending
        # What is left below the least size waits for its age; the start event comes after it.
        events = self.wait_for_events(57, "usage.epg")
        self.assertEqual([event["channel"] for event in events], list(range(len(events))))
        left = wait_until(lambda: len(self.cloud.events("usage.epg")) + sum(
            event["event-type"] == "usage.epg" for event in self.device.stored_events()) == 60
            and self.device.stored_events(), "sent and stored events to make up all")
        self.assertLess(sum(len(json.dumps(event)) for event in left), 1000)
        records = self.cloud.records()
        self.assertGreaterEqual(len(records), 6)
        for record in records:
            self.assertLessEqual(len(record.decode()), 3000 + 1)
        for record in records[:-1]:
            self.assertGreater(len(record), 2200)  # none of them was sent half empty

    #: An event too long for any packet is neither sent nor lost.
    def test_event_too_long_for_any_packet_is_not_sent_and_not_lost(self):
        self.start_with_consent()
        self.device.send("usage.epg", {"text": "x" * 4000})
        stored, = self.device.wait_for_stored(1)
        self.restart(2, 1, "-v")
        self.device.wait_for_output("kivUpload: Packet full. Unmark last event")
        self.assertEqual(self.cloud.requests("firehose"), [])
        self.assertIn(stored, self.device.stored_events())


class RecordTest(WholeProgramTest):
    """One record of two cycles, compared whole, byte for byte."""

    configuration = {"upload_events": {"min-size": 1000000, "max-delay": 3500}}
    scenario = {"geo": {"ip": "203.0.113.9", "city": "Liège", "region": "Wallonia",
                        "country": "BE", "loc": "50.625,5.5"}}

    #: A record of two cycles is as documented, to the byte.
    def test_record_of_two_cycles_is_as_documented_to_the_byte(self):
        self.device.environment["TZ"] = "CET-1"
        self.device.write_global_info(country="BEL")
        self.start_with_consent()
        base = kernel_ms() - 60000
        self.device.send("pim.start", {"pim-version": "4.2", "pim-builddate": "May 2019"},
                         "--kernel-time", str(base))
        self.device.send_lines([
            {"event-type": "usage.epg", "text": "outside", "kernel-time": base + 1,
             "data": {"text": "inside", "list": [1, 2.5, None, True], "deep": {"a": {"b": {}}}},
             "boot-count": 99, "channel": 5},
            {"event-type": "my.event", "kernel-time": base + 12, "data": {"text": "é\n\"/\\"}},
        ], "--sync=20")
        self.device.send_lines([  # stored last, happened first
            {"event-type": "15", "kernel-time": base - 5000}], "--sync=20")
        self.device.wait_for_stored(4)
        self.device.stop()

        self.device.write_global_info(op_hour=9, country="BEL")
        self.device.change_config(upload_events={"min-size": 100})
        before = int(time_of(self.device))
        let_network_through = self.hold_network()
        self.restart(5, 2)
        self.device.wait_for_stored(5)
        let_network_through()
        record = wait_until(self.cloud.records, "a record")[0].decode()
        starts = {(boot, source): start for boot, source, start in self.device.query(
            "SELECT bootCount,source,startTime FROM TimeOffsets")}
        first, second = (json.loads(line) for line in record.splitlines())
        sent_at = first["upload-time"]
        self.assertLessEqual(before - 2000, utc_ms(sent_at))
        self.assertLessEqual(utc_ms(sent_at), time_of(self.device) + 2000)

        start = second["events"][0]
        self.assertEqual(start["event-type"], "kiv.start")
        web = starts.get((1, 1), utc_ms(first["start-time"]) - (base - 5000))  # trimmed once sent
        expected = self.header(1, 1, sent_at, web + base - 5000, 420, web) + ',"events":[' + ",".join([
            '{"event-type": "ui.key.press", "eventid": 15, "utc-src": "web", '
            + self.moment(web, base - 5000),
            '{"event-type": "pim.start", "eventid": 206, "utc-src": "web", "pim-version": "4.2", '
            '"pim-builddate": "May 2019", ' + self.moment(web, base),
            '{"event-type": "usage.epg", "text": "inside", "channel": 5, "eventid": 6, '
            '"utc-src": "web", "list": [1, 2.5, null, true], "deep": {"a": {"b": {}}}, '
            + self.moment(web, base + 1),
            '{"event-type": "my.event", "eventid": 0, "utc-src": "web", "text": "é\\n\\"/\\\\", '
            + self.moment(web, base + 12)]) + "]}\n"
        web = starts[(5, 1)]
        expected += self.header(5, 2, second["upload-time"], web + start["ts"], 540, web) \
            + ',"events":[{"event-type": "kiv.start", "eventid": 202, "utc-src": "web", ' \
            + self.moment(web, start["ts"]) + "]}\n"
        self.assertEqual(record, expected)

    @staticmethod
    def moment(start, kernel_time):
        return f'"time": "{utc_text(start + kernel_time)}", "ts": {kernel_time}}}'

    def header(self, boot, standby, sent_at, start_time, op_minutes, web):
        """The session header without its closing brace."""
        return (f'{{"country": "BE", "deviceid": "{DEVICE}", "ctn": "55E2E0001/12", '
                '"component": "E2E", "ufversion": "E2E.1.2.3", '
                f'"boot-count": {boot}, "standby-count": {standby}, "upload-time": "{sent_at}", '
                f'"start-time": "{utc_text(start_time)}", "lto": 3600, '
                f'"operating-minutes": {op_minutes}, '
                '"location": {"lat": 50.625, "lng": 5.5, "ip": "203.0.113.9", "city": "Liège", '
                '"region": "Wallonia", "country-code": "BE", "country": "Belgium", '
                '"continent": "EU"}, '
                '"client": "kivApp #0x442c3c4 Fri 2019-05-17 04:00:13 CET", '
                '"pimclient": "pimApp 4.2 May 2019", '
                f'"times": [{{"src": "system", "utc": 0}}, {{"src": "web", "utc": {web}}}], '
                f'"db-token": "{self.device.db_token()}"')


def time_of(device):
    """The set's UTC milliseconds now, by the web time of its latest cycle."""
    start, = device.query("SELECT startTime FROM TimeOffsets WHERE source=1 "
                          "ORDER BY bootCount DESC LIMIT 1")[0]
    return start + kernel_ms()


if __name__ == "__main__":
    unittest.main()
