"""How an answer goes out: whole, slowly, in part, or not at all."""

import select
import socket
import struct
import time

from misbehaviour import http_date, padding_headers, told_date

PIECE = 65536  # bytes in one write: so exact is the number of bytes sent when a client goes
SLOWEST_LOOK = 0.05  # seconds between two looks at what is told and at the client
FASTEST_TURN = 0.005  # seconds between two pieces of a slow answer
TRICKLE_RATE = 2  # bytes in a second
TRICKLE_BODY = 1000000  # bytes: within what a client takes
TRICKLE_HEADERS = 32 * 1024
BODILESS = (204, 304)  # statuses whose answers have no body for any client


def reset(connection):
    """Ends a connection with a reset instead of an orderly end."""
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    connection.close()


def wait_until_told(scenario, target, connection, generation=None, limit_s=None):
    """Waits until the target is told something new or the client has gone: True; False when
    the time was over before."""
    if generation is None:
        generation = scenario.generation(target)
    end = None if limit_s is None else time.monotonic() + limit_s
    while scenario.generation(target) == generation:
        left = SLOWEST_LOOK if end is None else min(SLOWEST_LOOK, end - time.monotonic())
        if left <= 0:
            return False
        # Bytes that wait (after the request, at a handshake) are left there: only the end counts.
        poll = select.poll()
        poll.register(connection, select.POLLRDHUP | select.POLLHUP | select.POLLERR)
        if poll.poll(left * 1000):
            return True
    return True


class Delivery:
    """One answer on its way to one client. `close` says afterwards whether the connection ends,
    `sent` how many bytes went out."""

    def __init__(self, handler, scenario, target):
        self._connection = handler.connection
        self._wfile = handler.wfile
        self._rfile = handler.rfile
        self._head_only = handler.command == "HEAD"
        self._scenario = scenario
        self._target = target
        self._generation = scenario.generation(target) if target else 0
        self.close = handler.close_connection
        self.sent = 0

    def send(self, answer, chunked=False, date=""):
        if answer.status in BODILESS or answer.status < 200:
            self.close = True
        head = self._head(answer, chunked, date)
        if self._head_only:
            self._write(head)
        elif chunked:
            self._write(head + b"%x\r\n" % len(answer.body) + answer.body + b"\r\n0\r\n\r\n")
        else:
            self._write(head + answer.body)

    def misbehave(self, told, answer):
        """As the action asks for; an action that is only another answer is sent like any."""
        slow = {
            "hang": self._hang, "drip": self._drip, "trickle": self._trickle,
            "cut": self._cut, "reset": self._reset, "date": self._date,
        }.get(told["action"])
        if slow:
            slow(answer, told)
        else:
            self.send(answer, chunked=told.get("length") is False)

    def _date(self, answer, told):
        self.send(answer, date=told_date(told, self._scenario.now()))

    def _hang(self, answer, told):
        self.close = True
        if told.get("after"):
            self._write(self._head(answer) + answer.body[: told["after"]])
        wait_until_told(self._scenario, self._target, self._connection, self._generation)

    def _drip(self, answer, told):
        """The body byte by byte; the head, where there is no body."""
        self.close = True
        slow = answer.body or self._head(answer)
        if answer.body:
            self._write(self._head(answer))
        delay = told.get("delay", 0.5)
        self._slowly(slow, 1 / delay if delay else float(PIECE))

    def _trickle(self, answer, told):
        """Body or headers at so many bytes a second, filled up so that it lasts."""
        self.close = True
        rate = told.get("rate", TRICKLE_RATE)
        if told.get("part") == "headers":
            padding = padding_headers(told.get("bytes", TRICKLE_HEADERS))
            answer.headers = padding + answer.headers
            if self._slowly(self._head(answer), rate):
                self._write(answer.body)
            return
        answer.body = answer.body.ljust(told.get("bytes", TRICKLE_BODY))  # JSON allows blanks
        if self._write(self._head(answer)):
            self._slowly(answer.body, rate)

    def _slowly(self, data, rate):
        """Sends the bytes at this rate; False when told something new, or the client went."""
        start, place = time.monotonic(), 0
        while place < len(data):
            due = 1 + int((time.monotonic() - start) * rate)
            if due > place:
                if not self._write(data[place:due]):
                    return False
                place = min(due, len(data))
                continue
            wait = max(start + place / rate - time.monotonic(), FASTEST_TURN)
            if wait_until_told(self._scenario, self._target, self._connection,
                               self._generation, wait):
                return False
        return True

    def _cut(self, answer, told):
        """A part of the body, half of it when not told; of the head, where there is no body."""
        self.close = True
        if answer.body:
            after = told.get("after", len(answer.body) // 2)
            self._write(self._head(answer) + answer.body[:after])
        else:
            head = self._head(answer)
            self._write(head[: told.get("after", len(head) // 2)])

    def _reset(self, *_):
        self.close = True
        self._rfile.close()  # holds the descriptor open, else
        reset(self._connection)

    def _head(self, answer, chunked=False, date=""):
        if date == "":
            date = http_date(self._scenario.now())
        headers = [] if date is None else [("Date", date)]
        headers += answer.headers
        if answer.content_type:
            headers.append(("Content-Type", answer.content_type))
        if chunked:
            headers.append(("Transfer-Encoding", "chunked"))
        else:
            headers.append(("Content-Length", str(len(answer.body))))
        if self.close:
            headers.append(("Connection", "close"))
        lines = ["HTTP/1.1 %d %s" % (answer.status, answer.reason)]
        lines += ["%s: %s" % header for header in headers]
        return ("\r\n".join(lines) + "\r\n\r\n").encode("latin-1", "replace")

    def _write(self, data):
        """Whether all of it went out; the client has gone where not."""
        try:
            for place in range(0, len(data), PIECE):
                piece = data[place : place + PIECE]
                self._wfile.write(piece)
                self.sent += len(piece)
            return True
        except (OSError, ValueError):
            self.close = True
            return False
