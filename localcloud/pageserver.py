"""The page of the local cloud: GET / on the plain HTTP port, and what it asks for.

    GET  /                     the page; its style and scripts below /page/
    GET  /page/stream          what arrives, as server-sent events
    GET  /page/state           what can be told, and what is told
    GET  /page/event?change=N, /page/record?number=N, /page/request?number=N
                               one of them whole
    GET  /page/object?bucket=B&key=K[&as=text|image|file]
                               an object, never as something that a browser would run
    GET  /page/config?device=D the configuration of a set ("*": of all) as text
    POST /page/misbehave, /page/config, /page/filter
                               what a person does there (docs/local-cloud.md)

Nothing here is for other pages: no cross-origin headers, and a request that changes something must
be JSON and come from the page itself.
"""

import ipaddress
import json
import os
import threading
import time
import urllib.parse

import configtext
import filterprogram
from actions import ACTIONS, TARGETS, ControlError, Number
from answer import Answer, json_answer
from configtext import TextError
from journal import now_ms
from scenario import merged

FILES = {
    "/": ("index.html", "text/html; charset=utf-8"),
    "/page/style.css": ("style.css", "text/css; charset=utf-8"),
    "/page/icon.svg": ("icon.svg", "image/svg+xml"),
    **{"/page/%s.js" % name: (name + ".js", "text/javascript; charset=utf-8")
       for name in ("app", "chart", "dom", "lists", "panels", "theme")},
}
HERE = os.path.join(os.path.dirname(os.path.abspath(__file__)), "page")
POLICY = ("default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; "
          "connect-src 'self'; base-uri 'none'; form-action 'none'; frame-ancestors 'none'")
UPLOADED = "default-src 'none'; sandbox"  # for what came from outside
PREVIEW = 64 * 1024  # bytes
MOST_STREAMS = 16
FASTEST = 0.25  # seconds between two messages
BEAT = 4  # seconds without a message, after which one says that the connection lives
MOST_TRIED = 4000  # events that a filter is tried on
NEWEST_SHOWN = 300  # of their verdicts
IMAGES = {b"\x89PNG\r\n\x1a\n": "image/png", b"\xff\xd8\xff": "image/jpeg",
          b"GIF87a": "image/gif", b"GIF89a": "image/gif"}


class Forbidden(Exception):
    """A request that is not the page's own; the text says why."""


def check_caller(request, hosts, client, everybody):
    """That a request for page or control comes from this machine (unless `everybody` may ask), by
    a name that no web page elsewhere can have given us, and not from such a page."""
    if not everybody and not ipaddress.ip_address(client).is_loopback:
        raise Forbidden("page and control answer this machine only (--open-page)")
    host = request.header("host")
    if host is not None and not _is_own_host(host, hosts):
        raise Forbidden('the name "%s" is not this machine\'s' % host[:100])
    origin = request.header("origin")
    if origin is not None and origin != "http://%s" % host:
        raise Forbidden("asked by another web page")
    followed = (request.method, request.path) == ("GET", "/")  # a link to the page: harms nobody
    if (request.header("sec-fetch-site") or "none") not in ("same-origin", "none") and not followed:
        raise Forbidden("asked by another web page")


def _is_own_host(host, hosts):
    """An address, or a name of ours: another name may be a web page's that points here."""
    name = urllib.parse.urlsplit("//" + host).hostname or ""
    try:
        ipaddress.ip_address(name)
        return True
    except ValueError:
        return name in hosts


class PageServer:
    def __init__(self, cloud, journal, filter_program=None):
        self._cloud = cloud
        self._journal = journal
        self._filter_program = filter_program
        self._streams = threading.BoundedSemaphore(MOST_STREAMS)

    @staticmethod
    def takes(path):
        return path == "/" or path == "/page" or path.startswith("/page/")

    def answer(self, request):
        """The answer to all but /page/stream."""
        query = dict(urllib.parse.parse_qsl(request.target.partition("?")[2]))
        try:
            if request.method in ("GET", "HEAD"):
                answer = self._got(request.path, query)
            elif request.method == "POST":
                answer = self._posted(request)
            else:
                answer = json_answer({"error": "GET or POST"}, 405)
        except TextError as error:
            answer = json_answer(error.document(), 400)
        except KeyError as error:
            answer = json_answer({"error": "missing: %s" % error.args[0]}, 400)
        except (ControlError, ValueError, RecursionError) as error:
            answer = json_answer({"error": str(error)}, 400)
        return guarded(answer)

    def _got(self, path, query):
        if path in FILES:
            return _file(*FILES[path])
        if path == "/page/state":
            return json_answer(self._state())
        if path == "/page/config":
            return json_answer(self._config(query.get("device", "*")))
        if path == "/page/object":
            return self._object(query)
        find = {"/page/event": lambda: self._journal.event(int(query["change"])),
                "/page/request": lambda: self._journal.request(int(query["number"])),
                "/page/record": lambda: self._record(int(query["number"]))}.get(path)
        found = find() if find else None
        if found is None:
            return json_answer({"error": "Not in memory: only the newest are"}, 404)
        return json_answer(found)

    def _posted(self, request):
        kind = (request.header("content-type") or "").partition(";")[0].strip().lower()
        if kind != "application/json":
            return json_answer({"error": "JSON only (Content-Type: application/json)"}, 415)
        document = configtext.parsed_object(request.body.decode(), "the request")
        does = {"/page/misbehave": self._misbehave, "/page/config": self._configure,
                "/page/filter": self._try_filter}.get(request.path)
        if does is None:
            return json_answer({"error": "Not found"}, 404)
        return json_answer(does(document))

    # --- what is told ---

    def _state(self):
        actions = {name: {"targets": list(targets),
                          "options": {option: _described(possible)
                                      for option, possible in options.items()}}
                   for name, (targets, options) in ACTIONS.items()}
        return {**self._told(), "targets": list(TARGETS), "actions": actions,
                "filter-program": filterprogram.missing(self._filter_program),
                "stream": self._cloud.gateway.endpoint}

    def _told(self):
        state = self._cloud.scenario.state()
        return {"misbehave": state["misbehave"], "config": state["config"],
                "ports": self._cloud.ports}

    def _misbehave(self, document):
        """{"target": T, "told": an action, an array of them, or null: behave again}"""
        target = _member(document, "target")
        told = document.get("told", "nothing")
        self._cloud.scenario.apply({"misbehave": {target: told}})
        return self._told()

    # --- configuration ---

    def _base(self, device):
        """What a set is given but for what is told for it, without the credentials, which are
        made anew for each answer."""
        cloud = self._cloud
        base = cloud.gateway.config_document(cloud.services.environments["prod"])
        del base["credentials"]
        told = cloud.scenario.state()["config"]
        return (base if device == "*" else merged(base, told.get("*", {}))), told.get(device, {})

    def _config(self, device):
        base, told = self._base(device)
        document = merged(base, told)
        return {"device": device, "text": json.dumps(document, indent=2, ensure_ascii=False),
                "told": told, "concerns": configtext.concerns(document)}

    def _configure(self, document):
        """{"device": D, "text": the document as it shall be, or null: as if never edited}"""
        device = _member(document, "device")
        if document.get("text", "") is None:
            self._cloud.scenario.apply({"config": {device: None}})
            return self._config(device)
        wanted = configtext.parsed_object(_member(document, "text"), "the configuration")
        base, told = self._base(device)
        patch = configtext.patch_between(base, wanted)
        if "credentials" in told and told["credentials"] is None and "credentials" not in wanted:
            patch["credentials"] = None
        self._cloud.scenario.apply({"config": {device: patch or None}})
        return self._config(device)

    # --- filter ---

    def _try_filter(self, document):
        """{"text": a filter}: which of the events in memory it would keep."""
        wanted = configtext.parsed_object(_member(document, "text"), "the filter")
        events = self._journal.newest_events(MOST_TRIED)
        posted = [filterprogram.as_posted(event) for _, _, event in events]
        verdicts, lines = filterprogram.judge(self._filter_program, wanted, posted)
        by_type = {}
        rows = []
        for (change, _, event), sent, verdict in zip(events, posted, verdicts):
            name = str(event.get("event-type", "(no type)"))[:80]
            counts = by_type.setdefault(name, [0, 0])
            counts[0 if verdict.get("kept") else 1] += 1
            rows.append({"change": change, "type": name, "kept": verdict.get("kept", False),
                         "why": verdict.get("why") or verdict.get("error", ""),
                         "posted": sent[:400]})
        return {"tried": len(rows), "kept": sum(row["kept"] for row in rows),
                "types": dict(sorted(by_type.items(), key=lambda item: -sum(item[1]))[:40]),
                "events": rows[-NEWEST_SHOWN:][::-1], "lines": lines,
                "concerns": configtext.filter_concerns(wanted)}

    # --- records and objects ---

    def _record(self, number):
        found = self._journal.record(number)
        if found is None:
            return None
        row, data = found
        text = None if data is None else data.decode(errors="replace")
        return {**row, "text": text}

    def _object(self, query):
        found = self._cloud.store.get_object(query["bucket"], query["key"])
        if found is None:
            return json_answer({"error": "No such object"}, 404)
        entry, data = found
        shown = query.get("as", "")
        image = next((kind for magic, kind in IMAGES.items() if data.startswith(magic)), None)
        if shown == "image" and image:
            return Answer(200, data, image, headers=[("Content-Security-Policy", UPLOADED)])
        if shown == "file":
            return Answer(200, data, "application/octet-stream", headers=[
                ("Content-Security-Policy", UPLOADED),
                ("Content-Disposition", 'attachment; filename="object.bin"')])
        return json_answer({**{name: entry.get(name) for name in
                               ("bucket", "key", "bytes", "content-type", "md5", "time", "file")},
                            "image": bool(image), **_text_preview(data)})

    # --- the stream ---

    def stream(self, request, write):
        """Writes messages until `write` says that the client has gone. False: too many already."""
        if not self._streams.acquire(blocking=False):
            return False
        try:
            self._stream(self._known(request), write)
        finally:
            self._streams.release()
        return True

    def _known(self, request):
        """The last change that the page knows; 0 for another run of the cloud."""
        run, _, change = (request.header("last-event-id") or "").partition("-")
        return int(change) if run == self._journal.run and change.isdigit() else 0

    def _stream(self, known, write):
        told, seen, beaten = None, -1, 0
        head = ("HTTP/1.1 200 OK\r\nContent-Type: text/event-stream\r\nCache-Control: no-store\r\n"
                "X-Content-Type-Options: nosniff\r\nConnection: close\r\n\r\nretry: 1000\n\n")
        if not write(head.encode()):
            return
        while True:
            now_told = self._told()
            if self._journal.change() != seen or now_told != told:
                message = self._journal.since(known)
                if now_told != told:
                    message["told"], told = now_told, now_told
                message["current"] = {row["device"]: row["current"]
                                      for row in self._journal.sets()}
                known = seen = message["change"]
                text = "id: %s-%d\ndata: %s\n\n" % (message["run"], known, json.dumps(message))
            elif time.monotonic() - beaten > BEAT:
                text = "event: beat\ndata: %d\n\n" % now_ms()
            else:
                time.sleep(FASTEST)
                continue
            beaten = time.monotonic()
            if not write(text.encode()):
                return
            time.sleep(FASTEST)


def guarded(answer):
    """With the headers that every answer of the page has."""
    named = {name for name, _ in answer.headers}
    more = [("X-Content-Type-Options", "nosniff"), ("Cache-Control", "no-store"),
            ("Referrer-Policy", "no-referrer"), ("Cross-Origin-Resource-Policy", "same-origin"),
            ("Cross-Origin-Opener-Policy", "same-origin"), ("Content-Security-Policy", POLICY)]
    answer.headers += [header for header in more if header[0] not in named]
    return answer


def _member(document, name):
    if not isinstance(document.get(name), str):
        raise TextError('"%s" is missing, or is not a text' % name)
    return document[name]


def _file(name, kind):
    with open(os.path.join(HERE, name), "rb") as file:
        return Answer(200, file.read(), kind)


def _described(possible):
    """An option of an action, for a form."""
    if isinstance(possible, Number):
        return {"kind": "number", "low": possible.low, "high": possible.high,
                "whole": possible.kinds == (int,)}
    if isinstance(possible, tuple) and isinstance(possible[0], str):
        return {"kind": "choice", "choices": list(possible)}
    return {"kind": "yes" if possible is bool else "text"}


def _text_preview(data):
    """{"text": the beginning, "more": whether there is more}; text null for what is none."""
    head = data[:PREVIEW]
    try:
        text = head.decode()
    except UnicodeDecodeError as error:
        cut = len(data) > PREVIEW and error.start >= len(head) - 3
        text = head[: error.start].decode() if cut else None
    if text is not None and "\0" in text:
        text = None
    if text is None:
        return {"text": None, "hex": head[:256].hex(" "), "more": len(data) > 256}
    return {"text": text, "more": len(data) > PREVIEW}
