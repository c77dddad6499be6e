"""The two listeners, the way of a request through them, and misbehaviour on the wire."""

import email.utils
import http.server
import json
import select
import socket
import socketserver
import ssl
import struct
import sys
import time

from answer import Answer, Request, json_answer
from awsservices import S3, Firehose
from configuration import Gateway, Geolocation
from scenario import ControlError

MAX_BODY = 256 * 1024 * 1024
IDLE_TIMEOUT = 60  # seconds without a byte from the client
HUGE_BODY = 1024 * 1024 + 4096
HUGE_HEADERS = 72 * 1024
NOT_JSON = '{"kiv_tou": tru'
HTML = b"<html><head><title>Error</title></head><body><h1>Something went wrong</h1></body></html>\n"


class LocalCloud:
    """Everything that the listeners share."""

    def __init__(self, services, scenario, store, certificates, verbose=False):
        self.services = services
        self.scenario = scenario
        self.store = store
        self.certificates = certificates
        self.verbose = verbose
        self.gateway = Gateway(services, scenario)
        self.geolocation = Geolocation(services, scenario)
        self.firehose = Firehose(store, scenario)
        self.s3 = S3(store, scenario)

    def log(self, entry):
        self.store.log_request(entry)
        if self.verbose:
            print("{method} {target} {path} {status} {verdict}".format(**entry), flush=True)

    def service_of(self, request, secure):
        """(target, environment name or None, function that answers) of a request."""
        if not secure:
            if request.path == self.services.geo_path:
                return "geo", None, self.geolocation.answer
            return "", None, lambda: json_answer({"error": "Not found"}, 404, "refused: path")
        found = self.gateway.find(request.path)
        if found:
            return (*found, lambda: self.gateway.answer(request, *found))
        if request.path == "/":
            return "firehose", None, lambda: self.firehose.answer(request)
        return "s3", None, lambda: self.s3.answer(request)

    def control(self, request):
        """The answer to a request to /control or /control/state."""
        if request.method == "POST" and request.path == "/control":
            try:
                self.scenario.apply(json.loads(request.body))
            except (ValueError, RecursionError, ControlError) as error:
                return json_answer({"error": str(error)}, 400)
        elif request.method != "GET" or request.path != "/control/state":
            return json_answer({"error": "POST /control or GET /control/state"}, 404)
        return json_answer({**self.scenario.state(), "counts": self.store.counts()})

    def misbehaved_answer(self, told, target):
        """The answer that stands in for the service's own, None where it answers itself."""
        action = told["action"]
        if action == "refuse":
            return self._refusal(told, target)
        if action == "server-error":
            return Answer(told.get("status", 500), HTML, "text/html")
        if action == "error-answer":
            document = {"errorMessage": told.get("message", "The local cloud was told to fail")}
            return json_answer(document, told.get("status", 200))
        if action == "not-json":
            return Answer(200, told.get("body", NOT_JSON).encode())
        if action == "answer":
            kind = told.get("content-type", "application/json")
            return Answer(told.get("status", 200), told.get("body", "").encode(), kind)
        if action == "huge":
            return _huge(told)
        if action in ("hang", "reset") and not told.get("processed") and not told.get("after"):
            return Answer(200)  # is not sent; the service does not see the request
        return None

    def _refusal(self, told, target):
        options = {name: told.get(name) for name in ("code", "status", "message")}
        if target in ("firehose", "s3"):
            service = self.firehose if target == "firehose" else self.s3
            return service.error_answer(service.refusal(**options))
        document = {"message": options["message"] or "Forbidden"}
        return json_answer(document, options["status"] or 403)


def _huge(told):
    if told.get("part") == "headers":
        left = told.get("bytes", HUGE_HEADERS)
        lines = [("X-Padding", "x" * size) for size in _pieces(left, 8000)]
        return Answer(200, b"{}", headers=lines)
    return Answer(200, b'{"padding": "' + b"x" * told.get("bytes", HUGE_BODY) + b'"}')


def _pieces(total, size):
    while total > 0:
        yield min(size, total)
        total -= size


# --- listeners ----------------------------------------------------------------


class HttpServer(http.server.ThreadingHTTPServer):
    daemon_threads = True
    block_on_close = False
    request_queue_size = 64
    secure = False

    def __init__(self, port, cloud):
        super().__init__(("127.0.0.1", port), Handler)
        self.cloud = cloud

    @property
    def port(self):
        return self.server_address[1]

    def server_bind(self):
        # Not the base's, which asks the name service for the name of the host.
        socketserver.TCPServer.server_bind(self)
        self.server_name, self.server_port = "localhost", self.server_address[1]

    def handle_error(self, request, client_address):
        """A client that has gone is not an error of ours; the base shows all others."""
        error = sys.exc_info()[1]
        if not isinstance(error, (ConnectionError, TimeoutError, ssl.SSLError)):
            super().handle_error(request, client_address)


class HttpsServer(HttpServer):
    secure = True

    def finish_request(self, request, client_address):
        """Runs on the connection's own thread: a slow handshake holds nobody else up."""
        request.settimeout(IDLE_TIMEOUT)
        told = self.cloud.scenario.take("https") or {}
        action = told.get("action")
        if action == "hang":
            self._log(told, "misbehaved: hang")
            wait_until_told(self.cloud.scenario, "https", request)
            return
        if action == "reset":
            self._log(told, "misbehaved: reset")
            reset(request)
            return
        kind = told.get("kind", "untrusted") if action == "certificate" else "good"
        try:
            connection = self.cloud.certificates.context(kind).wrap_socket(
                request, server_side=True
            )
        except (OSError, ValueError) as error:
            self._log(told, "handshake failed: %s" % error)
            return
        try:
            super().finish_request(connection, client_address)
        finally:
            connection.close()

    def _log(self, told, verdict):
        entry = {"target": "https", "method": "-", "path": "-", "status": None,
                 "verdict": verdict}
        if told:
            entry["misbehaviour"] = told
        self.cloud.log(entry)


def reset(connection):
    """Ends a connection with a reset instead of an orderly end."""
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    connection.close()


def wait_until_told(scenario, target, connection):
    """Waits until the target is told something new or the client has gone."""
    generation = scenario.generation(target)
    while scenario.generation(target) == generation:
        # Bytes that wait (after the request, at a handshake) are left there: only the end counts.
        poll = select.poll()
        poll.register(connection, select.POLLRDHUP | select.POLLHUP | select.POLLERR)
        if poll.poll(50):
            return


# --- one connection -----------------------------------------------------------


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    timeout = IDLE_TIMEOUT
    disable_nagle_algorithm = True

    def log_message(self, *_):
        """The request log says it all."""

    def dispatch(self):
        request = self._read_request()
        if request is None:
            return
        cloud = self.server.cloud
        if not self.server.secure and request.path.partition("/control")[0] == "":
            self._send(cloud.control(request))
            return
        target, environment, answer = cloud.service_of(request, self.server.secure)
        told = cloud.scenario.take(target) if target else None
        if told is None:
            good = answer()
            self._log(request, target, environment, good.status, good.verdict)
            self._send(good)
            return
        self._misbehave(told, request, target, environment, answer)

    do_GET = do_POST = do_PUT = do_DELETE = do_HEAD = do_PATCH = do_OPTIONS = dispatch

    def _read_request(self):
        """The whole request; None when it could not be used (then it is answered)."""
        length = self.headers.get("Content-Length", "0")
        if "Transfer-Encoding" in self.headers:
            return self._give_up(411, "a body without Content-Length")
        if not length.isascii() or not length.isdigit():
            return self._give_up(400, "Content-Length")
        if len(length) > 15 or int(length) > MAX_BODY:
            return self._give_up(413, "body too large")
        body = self.rfile.read(int(length))
        if len(body) < int(length):
            self.close_connection = True
            return None
        # As sent: the base class folds a double slash at the start of self.path.
        target = self.requestline.split()[1]
        if not target.startswith("/"):
            return self._give_up(400, "request target")
        return Request(self.command, target, self.headers.items(), body)

    def _give_up(self, status, why):
        self.close_connection = True
        self._log(Request(self.command, self.path, self.headers.items(), b""), "",
                  None, status, "refused: " + why)
        self._send(json_answer({"error": why}, status))

    def _log(self, request, target, environment, status, verdict, told=None):
        headers = {}
        for name, value in request.headers:
            headers[name] = headers[name] + ", " + value if name in headers else value
        entry = {"target": target, "method": request.method, "path": request.target,
                 "headers": headers, "bytes": len(request.body), "status": status,
                 "verdict": verdict}
        if environment:
            entry["environment"] = environment
        if told:
            entry["misbehaviour"] = told
        self.server.cloud.log(entry)

    # --- misbehaviour ---

    def _misbehave(self, told, request, target, environment, good_answer):
        cloud = self.server.cloud
        action = told["action"]
        answer = cloud.misbehaved_answer(told, target) or good_answer()
        if action == "expired" and answer.status == 200:
            answer.body = json.dumps({**json.loads(answer.body), "expiry_tou": 0}).encode()
        sent = None if action == "reset" or action == "hang" else answer.status
        self._log(request, target, environment, sent, "misbehaved: " + action, told)
        if action == "hang":
            self._hang(answer, told, target)
        elif action == "drip":
            self._drip(answer, told, target)
        elif action == "cut":
            self._cut(answer, told)
        elif action == "reset":
            self._close_hard()
        elif action == "date":
            self._send(answer, date=self._told_date(told))
        else:
            self._send(answer, chunked=told.get("length") is False)

    def _hang(self, answer, told, target):
        self.close_connection = True
        if told.get("after"):
            self._write(self._head(answer) + answer.body[: told["after"]])
        wait_until_told(self.server.cloud.scenario, target, self.connection)

    def _drip(self, answer, told, target):
        """The body byte by byte; the head, where there is no body."""
        self.close_connection = True
        slow = answer.body or self._head(answer)
        if answer.body:
            self._write(self._head(answer))
        scenario = self.server.cloud.scenario
        generation = scenario.generation(target)
        for place in range(len(slow)):
            if place:
                time.sleep(told.get("delay", 0.5))
            if scenario.generation(target) != generation:
                return
            self._write(slow[place : place + 1])

    def _cut(self, answer, told):
        """A part of the body, half of it when not told; of the head, where there is no body."""
        self.close_connection = True
        if answer.body:
            after = told.get("after", len(answer.body) // 2)
            self._write(self._head(answer) + answer.body[:after])
        else:
            head = self._head(answer)
            self._write(head[: told.get("after", len(head) // 2)])

    def _close_hard(self):
        self.close_connection = True
        self.rfile.close()  # holds the descriptor open, else
        reset(self.connection)

    def _told_date(self, told):
        """The text of the Date header, None for no header."""
        if "value" in told:
            return told["value"]
        return _http_date(self.server.cloud.scenario.now() + told.get("offset", 0))

    # --- writing ---

    def _send(self, answer, chunked=False, date=""):
        head = self._head(answer, chunked, date)
        if self.command == "HEAD":
            self._write(head)
        elif chunked:
            self._write(head + b"%x\r\n" % len(answer.body) + answer.body + b"\r\n0\r\n\r\n")
        else:
            self._write(head + answer.body)

    def _head(self, answer, chunked=False, date=""):
        if date == "":
            date = _http_date(self.server.cloud.scenario.now())
        headers = [] if date is None else [("Date", date)]
        headers += answer.headers
        if answer.content_type:
            headers.append(("Content-Type", answer.content_type))
        if chunked:
            headers.append(("Transfer-Encoding", "chunked"))
        else:
            headers.append(("Content-Length", str(len(answer.body))))
        if self.close_connection:
            headers.append(("Connection", "close"))
        lines = ["HTTP/1.1 %d %s" % (answer.status, answer.reason)]
        lines += ["%s: %s" % header for header in headers]
        return ("\r\n".join(lines) + "\r\n\r\n").encode("latin-1", "replace")

    def _write(self, data):
        try:
            self.wfile.write(data)
        except (OSError, ValueError):
            self.close_connection = True  # the client has gone


def _http_date(seconds):
    return email.utils.formatdate(seconds, usegmt=True)
