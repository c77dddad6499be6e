"""What the local cloud has been told: documents, clock, credentials, misbehaviour.

A control document (POST /control, or the file given with --scenario) changes it;
README.md describes the members. A document is checked whole before any of it
counts.
"""

import copy
import threading
import time
from dataclasses import asdict, dataclass

TARGETS = ("config", "tou", "time", "geo", "firehose", "s3", "https")

_DOCUMENTS = ("config", "tou", "time", "geo")
_REQUESTS = _DOCUMENTS + ("firehose", "s3")

_NUMBER = (int, float)
_CERTIFICATES = ("untrusted", "expired", "other-host")

# action: (targets, {option: types or the possible values})
ACTIONS = {
    "refuse": (_REQUESTS, {"code": str, "message": str, "status": int}),
    "server-error": (_REQUESTS, {"status": int}),
    "error-answer": (_DOCUMENTS, {"message": str, "status": int}),
    "not-json": (_REQUESTS, {"body": str}),
    "answer": (_REQUESTS, {"status": int, "body": str, "content-type": str}),
    "expired": (("config",), {}),
    "huge": (_REQUESTS, {"part": ("body", "headers"), "bytes": int, "length": bool}),
    "date": (_REQUESTS, {"value": (str, type(None)), "offset": _NUMBER}),
    "hang": (TARGETS, {"after": int, "processed": bool}),
    "drip": (_REQUESTS, {"delay": _NUMBER}),
    "cut": (_REQUESTS, {"after": int}),
    "reset": (TARGETS, {"processed": bool}),
    "certificate": (("https",), {"kind": _CERTIFICATES}),
}

DEFAULT_STREAMS = ("kiv-eventsrc-stream-test",)
DEFAULT_BUCKETS = ("norvane-ddump",)


class ControlError(Exception):
    """A control document that cannot be followed; the text says why."""


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
            waiting = self._misbehaviours[target]
            if not waiting:
                return None
            first = waiting[0]
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
        _require(isinstance(document, dict), "the control document is not a JSON object")
        document = copy.deepcopy(document)
        for name in document:
            _require(name in self.MEMBERS, 'unknown member "%s"' % name)
        self.clear = document.get("clear", False)
        _require(isinstance(self.clear, bool), '"clear" is not true or false')
        self.misbehave = _checked_misbehave(document.get("misbehave", {}))
        self.clear_config = document.get("config", {}) is None
        self.config = self._checked_config(document.get("config") or {})
        self.patches = {
            name: _object(document[name] or {}, name)
            for name in ("tou", "geo")
            if name in document
        }
        self.clock_offset = document.get("clock-offset")
        _require(
            self.clock_offset is None or _is_number(self.clock_offset),
            '"clock-offset" is not a number of seconds',
        )
        self.credentials = self._checked_credentials(document)
        self.streams = self._checked_names(document, "streams")
        self.buckets = self._checked_names(document, "buckets")

    @staticmethod
    def _checked_config(patches):
        for key, patch in _object(patches, "config").items():
            if patch is not None:
                _object(patch, "config/%s" % key)
        return patches

    @staticmethod
    def _checked_credentials(document):
        if "credentials" not in document:
            return None
        credentials = Credentials()
        for name, value in _object(document["credentials"] or {}, "credentials").items():
            member = name.replace("-", "_")
            _require(hasattr(credentials, member), 'unknown member "credentials/%s"' % name)
            kind = type(getattr(credentials, member))
            _require(type(value) is kind, '"credentials/%s" is no %s' % (name, kind.__name__))
            setattr(credentials, member, value)
        return credentials

    @staticmethod
    def _checked_names(document, member):
        if member not in document:
            return None
        names = document[member] or []
        good = isinstance(names, list) and all(isinstance(name, str) and name for name in names)
        _require(good, '"%s" is not an array of names' % member)
        return names


def _checked_misbehave(by_target):
    if by_target is None:
        return {target: [] for target in TARGETS}
    checked = {}
    for target, actions in _object(by_target, "misbehave").items():
        _require(target in TARGETS, 'unknown target "%s", known: %s' % (target, ", ".join(TARGETS)))
        if actions is None:
            actions = []
        if not isinstance(actions, list):
            actions = [actions]
        for action in actions:
            _check_action(target, _object(action, "misbehave/" + target))
        checked[target] = actions
    return checked


def _check_action(target, told):
    name = told.get("action")
    _require(
        isinstance(name, str) and name in ACTIONS,
        'misbehave/%s: unknown action %r, known: %s' % (target, name, ", ".join(ACTIONS)),
    )
    targets, options = ACTIONS[name]
    where = 'misbehave/%s "%s"' % (target, name)
    _require(target in targets, "%s: only for %s" % (where, ", ".join(targets)))
    for option, value in told.items():
        if option == "action":
            continue
        if option == "count":
            _require(type(value) is int and value > 0, where + ": count is not 1 or more")
            continue
        known = option in options and (target != "https" or option == "kind")
        _require(known, "%s: unknown option %r" % (where, option))
        _check_option("%s: %s" % (where, option), value, options[option])


def _check_option(where, value, possible):
    if isinstance(possible, tuple) and isinstance(possible[0], str):
        _require(value in possible, "%s is not one of %s" % (where, ", ".join(possible)))
        return
    good = isinstance(value, possible) and (possible is bool or not isinstance(value, bool))
    _require(good, "%s has a wrong type" % where)
    if where.endswith(": status"):
        _require(100 <= value <= 999, "%s is not 100 ... 999" % where)
    elif _is_number(value) and not where.endswith(": offset"):
        _require(value >= 0, "%s is negative" % where)


def _is_number(value):
    return isinstance(value, _NUMBER) and not isinstance(value, bool)


def _object(value, where):
    _require(isinstance(value, dict), '"%s" is not an object' % where)
    return value


def _require(condition, text):
    if not condition:
        raise ControlError(text)


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
