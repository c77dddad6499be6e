"""The two kinds of listeners, and the way of a request through them."""

import http.server
import json
import socketserver
import ssl
import sys
import time
import urllib.parse

from actions import SECURE, ControlError
from answer import Request, json_answer
from awsservices import S3, Firehose
from configuration import Gateway, Geolocation
from delivery import Delivery, reset, wait_until_told
from journal import Journal, WatchedStore
from misbehaviour import StandIn, portal_page
from pageserver import Forbidden, PageServer, check_caller, guarded
from portowner import explained

MAX_BODY = 256 * 1024 * 1024
IDLE_TIMEOUT = 60  # seconds without a byte from the client
PORTAL_PATH = "/portal"
NOT_FOUND = "POST /control, GET /control/state or GET /control/requests?since=NUMBER"


class LocalCloud:
    """Everything that the listeners share."""

    def __init__(self, services, scenario, store, requests, certificates, options):
        self.services = services
        self.scenario = scenario
        self.store = store
        self.requests = requests
        self.certificates = certificates
        self.verbose = options.verbose
        self.open_page = options.open_page
        self.addresses = sorted({options.bind} if options.bind == "0.0.0.0"
                                else {"127.0.0.1", options.bind})
        self.journal = Journal(options.state, scenario.told_config)
        requests.watcher = self.journal
        watched = WatchedStore(store, self.journal)
        self.gateway = Gateway(services, scenario)
        self.geolocation = Geolocation(services, scenario)
        self.firehose = Firehose(watched, scenario)
        self.s3 = S3(watched, scenario)
        self.page = PageServer(self, self.journal, options.filter_program)
        self.stand_in = StandIn(self.firehose, self.s3)
        self.ports = {}  # "https", "http", target: port
        self._listeners = []

    def listen(self, https_port, http_port):
        """All listeners, bound to their ports; raises PortTaken."""
        named = self.services.ports
        host = self.services.host
        https = self._opened(HttpsServer, "--https-port", https_port,
                             named[self.services.https_port])
        plain = self._opened(HttpServer, "--http-port", http_port)
        self.gateway.endpoint = "https://%s:%d" % (host, https.port)
        self.stand_in.portal_url = "http://%s:%d%s" % (
            "127.0.0.1" if host == "localhost" else host, plain.port, PORTAL_PATH)
        self.ports = {"https": https.port, "http": plain.port}
        further = [self._opened(HttpsServer, "--services", port, target)
                   for port, target in sorted(named.items()) if port != self.services.https_port]
        self.gateway.own_endpoints = {
            server.target: "https://%s:%d" % (host, server.port) for server in further}
        having = {server.target for server in [https] + further}
        further += [self._opened(HttpsServer, "", 0, target)
                    for target in SECURE if target not in having]
        for server in [https] + further:
            if server.target:
                self.ports.setdefault(server.target, server.port)
        return self._listeners

    def _opened(self, kind, option, port, target=None):
        """The first of a kind's listeners on a port, one for each address."""
        for address in self.addresses:
            try:
                server = kind((address, port), self, target)
            except OSError as error:
                raise explained(error, port, option)
            port = server.port
            self._listeners.append(server)
        return self._listeners[-1]

    def log(self, entry, arrived):
        """Adds to the request log; returns what its `ended` asks for."""
        if self.verbose:
            print("{method} {target} {path} {status} {verdict}".format(**entry), flush=True)
        return self.requests.arrived(entry, arrived)

    def service_of(self, request, secure):
        """(target, environment name or None, function that answers) of a request."""
        if not secure:
            if request.path == self.services.geo_path:
                return "geo", None, self.geolocation.answer
            if request.path == PORTAL_PATH:
                return "", None, portal_page
            return "", None, lambda: json_answer({"error": "Not found"}, 404, "refused: path")
        found = self.gateway.find(request.path)
        if found:
            return (*found, lambda: self.gateway.answer(request, *found))
        if request.path == "/":
            return "firehose", None, lambda: self.firehose.answer(request)
        return "s3", None, lambda: self.s3.answer(request)

    def check_caller(self, request, client):
        """Raises Forbidden for what page and control do not answer."""
        check_caller(request, self.services.hosts, client, self.open_page)

    def control(self, request):
        """The answer to a request to /control, /control/state or /control/requests."""
        asked = (request.method, request.path)
        if asked == ("POST", "/control"):
            try:
                self.scenario.apply(json.loads(request.body))
            except (ValueError, RecursionError, ControlError) as error:
                return json_answer({"error": str(error)}, 400)
        elif asked == ("GET", "/control/requests"):
            return self._requests_since(request)
        elif asked != ("GET", "/control/state"):
            return json_answer({"error": NOT_FOUND}, 404)
        counts = {"requests": self.requests.count(), **self.store.counts()}
        return json_answer({**self.scenario.state(), "counts": counts, "ports": self.ports})

    def _requests_since(self, request):
        query = urllib.parse.parse_qs(request.target.partition("?")[2], keep_blank_values=True)
        numbers = query.pop("since", ["0"])
        if query or len(numbers) > 1 or not (numbers[0].isascii() and numbers[0].isdigit()):
            return json_answer({"error": "since=NUMBER, a request's number"}, 400)
        return json_answer(self.requests.since(int(numbers[0][:15])))


# --- listeners ----------------------------------------------------------------


class HttpServer(http.server.ThreadingHTTPServer):
    daemon_threads = True
    block_on_close = False
    request_queue_size = 64
    secure = False

    def __init__(self, place, cloud, target=None):
        super().__init__(place, Handler)
        self.cloud = cloud
        self.target = target

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
    """An HTTPS port: everybody's, or one target's own, whose certificates it then shows."""

    secure = True

    def finish_request(self, request, client_address):
        """Runs on the connection's own thread: a slow handshake holds nobody else up."""
        arrived = time.monotonic()
        request.settimeout(IDLE_TIMEOUT)
        scenario = self.cloud.scenario
        generation = scenario.generation("https")
        told = scenario.take_connection(self.target) or {}
        action = told.get("action")
        if action == "hang":
            logged = self._log(told, "misbehaved: hang", arrived)
            wait_until_told(scenario, "https", request, generation)
            self.cloud.requests.ended(logged, 0, 0)
            return
        if action == "reset":
            reset(request)
            self._refused(told, "misbehaved: reset", arrived)
            return
        kind = told.get("kind", "untrusted") if action == "certificate" else "good"
        try:
            connection = self.cloud.certificates.context(kind).wrap_socket(
                request, server_side=True
            )
        except (OSError, ValueError) as error:
            self._refused(told, "handshake failed: %s" % error, arrived)
            return
        try:
            super().finish_request(connection, client_address)
        finally:
            connection.close()

    def _refused(self, told, verdict, arrived):
        self.cloud.requests.ended(self._log(told, verdict, arrived), 0, 0)

    def _log(self, told, verdict, arrived):
        entry = {"target": "https", "method": "-", "path": "-", "status": None,
                 "verdict": verdict}
        if self.target:
            entry["port-of"] = self.target
        if told:
            entry["misbehaviour"] = told
        return self.cloud.log(entry, arrived)


# --- one connection -----------------------------------------------------------


class CountedReader:
    """What a connection's requests are read from; knows how many bytes that were."""

    def __init__(self, file):
        self._file = file
        self.count = 0

    def _counted(self, data):
        self.count += len(data)
        return data

    def readline(self, *limit):
        return self._counted(self._file.readline(*limit))

    def read(self, *size):
        return self._counted(self._file.read(*size))

    def close(self):
        self._file.close()


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    timeout = IDLE_TIMEOUT
    disable_nagle_algorithm = True

    def setup(self):
        super().setup()
        self.rfile = CountedReader(self.rfile)
        self._counted = 0  # bytes of the requests before

    def parse_request(self):
        """Called when a request's first line has arrived."""
        self._arrived = time.monotonic()
        return super().parse_request()

    def log_message(self, *_):
        """The request log says it all."""

    def dispatch(self):
        request = self._read_request()
        if request is None:
            return
        cloud = self.server.cloud
        if not self.server.secure and self._is_for_people(request.path):
            self._counted = self.rfile.count
            self._answer_people(cloud, request)
            return
        target, environment, answer = cloud.service_of(request, self.server.secure)
        delivery = Delivery(self, cloud.scenario, target)
        told = cloud.scenario.take(target) if target else None
        if told is None:
            good = answer()
            logged = self._log(request, target, environment, good.status, good.verdict)
            self._finish(delivery, logged, lambda: delivery.send(good))
            return
        action = told["action"]
        stand_in = cloud.stand_in
        changed = stand_in.instead(told, target) or stand_in.changed(told, answer())
        status = None if action in ("reset", "hang") else changed.status
        logged = self._log(request, target, environment, status, "misbehaved: " + action, told)
        self._finish(delivery, logged, lambda: delivery.misbehave(told, changed))

    @staticmethod
    def _is_for_people(path):
        return path.partition("/control")[0] == "" or PageServer.takes(path)

    def _answer_people(self, cloud, request):
        """Control and page: neither logged nor told to misbehave."""
        try:
            cloud.check_caller(request, self.client_address[0])
        except Forbidden as why:
            self._send(guarded(json_answer({"error": str(why)}, 403)))
            return
        if not PageServer.takes(request.path):
            self._send(cloud.control(request))
        elif (request.method, request.path) != ("GET", "/page/stream"):
            self._send(cloud.page.answer(request))
        else:
            self.close_connection = True
            if not cloud.page.stream(request, self._write_piece):
                self._send(guarded(json_answer({"error": "too many pages are open"}, 503)))

    def _write_piece(self, data):
        """Whether it went out; the client has gone where not."""
        try:
            self.wfile.write(data)
            return True
        except (OSError, ValueError):
            return False

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
        request = Request(self.command, self.path, self.headers.items(), b"")
        logged = self._log(request, "", None, status, "refused: " + why)
        delivery = Delivery(self, self.server.cloud.scenario, "")
        self._finish(delivery, logged, lambda: delivery.send(json_answer({"error": why}, status)))

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
        return self.server.cloud.log(entry, self._arrived)

    def _finish(self, delivery, logged, send):
        """Sends the answer and adds to the log how that went."""
        bytes_in = self.rfile.count - self._counted
        self._counted = self.rfile.count
        try:
            send()
        finally:
            self.close_connection = delivery.close
            self.server.cloud.requests.ended(logged, bytes_in, delivery.sent)

    def _send(self, answer):
        delivery = Delivery(self, self.server.cloud.scenario, "")
        delivery.send(answer)
        self.close_connection = delivery.close
