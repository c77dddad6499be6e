"""What the local cloud has been told: documents, clock, credentials, misbehaviour.

A control document (POST /control, or the file given with --scenario) changes it;
README.md describes the members. A document is checked whole before any of it
counts.
"""

import copy
import json
import threading
import time
from dataclasses import asdict, dataclass

from actions import TARGETS, checked_misbehave, checked_object, require

DEFAULT_STREAMS = ("kiv-eventsrc-stream-test",)
DEFAULT_BUCKETS = ("norvane-ddump",)


@dataclass
class Credentials:
    """The cloud credentials that the configuration hands out and the services know."""

    access_key_id: str = "ASIALOCALCLOUD000001"
    secret_access_key: str = "local/cloud+secret/access/key/0000000001"
    session_token: str = "local-cloud-session-token-0001"  # empty: long-lived credentials
    expired: bool = False


class Scenario:
    def __init__(self):
        self._lock = threading.Lock()  # guards all below
        self._generations = {target: 0 for target in TARGETS}
        self._reset()

    def _reset(self):
        self._misbehaviours = {target: [] for target in TARGETS}
        self._config = {}  # device id or "*": merge patch
        self._patches = {"tou": {}, "geo": {}}
        self._clock_offset = 0
        self._credentials = Credentials()
        self._streams = []
        self._buckets = []
        for target in TARGETS:
            self._generations[target] += 1

    # --- what the services ask ---

    def now(self):
        """UTC seconds of the local cloud's clock."""
        with self._lock:
            return time.time() + self._clock_offset

    def credentials(self):
        with self._lock:
            return copy.copy(self._credentials)

    def config_document(self, document, device):
        """The document with what is told for every device and then for this one."""
        with self._lock:
            for key in ("*", device):
                document = merged(document, self._config.get(key, {}))
            return document

    def told_config(self, device):
        """What is told for the configuration of a device, for comparing."""
        with self._lock:
            told = (self._config.get("*"), self._config.get(device))
            return json.dumps(told, sort_keys=True)

    def patched(self, name, document):
        """The "tou" or "geo" document with what is told for it."""
        with self._lock:
            return merged(document, self._patches[name])

    def knows_stream(self, name):
        with self._lock:
            told = self._named_in_config("firehose_stream")
            return name in DEFAULT_STREAMS or name in self._streams or name in told

    def knows_bucket(self, name):
        with self._lock:
            told = [bucket.split("/")[0] for bucket in self._named_in_config("s3_bucket")]
            return name in DEFAULT_BUCKETS or name in self._buckets or name in told

    def _named_in_config(self, key):
        names = [patch.get(key) for patch in self._config.values()]
        return [name for name in names if isinstance(name, str)]

    def take(self, target):
        """The misbehaviour of the next request to the target, None when it behaves."""
        with self._lock:
            return self._take(target, target == "https")

    def take_connection(self, target):
        """The misbehaviour of the next connection to an HTTPS port, which is the target's own
        or (None) everybody's."""
        with self._lock:
            own = self._take(target, True) if target else None
            return own or self._take("https", True)

    def _take(self, target, connection):
        """Connections take what is told to "https", and certificates; requests all else."""
        waiting = self._misbehaviours[target]
        if not waiting:
            return None
        first = waiting[0]
        if connection != (target == "https" or first["action"] == "certificate"):
            return None
        if "count" in first:
            first["count"] -= 1
            if first["count"] == 0:
                waiting.pop(0)
        return dict(first)

    def generation(self, target):
        """Changes whenever the target is told something new: a hanging answer then ends."""
        with self._lock:
            return self._generations[target]

    # --- control ---

    def apply(self, document):
        """Follows a control document; raises ControlError, and then nothing has changed."""
        checked = _Checked(document)
        with self._lock:
            if checked.clear:
                self._reset()
            for target, actions in checked.misbehave.items():
                self._misbehaviours[target] = actions
                self._generations[target] += 1
            if checked.clear_config:
                self._config = {}
            for key, patch in checked.config.items():
                self._config.pop(key, None)
                if patch is not None:
                    self._config[key] = patch
            self._patches.update(checked.patches)
            if checked.clock_offset is not None:
                self._clock_offset = checked.clock_offset
            if checked.credentials is not None:
                self._credentials = checked.credentials
            if checked.streams is not None:
                self._streams = checked.streams
            if checked.buckets is not None:
                self._buckets = checked.buckets

    def state(self):
        """What holds now, in the form of a control document."""
        with self._lock:
            credentials = asdict(self._credentials)
            return copy.deepcopy(
                {
                    "misbehave": {k: v for k, v in self._misbehaviours.items() if v},
                    "config": self._config,
                    "tou": self._patches["tou"],
                    "geo": self._patches["geo"],
                    "clock-offset": self._clock_offset,
                    "credentials": {k.replace("_", "-"): v for k, v in credentials.items()},
                    "streams": self._streams,
                    "buckets": self._buckets,
                }
            )


class _Checked:
    """A control document, checked; what it does not speak of is None or empty."""

    MEMBERS = (
        "clear", "misbehave", "config", "tou", "geo", "clock-offset", "credentials",
        "streams", "buckets",
    )

    def __init__(self, document):
        require(isinstance(document, dict), "the control document is not a JSON object")
        document = copy.deepcopy(document)
        for name in document:
            require(name in self.MEMBERS, 'unknown member "%s"' % name)
        self.clear = document.get("clear", False)
        require(isinstance(self.clear, bool), '"clear" is not true or false')
        self.misbehave = checked_misbehave(document.get("misbehave", {}))
        self.clear_config = document.get("config", {}) is None
        self.config = self._checked_config(document.get("config") or {})
        self.patches = {
            name: checked_object(document[name] or {}, name)
            for name in ("tou", "geo")
            if name in document
        }
        self.clock_offset = document.get("clock-offset")
        require(
            self.clock_offset is None or _is_number(self.clock_offset),
            '"clock-offset" is not a number of seconds',
        )
        self.credentials = self._checked_credentials(document)
        self.streams = self._checked_names(document, "streams")
        self.buckets = self._checked_names(document, "buckets")

    @staticmethod
    def _checked_config(patches):
        for key, patch in checked_object(patches, "config").items():
            if patch is not None:
                checked_object(patch, "config/%s" % key)
        return patches

    @staticmethod
    def _checked_credentials(document):
        if "credentials" not in document:
            return None
        credentials = Credentials()
        for name, value in checked_object(document["credentials"] or {}, "credentials").items():
            member = name.replace("-", "_")
            require(hasattr(credentials, member), 'unknown member "credentials/%s"' % name)
            kind = type(getattr(credentials, member))
            require(type(value) is kind, '"credentials/%s" is not a %s' % (name, kind.__name__))
            setattr(credentials, member, value)
        return credentials

    @staticmethod
    def _checked_names(document, member):
        if member not in document:
            return None
        names = document[member] or []
        good = isinstance(names, list) and all(isinstance(name, str) and name for name in names)
        require(good, '"%s" is not an array of names' % member)
        return names


def _is_number(value):
    return isinstance(value, (int, float)) and not isinstance(value, bool)


def merged(document, patch):
    """JSON merge patch (RFC 7396): members replace, objects merge, null removes."""
    if not isinstance(patch, dict):
        return copy.deepcopy(patch)
    result = dict(document) if isinstance(document, dict) else {}
    for key, value in patch.items():
        if value is None:
            result.pop(key, None)
        else:
            result[key] = merged(result.get(key), value)
    return result
