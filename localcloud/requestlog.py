"""Every request, from its arrival to the end of its answer.

    requests.jsonl    one line when a request has arrived, before the answer goes out, so that
                      a client that has its answer finds its request
    answers.jsonl     one line when the answer has gone out, or the client has: how long it
                      was held, and how many bytes went either way

Lines are added in one write each; a line counts once its line feed is there.
"""

import datetime
import json
import os
import threading
import time


class RequestLog:
    def __init__(self, state, now):
        """`now` gives the UTC seconds of the local cloud's clock."""
        self._now = now
        self.watcher = None  # is told what arrived and what ended, on the thread that answers
        self._lock = threading.Lock()  # guards what follows
        self._requests = _LineFile(os.path.join(state, "requests.jsonl"))
        self._answers = _LineFile(os.path.join(state, "answers.jsonl"))
        self._first = self._requests.count + 1  # number of the first one of this process
        self._summaries = []  # of this process, in order

    def arrived(self, entry, arrived=None):
        """Adds a request, numbered and with its times; returns what `ended` asks for."""
        arrived = time.monotonic() if arrived is None else arrived
        ago = time.monotonic() - arrived
        with self._lock:
            times = {
                "number": self._requests.count + 1,
                "time": _timestamp(time.time() - ago),
                "cloud-time": _timestamp(self._now() - ago),
                "arrived": round(arrived, 6),
            }
            entry = {**times, **entry}
            self._requests.add(entry)
            summary = dict(times)
            for name in ("target", "method", "path", "status", "verdict"):
                summary[name] = entry[name]
            summary.update({"bytes-in": None, "bytes-out": None, "duration": None})
            self._summaries.append(summary)
        if self.watcher:
            self.watcher.arrived(entry)
        return summary

    def ended(self, summary, bytes_in, bytes_out):
        """The answer has gone out, or the client has."""
        duration = round(time.monotonic() - summary["arrived"], 6)
        with self._lock:
            summary.update({"bytes-in": bytes_in, "bytes-out": bytes_out, "duration": duration})
            self._answers.add(summary)
        if self.watcher:
            self.watcher.ended(summary)

    def count(self):
        with self._lock:
            return self._requests.count

    def since(self, number):
        """Requests of this process with greater numbers, and the number to ask with next time:
        it lies before the first request that has not ended."""
        with self._lock:
            start = max(number + 1 - self._first, 0)
            found = [dict(summary) for summary in self._summaries[start:]]
            last = self._requests.count
        open_ones = [entry["number"] for entry in found if entry["duration"] is None]
        following = min(open_ones) - 1 if open_ones else last
        return {"requests": found, "next": following, "now": round(time.monotonic(), 6)}


class _LineFile:
    """A file of JSON lines that are only added."""

    def __init__(self, path):
        self._file = os.open(path, os.O_RDWR | os.O_CREAT | os.O_APPEND, 0o644)
        with open(path, "rb") as file:
            content = file.read()
        whole = content.rfind(b"\n") + 1
        os.ftruncate(self._file, whole)  # of a process that was killed while it wrote
        self.count = content.count(b"\n")

    def add(self, document):
        os.write(self._file, json.dumps(document).encode() + b"\n")
        self.count += 1


def _timestamp(seconds):
    """Years that have no date are shown as the last one that has."""
    try:
        moment = datetime.datetime.fromtimestamp(seconds, datetime.timezone.utc)
    except (OverflowError, ValueError, OSError):
        moment = datetime.datetime.max if seconds > 0 else datetime.datetime.min
    return "%04d" % moment.year + moment.strftime("-%m-%dT%H:%M:%S.") + (
        "%03dZ" % (moment.microsecond // 1000))
