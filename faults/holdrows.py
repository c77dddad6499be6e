"""The rows of the table of holds: which target misbehaves how, and in which state the set is then.

A target is asked only when the set has a reason to: `state_of` gives it one. "gateway" stands for
configuration, terms and time together, which share one port and so one handshake.
"""
from dataclasses import dataclass, field

DOCUMENTS = ("config", "tou", "time", "geo")
REQUESTS = DOCUMENTS + ("firehose", "s3")
CERTIFICATES = ("untrusted", "expired", "too-new", "other-host")
DATES = ("missing", "years-ahead", "before-1970", "beyond-31-bits", "beyond-32-bits")
SILENT_DNS = "silent-dns"  # done by the set itself, not by the local cloud
FEW_FILES, MANY_FILES = 1, 12

# What every target can be told, by the row's name.
COMMON = {
    "refuse": {"action": "refuse"},
    "server-error": {"action": "server-error"},
    "status-404": {"action": "status", "status": 404},
    "status-503": {"action": "status", "status": 503},
    "not-json": {"action": "not-json"},
    "empty-object": {"action": "empty-object"},
    "empty-answer": {"action": "answer", "body": ""},
    "long-text": {"action": "long-text"},
    "huge": {"action": "huge"},
    "huge-headers": {"action": "huge", "part": "headers"},
    "portal": {"action": "portal"},
    "redirect": {"action": "redirect"},
    "date-missing": {"action": "date", "kind": "missing"},
    "date-years-ahead": {"action": "date", "kind": "years-ahead"},
    "hang": {"action": "hang"},
    "hang-within": {"action": "hang", "after": 10},
    "drip": {"action": "drip"},
    "trickle": {"action": "trickle"},
    "trickle-headers": {"action": "trickle", "part": "headers"},
    "cut": {"action": "cut"},
    "reset": {"action": "reset"},
}
LOST = {  # the service has taken the request, the client does not learn of it
    "answer-lost": {"action": "reset", "processed": True},
    "answer-held": {"action": "hang", "processed": True},
}
OWN = {
    "config": {"expired": {"action": "expired"}},
    "geo": {"long-city": {"action": "long-city"}},
    "firehose": {
        "throttled": {"action": "refuse", "code": "ServiceUnavailableException", "status": 503},
        **{f"no-record-id-{form}": {"action": "no-record-id", "form": form}
           for form in ("json", "empty", "html", "broken", "nothing")}, **LOST},
    "s3": {"no-etag": {"action": "no-etag"},
           "no-etag-stored": {"action": "no-etag", "processed": True}, **LOST},
}
HANDSHAKES = {
    "handshake-hang": {"action": "hang"},
    "handshake-reset": {"action": "reset"},
    **{f"certificate-{kind}": {"action": "certificate", "kind": kind} for kind in CERTIFICATES},
}
LONG = ("hang", "drip", "trickle", "held")  # in their names; such rows are begun first
QUICK = ("config/empty-object", "config/refuse", "tou/portal", "time/server-error", "time/reset",
         "geo/refuse", "geo/long-city", "firehose/reset", "firehose/no-record-id-html",
         "s3/no-etag", "s3/refuse", "gateway/certificate-untrusted")


@dataclass(frozen=True)
class Row:
    target: str
    action: str  # the row's name for it
    told: dict = field(default_factory=dict)  # to the local cloud
    files: int = FEW_FILES  # announced before the misbehaviour ends

    @property
    def name(self):
        return f"{self.target}/{self.action}"

    @property
    def told_to(self):
        """The local cloud's target of `told`."""
        certificate_of_its_own = self.told.get("action") == "certificate" and \
            self.target in ("firehose", "s3")
        if self.is_handshake and not certificate_of_its_own:
            return "https"
        return self.target

    @property
    def is_handshake(self):
        return self.action in HANDSHAKES

    @property
    def from_the_start(self):
        """Else the set has begun well: its port shares the handshake with others."""
        return self.target not in ("firehose", "s3") or not self.is_handshake

    @property
    def is_served(self):
        """The right answer comes whole: the requests are not attempts at the same thing."""
        return self.told.get("action") == "date" and self.target in ("firehose", "s3")

    @property
    def may_repeat(self):
        """The service has taken the request, and its answer is lost: no client can know."""
        told = self.told
        return bool(told.get("processed") or told.get("after")) or \
            told.get("action") in ("status", "drip", "trickle", "cut")

    @property
    def longest_hold_s(self):
        """The bound of one request: a file may be long, and its line slow."""
        return 300.0 if self.target == "s3" else 120.0

    @property
    def longest_pause_s(self):
        """The stated pause until the target is asked again after so long a misbehaviour."""
        if self.target == "config" or self.action == "date-years-ahead":
            return 600  # a wrong time, too, is put right by the next configuration
        # For the time the pause doubles: it is about as long as the misbehaviour was.
        return 200 if self.target in ("time", "gateway") else 60

    @property
    def is_long(self):
        return any(word in self.action for word in LONG) or self.action == SILENT_DNS


def all_rows():
    """Every row, in the order of the table."""
    for target in ("config", "tou", "time", "geo"):
        yield from _rows(target, COMMON)
        yield Row(target, "error-answer", {"action": "error-answer"})
        if target in ("config", "time"):
            yield from (Row(target, f"date-{kind}", {"action": "date", "kind": kind})
                        for kind in DATES[2:])
        yield from _rows(target, OWN.get(target, {}))
    yield from _rows("gateway", HANDSHAKES)
    for target in ("firehose", "s3"):
        yield from _rows(target, {**COMMON, **OWN[target], **HANDSHAKES})
        yield Row(target, SILENT_DNS)
    yield Row("s3", f"server-error-{MANY_FILES}-files", {"action": "server-error"}, MANY_FILES)


def _rows(target, actions):
    return (Row(target, name, told) for name, told in actions.items())


@dataclass(frozen=True)
class State:
    """How the set stands when the misbehaviour begins."""

    config_age_s: int = 0  # of the stored configuration
    config_expiry_s: int = 86400
    others: dict = field(default_factory=dict)  # what further targets are told, and why


def state_of(row):
    if row.target == "config":
        return State(config_age_s=7200, config_expiry_s=3600)
    if row.target in ("time", "gateway"):
        # The Date header of a configuration would do as well: time is to be the only source.
        return State(others={"config": {"action": "reset"}} if row.target == "time" else {})
    return State()
