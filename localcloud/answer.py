"""Requests as they arrived and answers as they go out."""

import http
import json
from dataclasses import dataclass, field


@dataclass
class Request:
    method: str
    target: str  # as sent: path and query, still percent-encoded
    headers: list  # of (name, value), in the order of arrival
    body: bytes

    @property
    def path(self):
        return self.target.partition("?")[0]

    def header(self, name):
        """The first value of a header, None when it was not sent."""
        for key, value in self.headers:
            if key.lower() == name.lower():
                return value
        return None


@dataclass
class Answer:
    status: int
    body: bytes = b""
    content_type: str = "application/json"
    verdict: str = "accepted"  # for the request log; anything else says why not
    headers: list = field(default_factory=list)  # of (name, value)

    @property
    def reason(self):
        try:
            return http.HTTPStatus(self.status).phrase
        except ValueError:
            return "Unknown"


def json_answer(document, status=200, verdict="accepted"):
    return Answer(status, json.dumps(document).encode(), verdict=verdict)


def refused(document, why, status=403):
    return json_answer(document, status, "refused: " + why)
