"""What became of every event of an experiment.

Each posted event carries an id of its own in its data. It must be delivered once, or lie in the
range of an overflow record, or be refused with its line; a copy counts as repeated, not as sent
twice, only where the answer to an accepted record was lost. The ledger knows what was posted, what
other processes have seen committed in the store or gone from it, and what the stream accepted.
"""
import json
import re
import threading
import time

KEY = "trial-id"
STORED_ID = re.compile(r'"%s": "([^"]+)"' % KEY)
RANGE = tuple(f"{end}-{part}" for end in ("lowest", "highest")
              for part in ("boot-count", "standby-count", "kernel-time"))


def ids_of(texts):
    """The ids in stored events."""
    found = (STORED_ID.search(text) for text in texts)
    return {match.group(1) for match in found if match}


def range_of(overflow):
    """((boot, standby, kernel time) of the first, of the last) that an overflow event names."""
    values = [overflow[name] for name in RANGE]
    return tuple(values[:3]), tuple(values[3:])


def names_a_range(members):
    """Whether an event with these members names one: anybody may post one that does not."""
    return isinstance(members, dict) and all(type(members.get(name)) is int for name in RANGE)


class Ledger:
    """Of one store and one stream, over any number of restarts. Threads may share it."""

    def __init__(self, name):
        self.name = name
        self._lock = threading.Lock()
        self.posted = {}  # id: moment (boot count, standby count, kernel time), None if not posted
        self.committed = {}  # id: when it was first seen in the store
        self.deleted = set()  # ids seen in the store, and later seen to have left it
        self.accepted = {}  # id: numbers of the records that hold it
        self.overflows = []  # ranges that overflow records name
        self.refused = set()
        self.allowed = {}  # id: how many records may hold it, where that is not one
        self.repeated = set()  # ids that came again, and were allowed to
        self.told = set()  # what was reported before: each loss and each copy is told once
        self._records_read = 0

    # --- posting ---

    def event(self, event_type, cycle, **data):
        """(id, message) of a new event."""
        with self._lock:
            name = f"{self.name}.{len(self.posted)}"
            moment = time.clock_gettime_ns(time.CLOCK_MONOTONIC) // 1000000
            self.posted[name] = (*cycle, moment)
        message = json.dumps({"event-type": event_type, "kernel-time": moment,
                              "data": {KEY: name, **data}}).encode()
        return name, message

    def forget(self, name):
        """This one was never posted after all."""
        with self._lock:
            self.posted[name] = None

    def refuse(self, name):
        """The daemon has said in its line that it does not take this event."""
        with self._lock:
            self.refused.add(name)

    # --- what is seen ---

    def see_store(self, ids):
        """What a committed state of the store holds now."""
        now = time.monotonic()
        with self._lock:
            for name in ids:
                self.committed.setdefault(name, now)
            self.deleted |= self.committed.keys() - ids

    def see_overflows(self, texts):
        """Takes over the ranges that overflow events name which are still in the store."""
        for text in texts:
            data = json.loads(text)["data"] if '"logging.overflow"' in text else None
            if names_a_range(data):
                with self._lock:
                    self.overflows.append(range_of(data))

    def read_cloud(self, cloud, stream):
        """Takes over the records that came since the last call."""
        folder = cloud.state / "records" / stream
        index = folder / "index.jsonl"
        lines = index.read_text().split("\n")[:-1] if index.exists() else []
        for line in lines[self._records_read:]:
            entry = json.loads(line)
            self._take_record(entry["number"], (folder / entry["file"]).read_text())
        self._records_read = len(lines)

    def _take_record(self, number, text):
        for block in map(json.loads, text.rstrip("\n").split("\n")):
            for event in block["events"]:
                with self._lock:
                    if KEY in event:
                        self.accepted.setdefault(event[KEY], []).append(number)
                    elif event["event-type"] == "logging.overflow" and names_a_range(event):
                        self.overflows.append(range_of(event))

    def answer_was_lost(self):
        """The daemon ended: of what was accepted and not seen to be deleted it knows nothing, and
        one more copy is excused. Returns these ids."""
        with self._lock:
            excused = self.accepted.keys() - self.deleted
            for name in excused:
                self.allowed[name] = len(self.accepted[name]) + 1
        return excused

    def contents(self):
        """For a file, when something is missing: {id: what is known of it}."""
        with self._lock:
            return {name: {"posted": moment, "seen stored": name in self.committed,
                           "seen deleted": name in self.deleted,
                           "records": self.accepted.get(name, [])}
                    for name, moment in self.posted.items()}

    # --- the verdict ---

    def is_named(self, name):
        """Whether an overflow record names the range that this event is in."""
        moment = self.posted.get(name)
        return moment is not None and any(low <= moment <= high for low, high in self.overflows)

    def lost(self, stored):
        """Seen committed, and now neither stored nor sent nor named."""
        return self._untold({name for name in self.committed
                             if name not in stored and name not in self.accepted
                             and not self.is_named(name)})

    def unaccounted(self, stored=()):
        """Posted at all, and now neither stored nor sent nor named nor refused."""
        return {name for name, moment in list(self.posted.items())
                if moment and name not in stored and name not in self.accepted
                and name not in self.refused and not self.is_named(name)}

    def came_back(self, stored):
        """Seen to be deleted, and in the store again."""
        return self._untold(self.deleted & stored, "back ")

    def sent_twice(self):
        """In two accepted records, although the daemon could know."""
        copies = {name: len(records) for name, records in self.accepted.items() if len(records) > 1}
        self.repeated |= copies.keys() & self.allowed.keys()
        return self._untold({name for name, count in copies.items()
                             if count > self.allowed.get(name, 1)}, "twice ")

    def _untold(self, names, kind=""):
        new = {name for name in names if kind + name not in self.told}
        self.told |= {kind + name for name in new}
        return new
