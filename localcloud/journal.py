"""What arrived, as the page shows it: the newest of everything, in memory, with bounds.

Requests come from the request log, records and objects from the store's front below. Events are
decoded on a thread of the journal's own, after the answer: no client waits for that. Each change
has a number; a reader asks for what changed after the last number that it knows.
"""

import calendar
import collections
import json
import os
import re
import threading
import time
import urllib.parse
import uuid

from seensets import SeenSets
from timeline import Timeline

MOST_EVENTS = 4000
MOST_RECORDS = 200
MOST_OBJECTS = 200
MOST_REQUESTS = 400
MOST_BYTES = 16 * 1024 * 1024  # of records kept to look at
MOST_WAITING = 400  # records that wait to be decoded
RESTORED_RECORDS = 50  # of an earlier run
AT_ONCE = 200  # newest events (requests, ...) in one message
WINDOW = 3600  # seconds that can be drawn
PREVIEW = 300  # characters of an event
LONGEST_TEXT = 200  # characters of a path, a type, an identifier
TIME = re.compile(r"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d)\.\d{3}Z")


def now_ms():
    return int(time.time() * 1000)


def utc_seconds(text):
    """Whole seconds since 1970 of a time as records show it; None for any other text."""
    match = TIME.fullmatch(text) if isinstance(text, str) else None
    try:
        return calendar.timegm(time.strptime(match[1], "%Y-%m-%dT%H:%M:%S")) if match else None
    except ValueError:
        return None


def short(value, length=LONGEST_TEXT):
    text = "" if value is None else str(value)
    return text if len(text) <= length else text[:length] + "…"


class WatchedStore:
    """The store for the services: hands on, and lets the journal know."""

    def __init__(self, store, journal):
        self._store = store
        self._journal = journal

    def add_record(self, stream, data):
        record_id = self._store.add_record(stream, data)
        self._journal.record_kept(stream, data)
        return record_id

    def put_object(self, bucket, key, data, content_type):
        self._store.put_object(bucket, key, data, content_type)
        self._journal.object_kept(bucket, key, len(data), content_type)

    def get_object(self, bucket, key):
        return self._store.get_object(bucket, key)


class Journal:
    def __init__(self, state, told_config):
        """`told_config(device)` says what a set's configuration is told to be now."""
        self.run = uuid.uuid4().hex[:8]
        self.started = now_ms()
        self._state = state
        self._kept = threading.local()  # by the request of this thread, not logged yet
        self._changed = threading.Condition()  # guards all below
        self._change = 0
        self._totals = dict.fromkeys(("events", "records", "objects", "requests", "refused"), 0)
        self._events = collections.deque(maxlen=MOST_EVENTS)  # (change, record, header, event)
        self._records = collections.OrderedDict()  # number: row
        self._objects = collections.OrderedDict()  # (bucket, key): row
        self._requests = collections.OrderedDict()  # number: row
        self._sets = SeenSets(told_config)
        self._arrived = Timeline(WINDOW)
        self._happened = Timeline(WINDOW)
        self._waiting = collections.deque()  # rows of records to decode
        self._bytes = 0
        self._restore()
        threading.Thread(target=self._decode_all, daemon=True).start()

    def _next(self):
        self._change += 1
        self._changed.notify_all()
        return self._change

    # --- from the store ---

    def record_kept(self, stream, data):
        self._kept.record = (stream, data)

    def object_kept(self, bucket, key, size, content_type):
        self._kept.object = (bucket, key, size, content_type)

    def _take_kept(self, name):
        kept = getattr(self._kept, name, None)
        setattr(self._kept, name, None)
        return kept

    # --- from the request log ---

    def arrived(self, entry):
        """A request as requests.jsonl has it, on the thread that answers it."""
        record, stored = self._take_kept("record"), self._take_kept("object")
        with self._changed:
            change = self._next()
            row = {"change": change, "entry": entry, "duration": None, "bytes-out": None}
            self._requests[entry["number"]] = row
            _bound(self._requests, MOST_REQUESTS)
            self._totals["requests"] += 1
            self._totals["refused"] += entry["verdict"].startswith(("refused", "handshake"))
            self._sets.asked(entry, now_ms(), change)
            if entry["target"] == "firehose":
                self._add_record(entry["number"], record, entry["verdict"], now_ms())
            if stored or entry["target"] == "s3" and entry["method"] == "PUT":
                self._add_object(entry, stored)

    def ended(self, summary):
        with self._changed:
            row = self._requests.get(summary["number"])
            if row:
                row.update({"change": self._next(), "duration": summary["duration"],
                            "bytes-out": summary["bytes-out"]})

    def _add_record(self, number, record, verdict, arrived):
        stream, data = record or (None, None)
        row = {"change": self._change, "number": number, "stream": stream, "arrived": arrived,
               "bytes": None if data is None else len(data), "kept": data is not None,
               "verdict": verdict, "events": None, "device": None, "data": data, "note": ""}
        self._records[number] = row
        for old in _bound(self._records, MOST_RECORDS):
            self._forget_data(old)
        if data is None:
            return
        self._totals["records"] += 1
        self._bytes += len(data)
        for old in self._records.values():
            if self._bytes <= MOST_BYTES:
                break
            if old is not row and old["events"] is not None:
                self._forget_data(old)
        if len(self._waiting) < MOST_WAITING:
            self._waiting.append(row)
        else:
            row["note"] = "too many records at once: not decoded"

    def _forget_data(self, row):
        if row["data"] is not None:
            self._bytes -= len(row["data"])
            row["data"] = None

    def _add_object(self, entry, stored):
        place = urllib.parse.unquote(entry["path"])[1:].partition("/")
        bucket, key, size, kind = stored or (place[0], place[2], entry["bytes"], "")
        if stored or (bucket, key) not in self._objects:
            self._objects.pop((bucket, key), None)
            self._objects[bucket, key] = {
                "change": self._change, "bucket": bucket, "key": key, "bytes": size,
                "content-type": kind, "arrived": now_ms(), "kept": stored is not None,
                "verdict": entry["verdict"], "number": entry["number"]}
        _bound(self._objects, MOST_OBJECTS)
        self._totals["objects"] += stored is not None

    # --- decoding ---

    def _decode_all(self):
        while True:
            with self._changed:
                self._changed.wait_for(lambda: self._waiting)
                row = self._waiting.popleft()
                data = row["data"]
            if data is None:
                continue
            blocks, note = decoded(data)
            with self._changed:
                self._add_events(row, blocks, note)

    def _add_events(self, row, blocks, note):
        change = self._next()
        count = sum(len(events) for _, events in blocks)
        row.update({"change": change, "events": count, "note": note,
                    "device": blocks[0][0].get("deviceid") if blocks else None})
        second = row["arrived"] // 1000
        for header, events in blocks:
            self._sets.sent(header, len(events), row, change)
            for event in events:
                self._change += 1
                self._events.append((self._change, row, header, event))
                event_type = event.get("event-type", "(no type)")
                self._arrived.add(second, event_type, self._change)
                happened = utc_seconds(event.get("time"))
                if happened is not None:
                    self._happened.add(happened, event_type, self._change)
        self._totals["events"] += count

    # --- of an earlier run ---

    def _restore(self):
        """The newest records and the objects that the state directory has from before."""
        found = []
        root = os.path.join(self._state, "records")
        for folder in sorted(os.listdir(root)) if os.path.isdir(root) else []:
            within = os.path.join(root, folder)
            for name in os.listdir(within) if os.path.isdir(within) else []:
                if re.fullmatch(r"\d+\.json", name):
                    path = os.path.join(within, name)
                    found.append((os.path.getmtime(path), urllib.parse.unquote(folder), path))
        for place, (modified, stream, path) in enumerate(sorted(found)[-RESTORED_RECORDS:]):
            with open(path, "rb") as file:
                record = (stream, file.read())
            self._change += 1
            self._add_record(place - RESTORED_RECORDS, record, "accepted by an earlier run",
                             int(modified * 1000))
        self._totals["records"] = len(found)
        for entry in self._restored_objects():
            self._change += 1
            self._objects[entry["bucket"], entry["key"]] = {
                "change": self._change, "bucket": entry["bucket"], "key": entry["key"],
                "bytes": entry["bytes"], "content-type": entry["content-type"],
                "arrived": (utc_seconds(entry["time"]) or 0) * 1000, "kept": True,
                "verdict": "accepted by an earlier run", "number": None}
            self._totals["objects"] += 1
        _bound(self._objects, MOST_OBJECTS)

    def _restored_objects(self):
        try:
            with open(os.path.join(self._state, "objects", "index.jsonl"), "rb") as file:
                return [json.loads(line) for line in file if line.endswith(b"\n")]
        except FileNotFoundError:
            return []

    # --- for the page ---

    def change(self):
        """The number of the latest change."""
        with self._changed:
            return self._change

    def since(self, change):
        """Everything after a change, as a message of the page's stream; 0: all there is."""
        with self._changed:
            first = int(time.time()) - WINDOW
            events = [item for item in _newest(self._events, change)]
            return {
                "run": self.run, "change": self._change, "all": change == 0, "now": now_ms(),
                "started": self.started, "totals": dict(self._totals),
                "types": dict(self._arrived.totals),
                "arrived": self._arrived.since(change, first),
                "happened": self._happened.since(change, first),
                "events": [_event_row(item) for item in events[-AT_ONCE:]],
                "records": [_record_row(row) for row in _changed(self._records, change)],
                "objects": [_object_row(row) for row in _changed(self._objects, change)],
                "requests": [_request_row(row) for row in _changed(self._requests, change)],
                "sets": self._sets.since(change),
            }

    def event(self, change):
        """One event whole, with its session header; None when it is not in memory."""
        with self._changed:
            for number, row, header, event in self._events:
                if number == change:
                    return {"event": event, "header": header, "record": row["number"],
                            "stream": row["stream"], "arrived": row["arrived"]}
        return None

    def newest_events(self, count):
        with self._changed:
            return [(change, row["arrived"], event)
                    for change, row, _, event in list(self._events)[-count:]]

    def record(self, number):
        """(row without the bytes, bytes or None); None for an unknown record."""
        with self._changed:
            row = self._records.get(number)
            return (_record_row(row), row["data"]) if row else None

    def request(self, number):
        with self._changed:
            row = self._requests.get(number)
            return {**row["entry"], "duration": row["duration"],
                    "bytes-out": row["bytes-out"]} if row else None

    def sets(self):
        with self._changed:
            return self._sets.since(0)


def decoded(data):
    """([(session header, events)], what could not be read) of a record's bytes."""
    blocks, broken = [], 0
    for line in data.splitlines():
        try:
            block = json.loads(line, parse_constant=_no_number, parse_float=_number)
            events = block.pop("events")
            blocks.append((block, [event for event in events if isinstance(event, dict)]))
        except (ValueError, KeyError, TypeError, AttributeError, RecursionError):
            broken += 1
    return blocks, "session blocks that could not be read: %d" % broken if broken else ""


def _no_number(word):
    raise ValueError(word)


def _number(text):
    value = float(text)
    return value if abs(value) != float("inf") else _no_number(text)


def _bound(rows, most):
    """Takes the oldest away, and returns them."""
    return [rows.popitem(last=False)[1] for _ in range(len(rows) - most)]


def _changed(rows, change):
    return [row for row in rows.values() if row["change"] > change][-AT_ONCE:]


def _newest(events, change):
    found = []
    for item in reversed(events):
        if item[0] <= change or len(found) == AT_ONCE:
            break
        found.append(item)
    return found[::-1]


def _event_row(item):
    change, row, header, event = item
    payload = {name: value for name, value in event.items()
               if name not in ("event-type", "eventid", "time", "ts", "utc-src")}
    return {"change": change, "type": short(event.get("event-type", "(no type)"), 80),
            "time": short(event.get("time"), 40), "source": short(event.get("utc-src", ""), 20),
            "device": short(header.get("deviceid", ""), 80), "arrived": row["arrived"],
            "boot": short(header.get("boot-count"), 20),
            "standby": short(header.get("standby-count"), 20), "record": row["number"],
            "preview": _preview(payload)}


def _preview(payload):
    try:
        return short(json.dumps(payload, ensure_ascii=False), PREVIEW)
    except RecursionError:
        return "(nested too deeply to be shown)"


def _record_row(row):
    shown = {name: row[name] for name in ("number", "arrived", "bytes", "kept", "events", "note")}
    return {**shown, "stream": short(row["stream"] or ""), "device": short(row["device"] or ""),
            "verdict": short(row["verdict"])}


def _object_row(row):
    return {name: value for name, value in row.items() if name != "change"}


def _request_row(row):
    entry = row["entry"]
    shown = {name: entry[name] for name in ("number", "time", "status")}
    return {**shown, "target": entry.get("port-of") or entry["target"] or "–",
            "method": short(entry["method"], 20), "path": short(entry["path"]),
            "verdict": short(entry["verdict"]), "duration": row["duration"],
            "bytes-in": entry.get("bytes")}
