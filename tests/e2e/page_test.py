#!/usr/bin/python3
"""The page of the local cloud: what it serves, and what a person sees and does in a real browser.

Where no browser is installed the tests that need none are run, and the status is 77: skipped.
"""
import contextlib
import http.client
import json
import os
import pathlib
import re
import socket
import struct
import sys
import tempfile
import threading
import time
import unittest
import urllib.parse
import zlib

import browser
from browser import ESCAPE, Browser
from harness import BUILD, Cloud, WholeProgramTest, wait_until

FILTER_PROGRAM = BUILD / "tools/kivfilter"
SKIPPED = 77
HOSTILE = {
    "script": "<script>window.hacked = 1</script>",
    "picture": "<img src=x onerror='window.hacked = 2'>".replace("'", '"'),
    "entity": "&lt;b&gt; </td></table></body>",
    "turned": "\u202eevil\u202c \u2066x \u05e9\u05dc\u05d5\u05dd \u0645\u0631\u062d\u0628\u0627",
    "unseen": "a\u200bb\u0007c\ufeff",
}
PICTURES = os.environ.get("KIV_PICTURES")  # a folder for looking at what the tests see


class PageTest(WholeProgramTest):
    """A cloud that has the page's filter program, asked as the page asks."""

    configuration = {"upload_events": {"min-size": 100, "max-delay": 3500}}

    def setUp(self):
        Cloud.options = ("--filter-program", str(FILTER_PROGRAM))
        self.addCleanup(setattr, Cloud, "options", ())
        super().setUp()
        self.place = urllib.parse.urlsplit(self.cloud.page).netloc
        self.page = self.cloud.page

    def start_cloud_again(self):
        """Another run of the cloud on the same state directory."""
        self.cloud.stop()
        self.cloud = Cloud(self.folder / "cloud", {"config": {"*": self.configuration}})
        self.addCleanup(self.cloud.stop)

    def ask(self, method, path, document=None, **headers):
        """(status, headers, body); names of headers with "_" for "-"."""
        connection = http.client.HTTPConnection(self.place, timeout=10)
        self.addCleanup(connection.close)
        sent = {name.replace("_", "-"): value for name, value in headers.items()}
        body = None
        if document is not None:
            body = document if isinstance(document, bytes) else json.dumps(document).encode()
            sent.setdefault("Content-Type", "application/json")
        connection.request(method, path, body, sent)
        answer = connection.getresponse()
        return answer.status, answer.headers, answer.read()

    def told(self):
        return json.loads(self.ask("GET", "/control/state")[2])

    def messages(self, enough, **headers):
        """Messages of the stream until `enough` of them says so."""
        connection = http.client.HTTPConnection(self.place, timeout=10)
        self.addCleanup(connection.close)
        connection.request("GET", "/page/stream", headers={
            name.replace("_", "-"): value for name, value in headers.items()})
        found = []
        answer = connection.getresponse()
        for line in answer:
            if line.startswith(b"data: {"):
                found.append(json.loads(line[6:]))
                if enough(found):
                    answer.close()
                    return found
        raise AssertionError("the stream ended")


class ServerTest(PageTest):
    FORBIDDEN = {"misbehave": {"geo": {"action": "refuse"}}}

    #: The page and its parts are served with a policy that lets nothing in from elsewhere.
    def test_page_is_served_with_a_policy_that_lets_nothing_in(self):
        status, headers, body = self.ask("GET", "/")
        self.assertEqual((status, headers["Content-Type"]), (200, "text/html; charset=utf-8"))
        self.assertTrue(headers["Content-Security-Policy"].startswith("default-src 'none'; "))
        self.assertNotIn("unsafe", headers["Content-Security-Policy"])
        for name in ("style.css", "app.js", "chart.js", "dom.js", "lists.js", "panels.js",
                     "theme.js", "icon.svg"):
            status, headers, part = self.ask("GET", "/page/" + name)
            self.assertEqual((status, headers["X-Content-Type-Options"]), (200, "nosniff"), name)
            body += part
        addresses = re.findall(r"\w+://[^\s\"']*", body.decode())
        self.assertEqual(addresses, ["http://www.w3.org/2000/svg"])  # a name, never fetched

    #: Nothing is changed for another web page, however it asks, and none may read an answer.
    def test_another_web_page_can_neither_change_nor_read_anything(self):
        change = {"target": "geo", "told": {"action": "refuse"}}
        for headers in ({"Origin": "http://evil.example"}, {"Origin": "null"},
                        {"Origin": "https://" + self.place},
                        {"Sec_Fetch_Site": "cross-site"},
                        {"Host": "evil.example", "Origin": "http://evil.example"}):
            for path, document in (("/page/misbehave", change), ("/control", self.FORBIDDEN)):
                status, answered, _ = self.ask("POST", path, document, **headers)
                self.assertEqual((status, answered["Access-Control-Allow-Origin"]), (403, None),
                                 (path, headers))
        for path in ("/", "/page/stream", "/page/state", "/control/state", "/control/requests"):
            self.assertEqual(self.ask("GET", path, Host="evil.example")[0], 403, path)
        self.assertEqual(self.told()["misbehave"], {})
        self.assertEqual(self.ask("GET", "/", Sec_Fetch_Site="cross-site")[0], 200)  # a link

    #: A form of another page cannot be sent: only JSON is taken.
    def test_only_json_is_taken(self):
        change = json.dumps({"target": "geo", "told": {"action": "refuse"}}).encode()
        for kind in ("text/plain", "application/x-www-form-urlencoded", "multipart/form-data", ""):
            self.assertEqual(self.ask("POST", "/page/misbehave", change, Content_Type=kind)[0], 415)
        self.assertEqual(self.ask("OPTIONS", "/page/misbehave")[0], 405)
        self.assertEqual(self.told()["misbehave"], {})
        self.assertEqual(self.ask("POST", "/page/misbehave", change,
                                  Origin="http://" + self.place)[0], 200)
        self.assertEqual(self.told()["misbehave"], {"geo": [{"action": "refuse"}]})

    #: A mistake in what is told is answered in words, and changes nothing.
    def test_mistake_is_answered_in_words(self):
        for document in ({"target": "moon", "told": {"action": "refuse"}}, {"target": "geo"}, {},
                         {"target": "geo", "told": {"action": "explode"}},
                         {"target": ["geo"], "told": None}, [1]):
            status, _, body = self.ask("POST", "/page/misbehave", document)
            self.assertEqual(status, 400, document)
            self.assertTrue(json.loads(body)["error"])
        self.assertEqual(self.told()["misbehave"], {})

    #: A stream that is taken up again goes on where it ended; for another run it begins anew.
    def test_stream_goes_on_where_it_ended(self):
        self.start_with_consent()
        self.device.send("usage.epg", {"channel": 1, "text": "x" * 100})
        first = self.messages(lambda found: found[-1]["totals"]["events"] == 1)
        self.assertTrue(first[0]["all"])
        known = f"{first[-1]['run']}-{first[-1]['change']}"
        self.device.send("usage.epg", {"channel": 2, "text": "x" * 100})
        rest = self.messages(lambda found: found[-1]["totals"]["events"] == 2, Last_Event_ID=known)
        self.assertFalse(rest[0]["all"])
        self.assertEqual([json.loads(event["preview"])["channel"]
                          for message in rest for event in message["events"]], [2])
        anew = self.messages(lambda found: found[-1]["events"], Last_Event_ID="other-7")
        self.assertEqual(len(anew[0]["events"]), 2)

    #: What was uploaded is never handed to the browser as something that it would run.
    def test_uploaded_object_is_never_something_to_run(self):
        picture = b"\x89PNG\r\n\x1a\n" + b"\0" * 20
        page = b"<!DOCTYPE html><script>alert(1)</script>"
        drawing = b'<svg xmlns="http://www.w3.org/2000/svg" onload="alert(1)"/>'
        self.start_with_consent()
        for name, data in (("a.png", picture), ("b.html", page), ("c.svg", drawing)):
            path = self.folder / name
            path.write_bytes(data)
            self.device.send_lines([{"event-type": "debug.dump", "oob-url": str(path), "data": {
                "oob-info": {"unique-id": name, "bucketname": "norvane-ddump"}}}])
        wait_until(lambda: len(self.cloud.objects()) == 3, "three objects")
        kinds = {}
        for bucket, key in self.cloud.objects():
            query = urllib.parse.urlencode({"bucket": bucket, "key": key})
            for shown in ("", "image", "file"):
                status, headers, body = self.ask("GET", f"/page/object?{query}&as={shown}")
                self.assertEqual((status, headers["X-Content-Type-Options"]), (200, "nosniff"))
                kinds[key.rpartition("/")[2], shown] = headers["Content-Type"]
                if shown == "file":
                    self.assertEqual(headers["Content-Security-Policy"],
                                     "default-src 'none'; sandbox")
                    self.assertTrue(headers["Content-Disposition"].startswith("attachment"))
        self.assertEqual(set(kinds.values()),
                         {"application/json", "application/octet-stream", "image/png"})
        self.assertEqual([name for name, kind in kinds.items() if kind == "image/png"],
                         [("a.png", "image")])

    #: Where the program is missing with which filters are tried, that is said.
    def test_missing_filter_program_is_said(self):
        Cloud.options = ("--filter-program", f"{self.folder}/nowhere")
        self.start_cloud_again()
        status, _, body = self.ask("POST", "/page/filter", {"text": "{}"})
        self.assertEqual(status, 400)
        self.assertIn("nowhere is not there", json.loads(body)["error"])

    #: A text that is no configuration is refused with its place, and nothing changes.
    def test_broken_configuration_is_refused_with_its_place(self):
        for text, why in (('{"version": "2",}', "line 1, column 16: no comma may stand before a "
                                                "closing bracket"),
                          ('{\n "a": 1\n "b": 2}', "line 3, column 2: a comma or a closing bracket "
                                                   "is expected here"),
                          ("[1]", "line 1, column 1: the configuration must be a JSON object: "
                                  "{ ... }"),
                          ('{"expiry_tou": NaN}', "NaN is not a number in JSON"),
                          ('{"a": 99999999999999999999}', '"a": the number is too large for a set'),
                          ('{"a": 1, "a": 2}', '"a" stands twice in the same object'),
                          ("", "line 1, column 1: there is no text"),
                          ('{"a": "\\ud800"}', "half of a surrogate pair is not a character"),
                          ('{"a": {"b": null}}', '"a/b" cannot be given out as null; leave the '
                           "member out, or put the rule into an array")):
            status, _, body = self.ask("POST", "/page/config", {"device": "*", "text": text})
            self.assertEqual((status, json.loads(body)["error"]), (400, why), text)
        self.assertEqual(self.told()["config"], {"*": self.configuration})

    #: What is edited becomes what is told, member by member, and can be taken back.
    def test_edited_configuration_becomes_what_is_told(self):
        def edited(device, change):
            found = json.loads(self.ask("GET", f"/page/config?device={device}")[2])
            document = json.loads(found["text"])
            change(document)
            status, _, body = self.ask("POST", "/page/config", {
                "device": device, "text": json.dumps(document)})
            self.assertEqual(status, 200, body)
            return self.told()["config"].get(device)

        rules = [{"event-type": "usage.epg", "data": {"x": None}}]
        self.assertEqual(
            edited("*", lambda d: d.update({"event-filter": {"include": rules}, "version": "2"})),
            {"upload_events": {"min-size": 100}, "event-filter": {"include": rules},
             "version": "2"})
        self.assertEqual(edited("TV-1", lambda d: d.update(kiv_tou=False) or d.pop("version")),
                         {"kiv_tou": False, "version": None})
        self.assertEqual(edited("TV-1", lambda d: d.update(kiv_tou=True, version="2")), None)
        self.ask("POST", "/page/config", {"device": "*", "text": None})
        self.assertEqual(self.told()["config"], {})


@unittest.skipUnless(os.access(FILTER_PROGRAM, os.X_OK), f"{FILTER_PROGRAM} is not built")
class FilterTest(PageTest):
    #: A filter is tried on the events received, by the daemon's own code, which says what decides.
    def test_filter_is_tried_on_the_events_received(self):
        self.start_with_consent()
        for channel in (1, 5, 9):
            self.device.send("usage.epg", {"channel": channel, "text": "x" * 100})
        self.device.send("usage.app", {"name": "y" * 100})
        self.wait_for_events(4)
        wanted = {"include": [{"event-type": "usage.app"},
                              {"event-type": "usage.epg", "data": {"channel": {"$>": 3}}}],
                  "exclude": [{"data": {"channel": 9}}]}
        found = {}

        def all_tried():
            nonlocal found
            status, _, body = self.ask("POST", "/page/filter", {"text": json.dumps(wanted)})
            self.assertEqual(status, 200, body)
            found = json.loads(body)
            return found["tried"] == 4

        wait_until(all_tried, "four events decoded")
        self.assertEqual([(event["type"], event["kept"], event["why"])
                          for event in reversed(found["events"])],
                         [("usage.epg", False, "no rule of include matches"),
                          ("usage.epg", True, "rule 2 of include matches"),
                          ("usage.epg", False, "rule 1 of exclude matches"),
                          ("usage.app", True, "rule 1 of include matches")])
        self.assertEqual((found["kept"], found["types"]),
                         (2, {"usage.epg": [1, 2], "usage.app": [1, 0]}))

    #: What a filter's code reports, and what rules nothing, is told beside the verdicts.
    def test_what_rules_nothing_is_told(self):
        self.start_with_consent()
        self.device.send("usage.epg", {"text": "x" * 100})
        self.wait_for_events(1)
        wanted = {"include": {"event-type": "usage.epg"}, "only": []}
        found = wait_until(lambda: (lambda found: found["tried"] and found)(json.loads(self.ask(
            "POST", "/page/filter", {"text": json.dumps(wanted)})[2])), "an event decoded")
        self.assertEqual(found["concerns"], ['"include" is not an array: it matches nothing',
                                             '"only" rules nothing; known are "include" and '
                                             '"exclude"'])
        self.assertEqual(found["events"][0]["why"], "include is not an array: it matches nothing")


@unittest.skipIf(browser.missing(), f"no {browser.missing()} here")
class BrowserTest(PageTest):
    @classmethod
    def setUpClass(cls):
        cls.scratch = tempfile.TemporaryDirectory(prefix="kivpage.", ignore_cleanup_errors=True)
        cls.addClassCleanup(cls.scratch.cleanup)
        cls.browser = Browser(pathlib.Path(cls.scratch.name))
        cls.addClassCleanup(cls.browser.close)

    def setUp(self):
        super().setUp()
        self.browser.width(1280)
        self.browser.prefers(color_scheme="light", reduced_motion="no-preference")
        self.browser.get(self.page)
        self.browser.wait_for_text("#connection", "live")
        self.browser.wait("document.querySelectorAll('.target').length === 7", "the targets")
        self.browser.script("window.sameDocument = true")
        self.expected_complaints = []

    def tearDown(self):
        super().tearDown()
        complaints = [line for line in self.browser.complaints()
                      if not any(text in line for text in self.expected_complaints)]
        self.browser.script("localStorage.clear()")
        self.browser.get("about:blank")
        self.assertEqual(complaints, [])

    def picture(self, name):
        if PICTURES:
            self.browser.picture(pathlib.Path(PICTURES) / f"{name}.png")

    def assert_not_reloaded(self):
        self.assertTrue(self.browser.script("return window.sameDocument === true"))

    def assert_readable(self):
        """That every text stands out from its ground by 4.5 to 1."""
        poor = self.browser.script("""
            const parse = (text) => (text.match(/[\\d.]+/g) || []).map(Number);
            const light = ([r, g, b]) => [r, g, b].map((c) => c / 255)
                .map((c) => (c <= 0.04045 ? c / 12.92 : ((c + 0.055) / 1.055) ** 2.4))
                .reduce((sum, c, i) => sum + c * [0.2126, 0.7152, 0.0722][i], 0);
            const ground = (element) => {
                for (; element; element = element.parentElement) {
                    const colour = parse(getComputedStyle(element).backgroundColor);
                    if (colour.length === 3 || colour[3] === 1) return colour;
                }
                return [255, 255, 255];
            };
            const poor = [];
            for (const element of document.querySelectorAll('body *')) {
                const own = [...element.childNodes].some((n) => n.nodeType === 3 && n.data.trim());
                if (!own || !element.checkVisibility() || element.disabled
                    || element.tagName === 'SCRIPT') continue;
                const a = light(parse(getComputedStyle(element).color)), b = light(ground(element));
                const ratio = (Math.max(a, b) + 0.05) / (Math.min(a, b) + 0.05);
                if (ratio < 4.5) poor.push([element.outerHTML.slice(0, 120), ratio]);
            }
            return poor;""")
        self.assertEqual(poor, [])

    def assert_named(self):
        """That everything that can be worked has a name for who does not see it."""
        nameless = self.browser.script("""
            return [...document.querySelectorAll('button, select, input, textarea, a, canvas')]
                .filter((e) => !(e.getAttribute('aria-label') || e.textContent.trim()
                                 || [...(e.labels ?? [])].some((l) => l.textContent.trim()))
                               || e.tagName === 'SELECT' && !e.getAttribute('aria-label')
                                  && !e.labels.length)
                .map((e) => e.outerHTML.slice(0, 120))""")
        self.assertEqual(nameless, [])

    def send_some(self):
        self.start_with_consent()
        for channel in range(3):
            self.device.send("usage.epg", {"channel": channel, "text": "x" * 100})
        self.device.send("my.hostile", HOSTILE)


class SeeingTest(BrowserTest):
    #: An empty page says what to do; a real daemon's events appear without a reload.
    def test_events_of_a_daemon_appear_without_a_reload(self):
        self.assertIn("./run", self.browser.text("#empty"))
        self.picture("empty")
        self.send_some()
        self.browser.wait_for_text("#event-rows", "my.hostile")
        self.assertFalse(self.browser.visible("#empty"))
        self.browser.wait_for_text("[data-total=events]", "4")
        self.assertIn("usage.epg\n3", self.browser.text("#legend"))
        self.assertIn("TV-E2E-1", self.browser.text("#set-rows"))
        self.assertIn("has the configuration", self.browser.text("#set-rows"))
        self.browser.wait_for_text("#record-rows", "accepted")
        self.browser.wait_for_text("#request-rows", "config")
        self.assertIn("4 events by arrival",
                      self.browser.wait("document.querySelector('#chart').ariaLabel.includes("
                                        "' 4 events') && document.querySelector('#chart').ariaLabel",
                                        "the drawing's words"))
        drawn = self.browser.script("""
            const c = document.querySelector('#chart');
            const want = getComputedStyle(document.documentElement).getPropertyValue('--c0').trim();
            const [r, g, b] = want.match(/\\w\\w/g).map((t) => parseInt(t, 16));
            const d = c.getContext('2d').getImageData(0, 0, c.width, c.height).data;
            let n = 0;
            for (let i = 0; i < d.length; i += 4)
                if (d[i] === r && d[i + 1] === g && d[i + 2] === b) n++;
            return n;""")
        self.assertGreater(drawn, 50)  # a bar of the first type's colour
        self.assert_not_reloaded()
        self.picture("light")

    #: A click on an event shows it whole with its session header; Escape leads back to its row.
    def test_click_shows_the_whole_event(self):
        self.send_some()
        self.browser.wait_for_text("#event-rows", "usage.epg")
        self.browser.script("document.querySelector('#event-rows button').focus()")
        self.browser.press(browser.ENTER)
        self.browser.wait_for_text("#details", '"deviceid": "TV-E2E-1"')
        self.assertIn('"event-type": ', self.browser.text("#details"))
        self.picture("event")
        self.browser.press(ESCAPE)
        self.browser.wait("!document.querySelector('#details').open", "the dialog to close")
        self.assertTrue(self.browser.script(
            "return document.querySelector('#event-rows').contains(document.activeElement)"))

    #: What an event says is text to the page, whatever it says.
    def test_hostile_text_is_shown_as_text(self):
        self.start_with_consent()
        self.device.send_lines([
            {"event-type": "<img src=x onerror=alert(1)>", "data": HOSTILE},
            {"event-type": "__proto__", "data": {"long": "W" * 6000}},
            {"event-type": "\u202egpe.egasu", "data": {"constructor": "<b>bold</b>"}}])
        self.browser.wait_for_text("[data-total=events]", "3")
        for depth in (500, 960, 990):  # within and beyond what the page can read
            before = len(self.cloud.requests("firehose"))
            self.device.post_raw(b'{"event-type": "usage.epg", "data": {"deep": '
                                 + b"[" * depth + b"]" * depth + b"}}")
            wait_until(lambda: len(self.cloud.requests("firehose")) > before, "its record")
        self.browser.wait_for_text("#record-rows", "session blocks that could not be read: 1")
        self.device.send("usage.app", {"text": "x" * 100})
        self.browser.wait_for_text("#event-rows", "usage.app")
        self.expected_complaints = ["status of 400", "status of 404"]
        for row in range(4):
            self.browser.click(f"#event-rows tr:nth-child({row + 1}) button")
            self.browser.wait("document.querySelector('#details').open", "the event")
            self.browser.press(ESCAPE)
        text = self.browser.text("#event-rows")
        self.assertIn("<img src=x onerror=alert(1)>", text)
        self.assertIn("<script>window.hacked = 1</script>", text)
        self.assertIn("\\u202egpe.egasu", text)
        self.assertNotIn("\u202e", text)
        self.assertIn("\\u200b", text)
        self.assertEqual(self.browser.script(
            "return [window.hacked ?? 0, document.querySelectorAll('main img, main b:not(#legend b), "
            "main script').length]"), [0, 0])
        self.browser.width(360)
        self.assertEqual(self.browser.script("return document.documentElement.scrollWidth"), 360)

    #: Pages and drawings that were uploaded are shown as text, pictures as pictures.
    def test_uploaded_page_is_shown_as_text(self):
        self.start_with_consent()
        page, picture = self.folder / "page.html", self.folder / "dot.png"
        page.write_text("<script>window.hacked = 3</script><h1>Gotcha</h1>")
        picture.write_bytes(png_dot())
        for path in (page, picture):
            self.device.send_lines([{"event-type": "debug.dump", "oob-url": str(path), "data": {
                "oob-info": {"unique-id": path.name, "bucketname": "norvane-ddump"}}}])
        self.browser.wait_for_text("#object-rows", "page.html")
        self.browser.wait_for_text("#object-rows", "dot.png")
        self.click_row("#object-rows", "page.html")
        self.browser.wait_for_text("#details", "<h1>Gotcha</h1>")
        self.assertEqual(self.browser.script("return window.hacked ?? 0"), 0)
        self.browser.press(ESCAPE)
        self.click_row("#object-rows", "dot.png")
        self.browser.wait("document.querySelector('#details img')?.naturalWidth === 1",
                          "the picture")

    def click_row(self, rows, text):
        self.browser.script("for (const b of document.querySelectorAll(arguments[0] + ' button'))"
                            "if (b.textContent.includes(arguments[1])) b.id = 'wanted'", rows, text)
        self.browser.click("#wanted")
        self.browser.script("document.querySelector('#wanted').id = ''")

    #: On a phone nothing has to be scrolled sideways, in either theme, and everything is readable.
    def test_phone_width_needs_no_scrolling_sideways(self):
        self.send_some()
        self.browser.wait_for_text("#event-rows", "my.hostile")
        self.cloud.misbehave(firehose={"action": "hang"})
        self.browser.wait_for_text("#targets", "now: hang")
        for scheme in ("light", "dark"):
            self.browser.prefers(color_scheme=scheme)
            self.wait_for_theme(scheme)
            for width in (360, 768, 1280):
                self.browser.width(width)
                self.picture(f"{scheme}-{width}")
                self.assert_inside(width)
            self.assert_readable()
        self.assert_named()

    def wait_for_theme(self, name):
        self.browser.wait(f"document.documentElement.dataset.theme === '{name}'", f"theme {name}")

    def assert_inside(self, width):
        """That nothing sticks out of the window or of its card."""
        self.assertEqual([], self.browser.script("""
            const wide = document.documentElement.clientWidth;
            return [...document.querySelectorAll('main *, header *, footer')]
                .filter((e) => e.checkVisibility() && e.getBoundingClientRect().width > 2)
                .filter((e) => { const r = e.getBoundingClientRect();
                                 const card = e.closest('.card')?.getBoundingClientRect();
                                 return r.left < 0 || r.right > (card?.right ?? wide) + 0.5; })
                .filter((e) => getComputedStyle(e.parentElement).overflow !== 'hidden'
                               && !e.closest('td.cut, td.key, .legend bdi'))
                .map((e) => e.outerHTML.slice(0, 100))"""), width)
        self.assertEqual(0, self.browser.script(
            "const e = document.documentElement; return e.scrollWidth - e.clientWidth"), width)

    #: The theme follows the system, and the switch, which is remembered.
    def test_theme_follows_the_system_and_the_switch(self):
        ground = "return getComputedStyle(document.body).backgroundColor"
        light = self.browser.script(ground)
        self.browser.prefers(color_scheme="dark")
        self.wait_for_theme("dark")
        dark = self.browser.script(ground)
        self.assertNotEqual(light, dark)
        self.browser.click("#theme")
        self.assertEqual((self.browser.text("#theme"), self.browser.script(ground)),
                         ("Theme: light", light))
        self.browser.get(self.page)
        self.assertEqual((self.browser.text("#theme"), self.browser.script(ground)),
                         ("Theme: light", light))
        self.browser.click("#theme")
        self.wait_for_theme("dark")
        self.browser.prefers(color_scheme="light")
        self.assertEqual((self.browser.text("#theme"), self.browser.script(ground)),
                         ("Theme: dark", dark))
        self.browser.click("#theme")
        self.assertEqual(self.browser.text("#theme"), "Theme: system")
        self.wait_for_theme("light")

    #: Who asks for less motion gets none.
    def test_less_motion_is_none(self):
        self.browser.prefers(reduced_motion="reduce")
        self.send_some()
        self.browser.wait_for_text("#event-rows", "my.hostile")
        self.assertEqual(self.browser.script("return document.getAnimations().length"), 0)

    #: Who works with keys alone gets everywhere, and sees where.
    def test_keys_lead_everywhere(self):
        self.send_some()
        self.browser.wait_for_text("#event-rows", "my.hostile")
        self.browser.script("document.activeElement.blur()")
        reached, unseen = set(), []
        for _ in range(70):
            self.browser.tell("Input.dispatchKeyEvent", type="keyDown", key="Tab", code="Tab",
                              windowsVirtualKeyCode=9)
            name, outline = self.browser.script(
                "const e = document.activeElement; return [e.id || e.closest('[id]')?.id || '', "
                "getComputedStyle(e).outlineStyle]")
            reached.add(name)
            if outline == "none" and name:
                unseen.append(name)
        self.assertLessEqual({"theme", "hold", "events-only", "chart-by", "config-text", "targets",
                              "event-rows"}, reached)
        self.assertEqual(unseen, [])

    #: A lost connection is said, and mended without a person and without duplicates.
    def test_lost_connection_is_said_and_mended(self):
        self.expected_complaints = ["ERR_CONNECTION_REFUSED", "ERR_INCOMPLETE_CHUNKED_ENCODING",
                                    "ERR_EMPTY_RESPONSE", "ERR_CONNECTION_RESET"]
        self.send_some()
        self.browser.wait_for_text("[data-total=events]", "4")
        self.cloud.stop()
        self.browser.wait_for_text("#lost", "does not answer")
        self.assertEqual(self.browser.text("#connection"), "connection lost")
        self.start_cloud_again()
        self.browser.wait_for_text("#connection", "live")
        self.assertFalse(self.browser.visible("#lost"))
        self.browser.wait_for_text("[data-total=events]", "4")
        self.assertEqual(self.browser.script(
            "return document.querySelectorAll('#event-rows tr').length"), 4)
        self.assert_not_reloaded()

    #: A connection that is cut within one run is taken up without losing or doubling an event.
    def test_cut_connection_is_taken_up_without_duplicates(self):
        self.expected_complaints = ["net::ERR"]
        relay = Relay(int(self.place.rpartition(":")[2]))
        self.addCleanup(relay.cut)
        self.browser.get(f"http://127.0.0.1:{relay.port}/")
        self.browser.script("window.sameDocument = true")
        self.send_some()
        self.browser.wait_for_text("[data-total=events]", "4")
        relay.cut()
        self.browser.wait_for_text("#connection", "connection lost")
        for channel in (7, 8):
            self.device.send("usage.epg", {"channel": channel, "text": "x" * 100})
        self.wait_for_events(6)
        relay.mend()
        self.browser.wait_for_text("#connection", "live")
        self.browser.wait_for_text("[data-total=events]", "6")
        rows = self.browser.script("return [...document.querySelectorAll('#event-rows code')]"
                                   ".map((e) => e.textContent)")
        self.assertEqual((len(rows), len(set(rows))), (6, 6))
        self.assert_not_reloaded()

    #: Thousands of events are counted, while the lists stay short and messages rare.
    def test_thousands_of_events_keep_the_page_quick(self):
        self.start_with_consent()
        began = time.monotonic()
        self.browser.script("window.turns = 0; new MutationObserver(() => window.turns++).observe("
                            "document.querySelector('[data-total=events]'), {childList: true})")
        self.device.send_lines([{"event-type": "usage.epg", "data": {"channel": n}}
                                for n in range(5000)])
        # In such a flood the small store drops the oldest: how many arrive is not ours to say.
        wait_until(lambda: len(self.device.stored_events()) < 50
                   and self.shown_total() == len(self.cloud.events()) > 2000, "the events")
        turns = self.browser.script("return window.turns")
        self.assertLessEqual(turns, 4 * (time.monotonic() - began) + 1)
        self.assertLessEqual(self.browser.script(
            "return document.querySelectorAll('#event-rows tr').length"), 150)
        quick = self.browser.script("const t = performance.now(); document.body.offsetWidth; "
                                    "document.querySelector('#chart-by').dispatchEvent("
                                    "new Event('change')); return performance.now() - t")
        self.assertLess(quick, 200)


    def shown_total(self):
        return int(self.browser.text("[data-total=events]").replace(",", ""))


class DoingTest(BrowserTest):
    #: A misbehaviour set by a click is obeyed by the next request, and taken back by a click.
    def test_misbehaviour_set_by_click_is_obeyed_and_taken_back(self):
        self.start_with_consent()
        self.browser.choose("[data-target=firehose] .choice select", "refuse")
        self.browser.click("[data-target=firehose] button[aria-label$=': misbehave']")
        self.browser.wait_for_text("[data-target=firehose]", "now: refuse")
        self.browser.wait_for_text("#misbehave-said", "stream: refuse, from the next request on.")
        self.device.send("usage.epg", {"text": "x" * 100})
        wait_until(lambda: self.cloud.requests("firehose", "misbehaved: refuse"), "the refusal")
        self.browser.wait_for_text("#request-rows", "misbehaved: refuse")
        self.assertEqual(self.cloud.events(), [])
        self.browser.click("[data-target=firehose] button[aria-label$=': behave again']")
        self.browser.wait_for_text("[data-target=firehose]", "behaves")
        self.restart(2, 1)  # no failure of this run forbids sending
        self.wait_for_events(1, "usage.epg")
        self.browser.wait_for_text("#event-rows", "usage.epg")
        self.assert_not_reloaded()

    #: Options and counts are told as chosen; what is left of a count is shown as it goes.
    def test_options_and_count_are_told(self):
        self.browser.click("[data-target=geo] button[aria-expanded]")
        self.browser.choose("[data-target=geo] .choice select", "server-error")
        self.browser.choose("[data-target=geo] .options select", "2")
        self.browser.fill("[data-target=geo] [data-option=status]", "502")
        self.browser.click("[data-target=geo] button[aria-label$=': misbehave']")
        self.browser.wait_for_text("[data-target=geo]", "now: server-error, status 502, 2 times")
        self.assertEqual(self.told()["misbehave"],
                         {"geo": [{"action": "server-error", "count": 2, "status": 502}]})
        self.assertEqual(self.ask("GET", "/json")[0], 502)
        self.browser.wait_for_text("[data-target=geo]", "status 502, once")
        self.assertEqual(self.ask("GET", "/json")[0], 502)
        self.browser.wait_for_text("[data-target=geo]", "behaves")
        self.assertEqual(self.ask("GET", "/json")[0], 200)

    #: A mistake in an option is said in words, and changes nothing.
    def test_mistake_in_an_option_is_said(self):
        self.expected_complaints = ["status of 400"]
        self.browser.click("[data-target=geo] button[aria-expanded]")
        self.browser.fill("[data-target=geo] [data-option=status]", "5")
        self.browser.click("[data-target=geo] button[aria-label$=': misbehave']")
        self.browser.wait_for_text("#misbehave-said", "status is not 100 ... 999")
        self.assertEqual(self.told()["misbehave"], {})

    #: An edited configuration is given out at the next refresh, and the page says when it was.
    def test_edited_configuration_is_given_out(self):
        self.start_with_consent()
        self.browser.wait_for_text("#set-rows", "has the configuration")
        document = json.loads(self.browser.script(
            "return document.querySelector('#config-text').value"))
        document["version"] = "edited by hand"
        self.browser.fill("#config-text", json.dumps(document, indent=1))
        self.browser.click("#config-give")
        self.browser.wait_for_text("#config-said", "Taken over")
        self.browser.wait_for_text("#set-rows", "configuration edited, not given out yet")
        self.device.stop()
        self.device.write_config(age_s=3600)  # expired: asks at once
        self.restart(2, 1)
        wait_until(lambda: self.device.config().get("version") == "edited by hand", "the document")
        self.browser.wait_for_text("#set-rows", "has the configuration")
        self.assert_not_reloaded()

    #: A broken text is refused with words and its place, and changes nothing.
    def test_broken_configuration_is_refused_with_words(self):
        self.expected_complaints = ["status of 400"]
        before = self.told()
        self.browser.fill("#config-text", '{\n  "version": "3",\n}')
        self.browser.click("#config-give")
        self.browser.wait_for_text("#config-said", "Refused, nothing has changed. Line 2, column 17: "
                                                   "no comma may stand before a closing bracket.")
        self.assertEqual(self.browser.script(
            "const t = document.querySelector('#config-text'); return [t.ariaInvalid, "
            "document.activeElement === t, t.selectionStart]"), ["true", True, 18])
        self.assertEqual(self.told(), before)
        self.picture("refused")
        self.browser.click("#config-reset")
        self.assertIn('"kiv_tou": true',
                      self.browser.script("return document.querySelector('#config-text').value"))

    #: A filter is tried by a click; what it would keep is shown, or that no program for it is here.
    def test_filter_is_tried_by_a_click(self):
        if not os.access(FILTER_PROGRAM, os.X_OK):
            self.assertIn("No filter can be tried here.", self.browser.text("#filter-missing"))
            self.assertFalse(self.browser.visible("#filter-try"))
            return
        self.send_some()
        self.browser.wait_for_text("[data-total=events]", "4")
        self.browser.fill("#filter-text", '{"include": [{"data": {"channel": {"$>=": 1}}}]}')
        self.browser.click("#filter-try")
        self.browser.wait_for_text("#filter-said", "Keeps 2 of the newest 4 events.")
        self.assertIn("rule 1 of include matches", self.browser.text("#filter-events"))
        self.picture("filter")


class Relay:
    """A port that leads to another one of this machine, and can be cut."""

    def __init__(self, to_port):
        self._to_port = to_port
        self._listener = None
        self._open = []
        self.port = 0
        self.mend()

    def mend(self):
        self._listener = socket.create_server(("127.0.0.1", self.port))
        self.port = self._listener.getsockname()[1]
        threading.Thread(target=self._accept, args=(self._listener,), daemon=True).start()

    def cut(self):
        self._listener.shutdown(socket.SHUT_RDWR)
        self._listener.close()
        for end in self._open:
            with contextlib.suppress(OSError):
                end.shutdown(socket.SHUT_RDWR)
            end.close()
        self._open.clear()

    def _accept(self, listener):
        with contextlib.suppress(OSError):
            while True:
                near = listener.accept()[0]
                far = socket.create_connection(("127.0.0.1", self._to_port))
                self._open += [near, far]
                for ends in ((near, far), (far, near)):
                    threading.Thread(target=self._pump, args=ends, daemon=True).start()

    @staticmethod
    def _pump(source, target):
        with contextlib.suppress(OSError):
            while data := source.recv(65536):
                target.sendall(data)
            target.shutdown(socket.SHUT_WR)


def png_dot():
    """A picture of one black dot."""
    def chunk(kind, data):
        return (struct.pack(">I", len(data)) + kind + data
                + struct.pack(">I", zlib.crc32(kind + data)))
    return (b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", struct.pack(">IIBBBBB", 1, 1, 8, 0, 0, 0, 0))
            + chunk(b"IDAT", zlib.compress(b"\0\0")) + chunk(b"IEND", b""))


if __name__ == "__main__":
    program = unittest.main(exit=False)
    if not program.result.wasSuccessful():
        sys.exit(1)
    if browser.missing():
        print(f"SKIPPED: no {browser.missing()} here, so nothing was tried in a browser; "
              f"apt-get install chromium chromium-driver")
        sys.exit(SKIPPED)
