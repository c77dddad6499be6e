"""The services of the product itself: configuration, terms of use, time, location."""

import json
import os
import re
from dataclasses import dataclass
from urllib.parse import urlsplit

from cryptography.hazmat.primitives.ciphers import Cipher, algorithms, modes

from answer import json_answer, refused

ENVIRONMENTS = ("prod", "dev", "acc")

# The headers that a device sends about itself, and the form of each value.
DEVICE_HEADERS = {
    "X-swversion": r".*",
    "X-CTN": r".*",
    "X-platform": r".*",
    "Accept-Language": r".*-.*",
    "X-mac": r"([0-9A-Fa-f]{2}(:[0-9A-Fa-f]{2}){5})?",
    "X-serial": r".*",
    "X-kivversion": r"#0x[0-9a-f]{7}",
    "X-pimversion": r".*",
    "X-currentTou": r"-1|[1-9][0-9]*",
}


class ServicesFileError(Exception):
    """The services file cannot be used; the text says why."""


@dataclass
class Environment:
    api_key: str
    storage_key: bytes
    config_path: str
    tou_path: str
    time_path: str


class Services:
    """What the local cloud needs of a services file."""

    def __init__(self, path):
        try:
            with open(path, encoding="utf-8") as file:
                document = json.load(file)
            members = document["environments"]
            self.environments = {name: _environment(members[name]) for name in ENVIRONMENTS}
            self.https_port = urlsplit(members["prod"]["config-url"]).port or 443
            geolocation = urlsplit(document["geolocation-url"])
            self.http_port = geolocation.port or 80
            self.geo_path = geolocation.path
            self.host = urlsplit(members["prod"]["config-url"]).hostname or "localhost"
            self.hosts = {"localhost", "127.0.0.1", self.host, geolocation.hostname or self.host}
            self.ports = _secure_ports(document, self.hosts)
            place = document["fallback-location"]
            self.location = {
                "ip": place["ip"],
                "city": place["city"],
                "region": place["region"],
                "country": place["country-code"],
                "loc": "%s,%s" % (place["lat"], place["lng"]),
            }
        except (OSError, ValueError) as error:
            raise ServicesFileError("%s: %s" % (path, error))
        except (KeyError, TypeError, AttributeError) as error:
            raise ServicesFileError("%s: missing or misplaced: %s" % (path, error))


def _secure_ports(document, hosts):
    """{HTTPS port: its target, where one kind of service alone has it, else None}"""
    users = {}
    for members in document["environments"].values():
        for target, name in (("config", "config-url"), ("tou", "tou-url"),
                             ("time", "web-time-url")):
            users.setdefault(urlsplit(members[name]).port or 443, set()).add(target)
    for target in ("firehose", "s3"):
        url = urlsplit(document.get(target + "-endpoint", ""))
        if url.hostname in hosts:
            users.setdefault(url.port or 443, set()).add(target)
    return {port: min(targets) if len(targets) == 1 else None for port, targets in users.items()}


def _environment(members):
    return Environment(
        api_key=members["api-key"],
        storage_key=members["storage-key"].encode("latin-1"),
        config_path=urlsplit(members["config-url"]).path,
        tou_path=urlsplit(members["tou-url"]).path,
        time_path=urlsplit(members["web-time-url"]).path,
    )


def encrypted(key, iv, text):
    """AES-128-CTR in hexadecimal, as the daemon decrypts it."""
    encryptor = Cipher(algorithms.AES(key), modes.CTR(iv)).encryptor()
    return (encryptor.update(text.encode()) + encryptor.finalize()).hex()


class Gateway:
    """Configuration, terms of use and time, as an API gateway with a function behind it."""

    def __init__(self, services, scenario):
        self._services = services
        self._scenario = scenario
        self.endpoint = ""  # https://localhost:PORT, once the port is known
        self.own_endpoints = {}  # target: the same, where the services file gives it a port

    def find(self, path):
        """(target, environment name) of a path of the product's services, else None."""
        for name, environment in self._services.environments.items():
            if path.startswith(environment.config_path):
                return "config", name
            if path == environment.tou_path:
                return "tou", name
            if path == environment.time_path:
                return "time", name
        return None

    def answer(self, request, target, name):
        environment = self._services.environments[name]
        if request.method != "GET":
            return refused({"message": "Missing Authentication Token"}, "not a GET")
        if request.header("x-api-key") != environment.api_key:
            return refused({"message": "Forbidden"}, "x-api-key")
        if target == "time":
            return json_answer({"environment": name})
        wrong = wrong_device_header(request)
        if wrong:
            return refused({"errorMessage": "Invalid request: header %s" % wrong}, wrong)
        if target == "tou":
            return json_answer(self._scenario.patched("tou", self._terms_of_use()))
        device = request.path[len(environment.config_path) :]
        if not device or "/" in device:
            return refused({"errorMessage": "Invalid device id"}, "device id")
        accepted = int(request.header("X-currentTou")) >= 1
        document = self.config_document(environment, accepted)
        return json_answer(self._scenario.config_document(document, device))

    def _terms_of_use(self):
        return {"version": 1, "url": self.endpoint + "/terms-of-use/1", "mandatory": False}

    def config_document(self, environment, accepted=True):
        """The document for a device whose user has accepted a version of the terms of use."""
        return {
            "version": "1.0",
            "kiv_tou": accepted,
            "expiry_tou": 600,
            "event-filter": {},
            "file-filter": {},
            "upload_events": {"max-delay": 3500, "max-size": 131072, "min-size": 16384},
            "firehose_endpoint": self.own_endpoints.get("firehose", self.endpoint),
            "firehose_stream": "kiv-eventsrc-stream-test",
            "s3_endpoint": self.own_endpoints.get("s3", self.endpoint),
            "s3_bucket": "norvane-ddump/kiv-test",
            "credentials": self._credentials(environment.storage_key),
        }

    def _credentials(self, key):
        now = self._scenario.credentials()
        iv = os.urandom(16)
        return {
            "iv": iv.hex(),
            "AccessKeyId": encrypted(key, iv, now.access_key_id),
            "SecretAccessKey": encrypted(key, iv, now.secret_access_key),
            "SessionToken": encrypted(key, iv, now.session_token),
        }


def wrong_device_header(request):
    """The name of the first device header that is missing or misshapen, None when all are good."""
    for name, form in DEVICE_HEADERS.items():
        value = request.header(name)
        if value is None or not re.fullmatch(form, value):
            return name
    return None


class Geolocation:
    def __init__(self, services, scenario):
        self._location = services.location
        self._scenario = scenario

    def answer(self):
        return json_answer(self._scenario.patched("geo", self._location))
