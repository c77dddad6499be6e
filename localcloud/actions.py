"""The misbehaviours by name: what each is for, and whether one is told rightly.

README.md says what each of them does.
"""

from dataclasses import dataclass

DOCUMENTS = ("config", "tou", "time", "geo")
REQUESTS = DOCUMENTS + ("firehose", "s3")
# What has an HTTPS port of its own, and so certificates of its own.
SECURE = ("config", "tou", "time", "firehose", "s3")
TARGETS = REQUESTS + ("https",)

CERTIFICATES = ("untrusted", "expired", "other-host", "too-new", "forged")
DATES = ("years-ahead", "before-1970", "beyond-31-bits", "beyond-32-bits", "missing")
NO_RECORD_ID = ("json", "empty", "html", "broken", "nothing")


class ControlError(Exception):
    """A control document that cannot be followed; the text says why."""


@dataclass(frozen=True)
class Number:
    """The numbers that an option may have."""

    low: float = 0
    high: float = 10**9
    kinds: tuple = (int,)


COUNT = Number()
SECONDS = Number(kinds=(int, float))
OFFSET = Number(-(10**12), 10**12, (int, float))
STATUS = Number(100, 999)

# action: (targets, {option: a type, several types, a Number, or the possible texts})
ACTIONS = {
    "refuse": (REQUESTS, {"code": str, "message": str, "status": STATUS}),
    "server-error": (REQUESTS, {"status": STATUS}),
    "error-answer": (DOCUMENTS, {"message": str, "status": STATUS}),
    "not-json": (REQUESTS, {"body": str}),
    "empty-object": (REQUESTS, {}),
    "long-text": (REQUESTS, {"bytes": COUNT}),
    "answer": (REQUESTS, {"status": STATUS, "body": str, "content-type": str}),
    "status": (REQUESTS, {"status": Number(300, 599), "body": str, "content-type": str}),
    "portal": (REQUESTS, {}),
    "redirect": (REQUESTS, {"status": Number(300, 399), "location": str}),
    "no-record-id": (("firehose",), {"form": NO_RECORD_ID, "processed": bool}),
    "no-etag": (("s3",), {"processed": bool}),
    "long-city": (("geo",), {"characters": COUNT}),
    "expired": (("config",), {}),
    "huge": (REQUESTS, {"part": ("body", "headers"), "bytes": COUNT, "length": bool}),
    "date": (REQUESTS, {"value": (str, type(None)), "offset": OFFSET, "kind": DATES}),
    "hang": (TARGETS, {"after": COUNT, "processed": bool}),
    "drip": (REQUESTS, {"delay": SECONDS}),
    "trickle": (REQUESTS, {"rate": Number(0.01, kinds=(int, float)), "bytes": COUNT,
                           "part": ("body", "headers")}),
    "cut": (REQUESTS, {"after": COUNT}),
    "reset": (TARGETS, {"processed": bool}),
    "certificate": (SECURE + ("https",), {"kind": CERTIFICATES}),
}


def checked_misbehave(by_target):
    """{target: [action, ...]} of the control document's member; raises ControlError."""
    if by_target is None:
        return {target: [] for target in TARGETS}
    checked = {}
    for target, actions in checked_object(by_target, "misbehave").items():
        require(target in TARGETS, 'unknown target "%s", known: %s' % (target, ", ".join(TARGETS)))
        if actions is None:
            actions = []
        if not isinstance(actions, list):
            actions = [actions]
        for action in actions:
            _check_action(target, checked_object(action, "misbehave/" + target))
        checked[target] = actions
    return checked


def _check_action(target, told):
    name = told.get("action")
    require(
        isinstance(name, str) and name in ACTIONS,
        'misbehave/%s: unknown action %r, known: %s' % (target, name, ", ".join(ACTIONS)),
    )
    targets, options = ACTIONS[name]
    where = 'misbehave/%s "%s"' % (target, name)
    require(target in targets, "%s: only for %s" % (where, ", ".join(targets)))
    for option, value in told.items():
        if option == "action":
            continue
        if option == "count":
            require(type(value) is int and value > 0, where + ": count is not 1 or more")
            continue
        known = option in options and (target != "https" or option == "kind")
        require(known, "%s: unknown option %r" % (where, option))
        _check_option("%s: %s" % (where, option), value, options[option])


def _check_option(where, value, possible):
    if isinstance(possible, Number):
        _check_number(where, value, possible)
    elif isinstance(possible, tuple) and isinstance(possible[0], str):
        require(value in possible, "%s is not one of %s" % (where, ", ".join(possible)))
    else:
        require(isinstance(value, possible), "%s has a wrong type" % where)


def _check_number(where, value, possible):
    good = isinstance(value, possible.kinds) and not isinstance(value, bool)
    require(good, "%s has a wrong type" % where)
    require(possible.low != 0 or value >= 0, "%s is negative" % where)
    limits = "%s is not %s ... %s" % (where, possible.low, possible.high)
    require(possible.low <= value <= possible.high, limits)


def checked_object(value, where):
    require(isinstance(value, dict), '"%s" is not an object' % where)
    return value


def require(condition, text):
    if not condition:
        raise ControlError(text)
