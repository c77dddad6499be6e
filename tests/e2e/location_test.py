#!/usr/bin/python3
"""Where the set is, as the header says it."""
import unittest

from harness import WholeProgramTest, wait_until

LONG = {"text": "x" * 100}
LIEGE = {"ip": "203.0.113.9", "city": "Liège", "region": "Wallonia", "country": "BE",
         "loc": "50.625,5.5"}
HEADER = {"lat": 50.625, "lng": 5.5, "ip": "203.0.113.9", "city": "Liège", "region": "Wallonia",
          "country-code": "BE", "country": "Belgium", "continent": "EU"}
ROW = (1, 5.5, 50.625, "203.0.113.9", "Liège", "Wallonia", "BE")


class LocationTest(WholeProgramTest):
    scenario = {"geo": LIEGE}

    def location_of_next_record(self, boot=1):
        before = len(self.cloud.records())
        self.restart(boot, 1)
        self.device.wait_for_config()
        self.device.send("usage.epg", LONG)
        wait_until(lambda: len(self.cloud.records()) > before, "a record")
        return self.cloud.blocks()[-1]["location"]

    def row(self):
        return self.device.query("SELECT * FROM Location")

    #: The place is asked for once, is in the header and stored for later runs.
    def test_known_place_is_in_the_header_and_stored_for_later_runs(self):
        self.assertEqual(self.location_of_next_record(), HEADER)
        wait_until(lambda: self.row() == [ROW], "the stored place")
        self.device.send("usage.epg", LONG)
        self.wait_for_events(2, "usage.epg")
        self.assertEqual(len(self.cloud.requests("geo")), 1)  # once in a run
        headers = self.cloud.requests("geo")[0]["headers"]
        self.assertEqual([name for name in headers if name.lower().startswith("x-")], [])

        self.cloud.misbehave(geo="reset")
        self.assertEqual(self.location_of_next_record(2), HEADER)

        self.cloud.misbehave(geo=None)
        self.cloud.control({"geo": {"city": "Gent", "loc": "51.0,3.75"}})
        self.assertEqual(self.location_of_next_record(3)["city"], "Gent")
        wait_until(lambda: self.row()[0][4] == "Gent", "the new place")

    #: Failed requests leave the location empty; a portal's page does not overwrite the
    #: stored place.
    def test_failed_request_without_a_stored_place_leaves_the_location_empty(self):
        for boot, action in enumerate(("reset", "server-error", "not-json", "cut", "huge"), start=1):
            self.cloud.misbehave(geo=action)
            self.assertEqual(self.location_of_next_record(boot), {}, action)
            self.assertEqual(self.row(), [])

    #: Failed requests leave the location empty; a portal's page does not overwrite the
    #: stored place.
    def test_page_of_a_captive_portal_does_not_overwrite_the_stored_place(self):
        self.location_of_next_record()
        wait_until(lambda: self.row() == [ROW], "the stored place")
        self.cloud.misbehave(geo={"action": "answer", "content-type": "text/html",
                                  "body": "<html>Please log in</html>"})
        self.assertEqual(self.location_of_next_record(2), HEADER)
        self.assertEqual(self.row(), [ROW])

    #: Bad coordinates and unknown countries are unknown in the header.
    def test_coordinates_out_of_range_or_unreadable_are_unknown(self):
        for boot, (loc, lat, lng) in enumerate((
                ("91,5.5", 999.99, 5.5), ("50.625,-180.5", 50.625, 999.99),
                ("50.625", 999.99, 999.99), ("1,2,3", 999.99, 999.99), ("nan,inf", 999.99, 999.99),
                ("north,1e999", 999.99, 999.99), ("-90,-180", -90.0, -180.0)), start=1):
            self.cloud.control({"geo": {**LIEGE, "loc": loc}})
            location = self.location_of_next_record(boot)
            self.assertEqual((location["lat"], location["lng"]), (lat, lng), loc)

    #: Bad coordinates and unknown countries are unknown in the header.
    def test_unknown_country_has_neither_name_nor_continent(self):
        self.cloud.control({"geo": {**LIEGE, "country": "QQ"}})
        location = self.location_of_next_record()
        self.assertEqual((location["country-code"], location["country"], location["continent"]),
                         ("QQ", "", ""))

    #: Switched-off geolocation asks nobody and gives the fixed place.
    def test_switched_off_geolocation_asks_nobody_and_gives_the_fallback(self):
        for boot, value in enumerate(("false", ""), start=1):
            self.device.environment["LOC_NETWORK"] = value
            self.assertEqual(self.location_of_next_record(boot), {
                "lat": 50.85, "lng": 4.35, "ip": "192.0.2.1", "city": "Brussels",
                "region": "Brussels Capital", "country-code": "BE", "country": "Belgium",
                "continent": "EU"})
        self.assertEqual(self.cloud.requests("geo"), [])
        self.assertEqual(self.row(), [])
        self.device.environment["LOC_NETWORK"] = "true"
        self.assertEqual(self.location_of_next_record(5), HEADER)


if __name__ == "__main__":
    unittest.main()
