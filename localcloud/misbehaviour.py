"""What a target says when it has been told to misbehave: answers instead of its own."""

import email.utils
import json

from answer import Answer, json_answer

HUGE_BODY = 1024 * 1024 + 4096
HUGE_HEADERS = 72 * 1024
LONG_TEXT = 1024 * 1024
LONG_CITY = 200000
NOT_JSON = '{"kiv_tou": tru'
REJECTED = b"This text is no answer to what was asked. "
HTML = b"<html><head><title>Error</title></head><body><h1>Something went wrong</h1></body></html>\n"
PORTAL = (
    b"<!DOCTYPE html>\n<html><head><title>Welcome</title></head>\n"
    b"<body><h1>Welcome to our network</h1>\n"
    b'<form method="post" action="/login"><input name="room"><input type="submit"></form>\n'
    b"</body></html>\n"
)
DAY = 86400
YEARS_AHEAD = 10  # stays below 31 bits
FIREHOSE_TYPE = "application/x-amz-json-1.1"


class StandIn:
    """The answers that take the place of a service's own."""

    def __init__(self, firehose, s3):
        self._refusing = {"firehose": firehose, "s3": s3}
        self.portal_url = ""  # of the page that a redirect points to, once the port is known

    def instead(self, told, target):
        """The answer without the service's having seen the request; None: it answers itself."""
        action = told["action"]
        if told.get("processed"):
            return None
        if action in ("hang", "reset"):
            return None if told.get("after") else Answer(200)  # is not sent
        if action == "status":
            return self._status(told) if "body" in told else None
        make = {
            "refuse": lambda: self._refusal(told, target),
            "server-error": lambda: Answer(told.get("status", 500), HTML, "text/html"),
            "error-answer": lambda: _error_answer(told),
            "not-json": lambda: Answer(200, told.get("body", NOT_JSON).encode()),
            "empty-object": lambda: Answer(200, b"{}"),
            "long-text": lambda: Answer(200, _text(told.get("bytes", LONG_TEXT)), "text/plain"),
            "answer": lambda: _told_answer(told, 200),
            "portal": portal_page,
            "redirect": lambda: self._redirect(told),
            "no-record-id": lambda: _without_record_id(told),
            "no-etag": lambda: Answer(200, b"", ""),
            "huge": lambda: _huge(told),
        }.get(action)
        return make() if make else None

    @staticmethod
    def changed(told, answer):
        """The service's own answer, with what the action changes in it."""
        action = told["action"]
        if action == "status":
            answer.status = told.get("status", 503)
        if answer.status != 200:
            return answer
        if action == "expired":
            answer.body = json.dumps({**json.loads(answer.body), "expiry_tou": 0}).encode()
        if action == "long-city":
            city = "x" * told.get("characters", LONG_CITY)
            answer.body = json.dumps({**json.loads(answer.body), "city": city}).encode()
        if action == "no-etag" and told.get("processed"):
            answer.headers = [header for header in answer.headers if header[0] != "ETag"]
        if action == "no-record-id" and told.get("processed"):
            return _without_record_id(told)
        return answer

    def _refusal(self, told, target):
        options = {name: told.get(name) for name in ("code", "status", "message")}
        service = self._refusing.get(target)
        if service:
            return service.error_answer(service.refusal(**options))
        document = {"message": options["message"] or "Forbidden"}
        return json_answer(document, options["status"] or 403)

    def _redirect(self, told):
        location = ("Location", told.get("location", self.portal_url))
        return Answer(told.get("status", 302), HTML, "text/html", headers=[location])

    @staticmethod
    def _status(told):
        return _told_answer(told, 503)


def portal_page():
    """What everybody gets who is not logged in."""
    return Answer(200, PORTAL, "text/html")


def told_date(told, now):
    """The text of the Date header that the action "date" asks for; None for no header."""
    if "value" in told:
        return told["value"]
    kind = told.get("kind")
    if kind == "missing":
        return None
    moments = {
        "years-ahead": now + YEARS_AHEAD * 365.25 * DAY,
        "before-1970": -1,
        "beyond-31-bits": 2**31 + DAY,
        "beyond-32-bits": 2**32 + DAY,
    }
    return http_date(moments.get(kind, now + told.get("offset", 0)))


def http_date(seconds):
    """Seconds since 1970 as a Date header has them; years of any size."""
    try:
        return email.utils.formatdate(seconds, usegmt=True)
    except (OverflowError, ValueError, OSError):
        return "Fri, 31 Dec 9999 23:59:59 GMT" if seconds > 0 else "Mon, 01 Jan 0001 00:00:00 GMT"


def _told_answer(told, status):
    kind = told.get("content-type", "application/json")
    return Answer(told.get("status", status), told.get("body", "").encode(), kind)


def _error_answer(told):
    document = {"errorMessage": told.get("message", "The local cloud was told to fail")}
    return json_answer(document, told.get("status", 200))


def _without_record_id(told):
    form = told.get("form", "json")
    if form == "html":
        return portal_page()
    body = {
        "json": b'{"Encrypted": false}',
        "empty": b'{"RecordId": "", "Encrypted": false}',
        "broken": b'{"RecordId": "49',
        "nothing": b"",
    }[form]
    return Answer(200, body, FIREHOSE_TYPE)


def _huge(told):
    if told.get("part") == "headers":
        return Answer(200, b"{}", headers=padding_headers(told.get("bytes", HUGE_HEADERS)))
    return Answer(200, b'{"padding": "' + b"x" * told.get("bytes", HUGE_BODY) + b'"}')


def padding_headers(size):
    """Headers whose values have so many characters together."""
    return [("X-Padding", "x" * piece) for piece in _pieces(size, 8000)]


def _text(size):
    return (REJECTED * (size // len(REJECTED) + 1))[:size]


def _pieces(total, size):
    while total > 0:
        yield min(size, total)
        total -= size
