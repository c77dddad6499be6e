#!/usr/bin/python3
"""The local cloud and the scrambler of the service tables, seen from outside."""

import base64
import contextlib
import datetime
import hashlib
import http.client
import importlib.util
import json
import os
import select
import shutil
import signal
import socket
import ssl
import subprocess
import sys
import tempfile
import time
import unittest
from xml.etree import ElementTree

import botocore.config
import botocore.exceptions
import botocore.session
from botocore.auth import S3SigV4Auth, SigV4Auth
from botocore.awsrequest import AWSRequest
from botocore.credentials import Credentials
from cryptography.hazmat.primitives.ciphers import Cipher, algorithms, modes

sys.dont_write_bytecode = True
ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
LOCALCLOUD = os.path.join(ROOT, "localcloud", "localcloud.py")
SCRAMBLER = os.path.join(ROOT, "tools", "scramble_services.py")
SERVICES = os.path.join(ROOT, "services", "local.json")

STREAM = "kiv-eventsrc-stream-test"
DEVICE_HEADERS = {
    "X-swversion": "TPM191E_R.101.001.055.000",
    "X-CTN": "55PUS7304/12",
    "X-platform": "TPM191E",
    "Accept-Language": "en-BE",
    "X-mac": "00:11:22:aa:BB:cc",
    "X-serial": "SN0001",
    "X-kivversion": "#0x442c3c4",
    "X-pimversion": "",
    "X-currentTou": "1",
}


def load_module(path):
    spec = importlib.util.spec_from_file_location(os.path.basename(path)[:-3], path)
    module = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(module)
    return module


with open(SERVICES, encoding="utf-8") as services_file:
    SERVICES_DOCUMENT = json.load(services_file)


# --- a running local cloud ----------------------------------------------------


class Response:
    def __init__(self, status, headers, body):
        self.status = status
        self.headers = headers
        self.body = body

    def json(self):
        return json.loads(self.body)

    def xml(self):
        return {element.tag: element.text for element in ElementTree.fromstring(self.body)}


class Cloud:
    """A process of the local cloud on free ports, with a state directory."""

    def __init__(self, state, *options):
        self.state = state
        command = [LOCALCLOUD, "--state", state, "--https-port", "0", "--http-port", "0"]
        self.process = subprocess.Popen(
            command + list(options), stdout=subprocess.PIPE, text=True,
            env={**os.environ, "PYTHONDONTWRITEBYTECODE": "1"},
        )
        self.ready_line = self.process.stdout.readline()
        word, *pairs = self.ready_line.split()
        assert word == "ready", self.ready_line
        self.values = dict(pair.split("=", 1) for pair in pairs)
        self.https = int(self.values["https"])
        self.http = int(self.values["http"])
        self.trust = ssl.create_default_context(cafile=self.values["ca"])

    def stop(self):
        self.process.terminate()
        status = self.process.wait(10)
        self.process.stdout.close()
        return status

    def request(self, method, path, body=None, headers=None, plain=False, port=None):
        if plain:
            connection = http.client.HTTPConnection("127.0.0.1", self.http, timeout=10)
        else:
            connection = http.client.HTTPSConnection(
                "localhost", port or self.https, timeout=10, context=self.trust
            )
        try:
            connection.putrequest(method, path, skip_host=True, skip_accept_encoding=True)
            all_headers = {"Host": "localhost:%d" % (self.http if plain else port or self.https)}
            all_headers.update(headers or {})
            if body is not None:
                all_headers.setdefault("Content-Length", str(len(body)))
            for name, value in all_headers.items():
                connection.putheader(name, value)
            connection.endheaders(body)
            answer = connection.getresponse()
            return Response(answer.status, answer.headers, answer.read())
        finally:
            connection.close()

    def control(self, document):
        answer = self.request("POST", "/control", json.dumps(document).encode(), plain=True)
        assert answer.status == 200, answer.body
        return answer.json()

    def misbehave(self, target, **action):
        self.control({"misbehave": {target: action}})

    def log(self):
        with open(os.path.join(self.state, "requests.jsonl"), encoding="utf-8") as file:
            return [json.loads(line) for line in file if line.endswith("\n")]

    def state_now(self):
        return self.request("GET", "/control/state", plain=True).json()

    def requests_since(self, number=0):
        return self.request("GET", "/control/requests?since=%d" % number, plain=True).json()

    def connect(self):
        """A bare TLS connection."""
        raw = socket.create_connection(("127.0.0.1", self.https), timeout=10)
        return self.trust.wrap_socket(raw, server_hostname="localhost")

    # --- the product's services ---

    def device_get(self, path, key, headers=None):
        return self.request("GET", path, headers={"x-api-key": key, **(headers or DEVICE_HEADERS)})

    def config(self, device="TV-1", environment="prod"):
        key = SERVICES_DOCUMENT["environments"][environment]["api-key"]
        return self.device_get("/%s/config/%s" % (environment, device), key)

    def time(self, port=None):
        headers = {"x-api-key": PROD["api-key"]}
        return self.request("GET", "/prod/time", headers=headers, port=port)

    # --- the cloud services ---

    def keys(self):
        return Credentials(
            "ASIALOCALCLOUD000001",
            "local/cloud+secret/access/key/0000000001",
            "local-cloud-session-token-0001",
        )

    def sign(self, service, method, path, body=b"", headers=None, keys=None,
             region="eu-west-1", named=None, at=None, unsigned=False):
        """Headers of a request, signed by botocore."""
        url = "https://localhost:%d%s" % (self.https, path)
        request = AWSRequest(method, url, headers=headers or {}, data=body)
        request.context["payload_signing_enabled"] = service != "s3"
        kind = S3SigV4Auth if service == "s3" else SigV4Auth
        signer = kind(keys or self.keys(), named or service, region)
        # The steps of add_auth, which would take the time now.
        request.context["timestamp"] = (at or utc_now()).strftime("%Y%m%dT%H%M%SZ")
        signer._modify_request_before_signing(request)
        if unsigned:
            del request.headers["X-Amz-Content-SHA256"]
            request.headers["X-Amz-Content-SHA256"] = "UNSIGNED-PAYLOAD"
        text = signer.string_to_sign(request, signer.canonical_request(request))
        signer._inject_signature_to_request(request, signer.signature(text, request))
        return dict(request.headers.items())

    def put_record(self, data=b"{}\n", stream=STREAM, body=None, change=None, headers=None, **sign):
        if body is None:
            record = {"Data": base64.b64encode(data).decode()}
            body = json.dumps({"DeliveryStreamName": stream, "Record": record}).encode()
        told = {
            "content-type": "application/x-amz-json-1.1",
            "x-amz-target": "Firehose_20150804.PutRecord",
            "x-amz-content-sha256": hashlib.sha256(body).hexdigest(),
            **(headers or {}),
        }
        signed = self.sign("firehose", "POST", "/", body, told, **sign)
        return self.request("POST", "/", body, changed(signed, change))

    def put_object(self, path, body, change=None, headers=None, **sign):
        told = {"content-type": "text/plain", "content-md5": md5(body), **(headers or {})}
        signed = self.sign("s3", "PUT", path, body, told, **sign)
        return self.request("PUT", path, body, changed(signed, change))

    def get_object(self, path, unsigned=False):
        return self.request("GET", path, headers=self.sign("s3", "GET", path, unsigned=unsigned))


PROD = SERVICES_DOCUMENT["environments"]["prod"]


def utc_now():
    return datetime.datetime.now(datetime.timezone.utc)


def md5(body):
    return base64.b64encode(hashlib.md5(body).digest()).decode()


def changed(headers, change):
    """Headers after signing: a new value, or None to leave one out."""
    result = {name.lower(): value for name, value in headers.items()}
    for name, value in (change or {}).items():
        result.pop(name)
        if value is not None:
            result[name] = value
    return result


def decrypt(key, iv, text):
    decryptor = Cipher(algorithms.AES(key.encode()), modes.CTR(bytes.fromhex(iv))).decryptor()
    return (decryptor.update(bytes.fromhex(text)) + decryptor.finalize()).decode()


class CloudTest(unittest.TestCase):
    """One process for all tests of a class; every test starts with it well behaved."""

    OPTIONS = ()

    @classmethod
    def setUpClass(cls):
        cls.directory = tempfile.mkdtemp(prefix="localcloud-test-")
        cls.addClassCleanup(shutil.rmtree, cls.directory)
        cls.cloud = Cloud(os.path.join(cls.directory, "state"), *cls.OPTIONS)
        cls.addClassCleanup(cls.cloud.stop)

    def setUp(self):
        self.cloud.control({"clear": True})

    def assert_refused(self, answer, status, document):
        self.assertEqual((answer.status, answer.json()), (status, document))
        self.assertRegex(self.cloud.log()[-1]["verdict"], "^refused: ")

    def assert_firehose_error(self, answer, name, message=None):
        self.assertEqual(answer.status, 400, answer.body)
        self.assertEqual(answer.headers["Content-Type"], "application/x-amz-json-1.1")
        self.assertEqual(answer.json()["__type"], name, answer.body)
        if message is not None:
            self.assertEqual(answer.json()["message"], message)
        self.assertRegex(self.cloud.log()[-1]["verdict"], "^refused: " + name)

    def assert_s3_error(self, answer, status, code, **elements):
        document = answer.xml()
        self.assertEqual((answer.status, document["Code"]), (status, code), answer.body)
        self.assertEqual(answer.headers["Content-Type"], "application/xml")
        self.assertTrue(document["Message"] and document["RequestId"])
        for name, value in elements.items():
            self.assertEqual(document[name], value)
        self.assertRegex(self.cloud.log()[-1]["verdict"], "^refused: " + code)

    def records(self, stream=STREAM):
        directory = os.path.join(self.cloud.state, "records", stream)
        names = os.listdir(directory) if os.path.isdir(directory) else []
        return sorted(name for name in names if name != "index.jsonl")

    def read(self, *parts):
        with open(os.path.join(self.cloud.state, *parts), "rb") as file:
            return file.read()


# --- configuration, terms of use, time, location ------------------------------


class ConfigurationTest(CloudTest):
    #: The local cloud answers each environment's address with the configuration document,
    #: whose credentials are encrypted with that environment's storage key.
    def test_GivesEveryEnvironmentItsConfigurationWithCredentialsUnderItsOwnKey(self):
        for name, environment in SERVICES_DOCUMENT["environments"].items():
            answer = self.cloud.config(environment=name)
            self.assertEqual(answer.status, 200)
            document = answer.json()
            sealed = document.pop("credentials")
            endpoint = "https://localhost:%d" % self.cloud.https
            self.assertEqual(document, {
                "version": "1.0", "kiv_tou": True, "expiry_tou": 600,
                "event-filter": {}, "file-filter": {},
                "upload_events": {"max-delay": 3500, "max-size": 131072, "min-size": 16384},
                "firehose_endpoint": endpoint, "firehose_stream": STREAM,
                "s3_endpoint": endpoint, "s3_bucket": "norvane-ddump/kiv-test",
            })
            opened = {
                key: decrypt(environment["storage-key"], sealed["iv"], sealed[key])
                for key in ("AccessKeyId", "SecretAccessKey", "SessionToken")
            }
            keys = self.cloud.keys()
            self.assertEqual(opened, {"AccessKeyId": keys.access_key,
                                      "SecretAccessKey": keys.secret_key,
                                      "SessionToken": keys.token})

    #: The local cloud encrypts the credentials of each configuration with a new
    #: initialisation vector.
    def test_TakesAFreshInitialisationVectorEveryTime(self):
        first, second = (self.cloud.config().json()["credentials"]["iv"] for _ in range(2))
        self.assertEqual((len(first), len(second)), (32, 32))
        self.assertNotEqual(first, second)

    #: The local cloud answers 403 "Forbidden" when a device sends the API key of another
    #: environment.
    def test_RefusesAnotherEnvironmentsApiKey(self):
        key = SERVICES_DOCUMENT["environments"]["dev"]["api-key"]
        for path in ("/prod/config/TV-1", "/prod/tou", "/prod/time"):
            answer = self.cloud.device_get(path, key)
            self.assert_refused(answer, 403, {"message": "Forbidden"})

    #: The local cloud answers 403 "Forbidden" when a device sends no API key.
    def test_RefusesARequestWithoutApiKey(self):
        answer = self.cloud.request("GET", "/prod/config/TV-1", headers=DEVICE_HEADERS)
        self.assert_refused(answer, 403, {"message": "Forbidden"})

    #: When a device header is missing the local cloud answers 403 and names the header.
    def test_RefusesEachMissingDeviceHeader(self):
        for path in ("/prod/config/TV-1", "/prod/tou"):
            for name in DEVICE_HEADERS:
                left = {key: value for key, value in DEVICE_HEADERS.items() if key != name}
                answer = self.cloud.device_get(path, PROD["api-key"], left)
                text = "Invalid request: header " + name
                self.assert_refused(answer, 403, {"errorMessage": text})

    #: When a device header does not have its documented form the local cloud answers 403
    #: and names the header.
    def test_RefusesMisshapenDeviceHeaders(self):
        wrong = (
            ("Accept-Language", "en"), ("X-mac", "00-11-22-33-44-55"), ("X-mac", "00:11:22"),
            ("X-kivversion", "0x442c3c4"), ("X-kivversion", "#0x442C3C4"),
            ("X-kivversion", "#0x42c3c4"), ("X-currentTou", "0"), ("X-currentTou", ""),
        )
        for name, value in wrong:
            headers = {**DEVICE_HEADERS, name: value}
            answer = self.cloud.device_get("/prod/config/TV-1", PROD["api-key"], headers)
            self.assert_refused(answer, 403, {"errorMessage": "Invalid request: header " + name})

    #: The local cloud accepts an empty MAC address and an empty serial number, which a
    #: device may send.
    def test_TakesEmptyValuesThatADeviceMaySend(self):
        headers = {**DEVICE_HEADERS, "X-mac": "", "X-serial": "", "X-currentTou": "12"}
        answer = self.cloud.device_get("/prod/config/TV-1", PROD["api-key"], headers)
        self.assertEqual(answer.status, 200)

    #: The local cloud answers 403 when the configuration is asked for without a device
    #: identifier.
    def test_RefusesAnEmptyDeviceId(self):
        self.assert_refused(self.cloud.config(""), 403, {"errorMessage": "Invalid device id"})

    #: The local cloud answers 403 to a POST where a device may only GET.
    def test_RefusesAnotherMethod(self):
        headers = {"x-api-key": PROD["api-key"], **DEVICE_HEADERS}
        answer = self.cloud.request("POST", "/prod/config/TV-1", b"{}", headers)
        self.assert_refused(answer, 403, {"message": "Missing Authentication Token"})

    #: A test can change members of the configuration for all devices or for one, and take
    #: the changes back.
    def test_OverridesTheDocumentForAllDevicesAndForOne(self):
        self.cloud.control({"config": {
            "*": {"kiv_tou": False, "upload_events": {"min-size": 7}},
            "TV-2": {"expiry_tou": 5, "credentials": None, "event-filter": {"include": ["a"]}},
        }})
        one, two = self.cloud.config("TV-1").json(), self.cloud.config("TV-2").json()
        for document in (one, two):
            self.assertIs(document["kiv_tou"], False)
            expected = {"max-delay": 3500, "max-size": 131072, "min-size": 7}
            self.assertEqual(document["upload_events"], expected)
        self.assertEqual((one["expiry_tou"], two["expiry_tou"]), (600, 5))
        self.assertEqual(two["event-filter"], {"include": ["a"]})
        self.assertIn("credentials", one)
        self.assertNotIn("credentials", two)
        self.cloud.control({"config": {"*": None}})
        self.assertIs(self.cloud.config("TV-2").json()["kiv_tou"], True)
        self.assertEqual(self.cloud.config("TV-2").json()["expiry_tou"], 5)
        self.cloud.control({"config": None})
        self.assertEqual(self.cloud.config("TV-2").json()["expiry_tou"], 600)

    #: The local cloud knows of consent only where the device tells of an accepted version of
    #: the terms, unless the document is overridden.
    def test_KnowsOfConsentWhereTheDeviceTellsOfAnAcceptedVersion(self):
        def consent(version):
            headers = {**DEVICE_HEADERS, "X-currentTou": version}
            path = "/prod/config/TV-1"
            return self.cloud.device_get(path, PROD["api-key"], headers).json()["kiv_tou"]

        self.assertEqual([consent(version) for version in ("-1", "1", "12")], [False, True, True])
        self.cloud.control({"config": {"*": {"kiv_tou": True}}})
        self.assertIs(consent("-1"), True)
        self.cloud.control({"config": {"*": {"kiv_tou": False}}})
        self.assertIs(consent("1"), False)

    #: The local cloud answers the terms of use as told.
    def test_AnswersTheTermsOfUseAsTold(self):
        get = lambda: self.cloud.device_get("/acc/tou", "local-acc-api-key-c05a6d").json()
        url = "https://localhost:%d/terms-of-use/1" % self.cloud.https
        self.assertEqual(get(), {"version": 1, "url": url, "mandatory": False})
        self.cloud.control({"tou": {"version": 2, "mandatory": True}})
        self.assertEqual(get(), {"version": 2, "url": url, "mandatory": True})

    #: A test can move the clock of the local cloud; the Date header of its answers follows.
    def test_DatesItsAnswersByItsClock(self):
        def ahead():
            date = http_seconds(self.cloud.time().headers["Date"])
            return date - time.time()

        self.assertAlmostEqual(ahead(), 0, delta=5)
        self.cloud.control({"clock-offset": -86400})
        self.assertAlmostEqual(ahead(), -86400, delta=5)

    #: The local cloud answers a request for the time that has the API key but no device
    #: headers.
    def test_AnswersTheTimeWithoutDeviceHeaders(self):
        self.assertEqual(self.cloud.time().status, 200)

    #: The local cloud answers the request for the place over plain HTTP; a test can change
    #: the place.
    def test_GivesTheLocationOverPlainHttp(self):
        get = lambda: self.cloud.request("GET", "/json", plain=True).json()
        self.assertEqual(get(), {"ip": "192.0.2.1", "city": "Brussels", "country": "BE",
                                 "region": "Brussels Capital", "loc": "50.85,4.35"})
        self.cloud.control({"geo": {"loc": "1,2,3", "city": None}})
        self.assertEqual(get()["loc"], "1,2,3")
        self.assertNotIn("city", get())

    #: The local cloud writes a line for each request with its target, environment, path,
    #: headers, answer and time.
    def test_LogsWhatWasAsked(self):
        self.cloud.config("TV-9", "dev")
        line = self.cloud.log()[-1]
        self.assertEqual((line["target"], line["environment"], line["method"], line["path"],
                          line["status"], line["verdict"], line["bytes"]),
                         ("config", "dev", "GET", "/dev/config/TV-9", 200, "accepted", 0))
        for name, value in DEVICE_HEADERS.items():
            self.assertEqual(line["headers"][name], value)
        self.assertRegex(line["time"], r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z$")


def http_seconds(text):
    form = "%a, %d %b %Y %H:%M:%S GMT"
    moment = datetime.datetime.strptime(text, form).replace(tzinfo=datetime.timezone.utc)
    return moment.timestamp()


# --- Firehose -----------------------------------------------------------------


class FirehoseTest(CloudTest):
    def assert_not_kept(self, before):
        self.assertEqual(self.records(), before)

    #: The local cloud keeps each accepted record as a file of its decoded bytes, numbered
    #: in the order of arrival, and lists it in an index.
    def test_KeepsRecordsDecodedAndInOrder(self):
        before = len(self.records())
        ids = [self.cloud.put_record(b'{"n":%d}\n' % n).json()["RecordId"] for n in range(3)]
        self.assertEqual(len(set(ids)), 3)
        names = ["%06d.json" % (before + n + 1) for n in range(3)]
        self.assertEqual(self.records()[before:], names)
        for n, name in enumerate(names):
            self.assertEqual(self.read("records", STREAM, name), b'{"n":%d}\n' % n)
        lines = self.read("records", STREAM, "index.jsonl").splitlines()
        index = [json.loads(line) for line in lines]
        self.assertEqual([entry["file"] for entry in index][before:], names)
        self.assertEqual([entry["record-id"] for entry in index][before:], ids)
        self.assertEqual(self.cloud.log()[-1]["verdict"], "accepted")

    #: The AWS client for Python can put a record into the local cloud, and reads its
    #: refusal as it reads the real service's.
    def test_TakesARealClientsCallAndTellsItsErrors(self):
        client = aws_client(self.cloud, "firehose")
        self.addCleanup(client.close)
        answer = client.put_record(DeliveryStreamName=STREAM, Record={"Data": b"\x00\xff"})
        self.assertTrue(answer["RecordId"])
        self.assertEqual(self.read("records", STREAM, self.records()[-1]), b"\x00\xff")
        with self.assertRaises(botocore.exceptions.ClientError) as raised:
            client.put_record(DeliveryStreamName="other", Record={"Data": b"x"})
        self.assertEqual(raised.exception.response["Error"]["Code"], "ResourceNotFoundException")

    #: The local cloud refuses a request that was signed with a wrong secret, names a wrong
    #: key or token, or was changed after it was signed, with the service's own error, and
    #: keeps nothing.
    def test_RefusesTamperedRequests(self):
        text = (
            "The request signature we calculated does not match the signature you provided. Check "
            "your AWS Secret Access Key and signing method. Consult the service documentation for "
            "details."
        )
        before = self.records()
        token = "The security token included in the request is invalid."
        keys = self.cloud.keys()
        wrong_secret = Credentials(keys.access_key, "wrong", keys.token)
        other_key = Credentials("ASIAOTHER", keys.secret_key, keys.token)
        other_token = Credentials(keys.access_key, keys.secret_key, "wrong")
        no_token = Credentials(keys.access_key, keys.secret_key)
        put = self.cloud.put_record
        digest = hashlib.sha256(b"other").hexdigest()
        self.assert_firehose_error(put(keys=wrong_secret), "InvalidSignatureException", text)
        self.assert_firehose_error(
            put(change={"x-amz-content-sha256": digest}), "InvalidSignatureException", text
        )
        self.assert_firehose_error(
            put(headers={"x-amz-content-sha256": digest}), "InvalidSignatureException", text
        )
        self.assert_firehose_error(
            put(headers={"x-amz-content-sha256": "UNSIGNED-PAYLOAD"}), "InvalidSignatureException"
        )
        self.assert_firehose_error(put(keys=other_key), "UnrecognizedClientException", token)
        self.assert_firehose_error(put(keys=other_token), "UnrecognizedClientException", token)
        self.assert_firehose_error(put(keys=no_token), "UnrecognizedClientException", token)
        self.assert_firehose_error(
            put(change={"x-amz-security-token": None}), "UnrecognizedClientException", token
        )
        self.assert_not_kept(before)

    #: The local cloud refuses a record whose body was changed after it was signed.
    def test_RefusesABodyChangedAfterSigning(self):
        before = self.records()
        body = json.dumps({"DeliveryStreamName": STREAM, "Record": {"Data": "QQ=="}}).encode()
        headers = {"content-type": "application/x-amz-json-1.1",
                   "x-amz-target": "Firehose_20150804.PutRecord"}
        signed = self.cloud.sign("firehose", "POST", "/", body, headers)
        answer = self.cloud.request("POST", "/", body.replace(b"QQ", b"Qg"), signed)
        self.assert_firehose_error(answer, "InvalidSignatureException")
        self.assertEqual(self.cloud.request("POST", "/", body, signed).status, 200)
        self.assertEqual(len(self.records()), len(before) + 1)

    #: The local cloud refuses a request without an authorization or a date, or with one
    #: that it cannot read.
    def test_RefusesRequestsWithoutAProperAuthorization(self):
        put = self.cloud.put_record
        self.assert_firehose_error(
            put(change={"authorization": None}),
            "MissingAuthenticationTokenException", "Missing Authentication Token",
        )
        self.assert_firehose_error(
            put(change={"authorization": "AWS4-HMAC-SHA256 Credential=a"}),
            "IncompleteSignatureException",
        )
        self.assert_firehose_error(put(change={"x-amz-date": None}), "IncompleteSignatureException")
        self.assert_firehose_error(
            put(change={"x-amz-date": "20261399T000000Z"}), "IncompleteSignatureException"
        )

    #: The local cloud refuses a signature that was made for another region or another
    #: service.
    def test_RefusesAnotherRegionOrService(self):
        put = self.cloud.put_record
        self.assert_firehose_error(
            put(region="us-east-1"), "InvalidSignatureException",
            "Credential should be scoped to a valid region, not 'us-east-1'. ",
        )
        self.assert_firehose_error(
            put(named="s3"), "InvalidSignatureException",
            "Credential should be scoped to correct service: 'firehose'. ",
        )

    #: The local cloud refuses a signature whose scope names another day than its date.
    def test_RefusesACredentialScopeOfAnotherDay(self):
        signed = self.cloud.sign("firehose", "POST", "/", b"{}")
        good = signed["Authorization"].split("/")
        change = {"authorization": "/".join([good[0], "20200102"] + good[2:])}
        answer = self.cloud.put_record(change=change)
        self.assert_firehose_error(answer, "InvalidSignatureException")
        self.assertRegex(answer.json()["message"], "^Date in Credential scope does not match ")

    #: The local cloud refuses a request dated more than 15 minutes before or after its
    #: clock.
    def test_RefusesADateMoreThanFifteenMinutesOff(self):
        now = utc_now()
        for minutes, good in ((-16, False), (-14, True), (14, True), (16, False)):
            answer = self.cloud.put_record(at=now + datetime.timedelta(minutes=minutes))
            if good:
                self.assertEqual(answer.status, 200)
            else:
                self.assert_firehose_error(answer, "InvalidSignatureException")
                self.assertIn("Signature not within 15 min", answer.json()["message"])

    #: When a test has moved the clock of the local cloud, the dates of requests are judged
    #: by that clock.
    def test_JudgesTheDateByItsOwnClock(self):
        self.cloud.control({"clock-offset": 7200})
        self.assert_firehose_error(self.cloud.put_record(), "InvalidSignatureException")
        later = utc_now() + datetime.timedelta(hours=2)
        self.assertEqual(self.cloud.put_record(at=later).status, 200)

    #: The local cloud refuses a request with an "x-amz-" header that its signature does not
    #: cover.
    def test_RefusesAnAmzHeaderThatIsNotSigned(self):
        body = b"{}"
        headers = {"content-type": "application/x-amz-json-1.1"}
        signed = self.cloud.sign("firehose", "POST", "/", body, headers)
        signed["x-amz-target"] = "Firehose_20150804.PutRecord"
        self.assert_firehose_error(
            self.cloud.request("POST", "/", body, signed), "InvalidSignatureException",
            "'x-amz-target' must be a 'SignedHeader' in the AWS Authorization.",
        )

    #: The local cloud refuses any operation of the stream service but PutRecord, and any
    #: other content type.
    def test_RefusesAnotherOperationOrContentType(self):
        put = self.cloud.put_record
        for headers in ({"x-amz-target": "Firehose_20150804.PutRecordBatch"},
                        {"content-type": "application/json"}):
            self.assert_firehose_error(put(headers=headers), "UnknownOperationException")
        answer = self.cloud.request("GET", "/")
        self.assert_firehose_error(answer, "UnknownOperationException")

    #: The local cloud refuses a record for an unknown stream until a test or a
    #: configuration names the stream.
    def test_RefusesAnUnknownStreamUntilItIsNamed(self):
        answer = self.cloud.put_record(stream="second")
        self.assert_firehose_error(
            answer, "ResourceNotFoundException",
            "Firehose second under account 000000000000 not found.",
        )
        self.cloud.control({"streams": ["second"]})
        self.assertEqual(self.cloud.put_record(stream="second").status, 200)
        self.cloud.control({"streams": None, "config": {"TV": {"firehose_stream": "third"}}})
        self.assertEqual(self.cloud.put_record(stream="third").status, 200)
        self.assertEqual(self.cloud.put_record(stream="second").status, 400)
        self.assertEqual(self.records("third"), ["000001.json"])

    #: The local cloud accepts a record of 1000 KiB and refuses a larger one, as the real
    #: service does.
    def test_TakesARecordOfOneThousandKibAndNoMore(self):
        self.assertEqual(self.cloud.put_record(b"x" * 1024000).status, 200)
        before = self.records()
        answer = self.cloud.put_record(b"x" * 1024001)
        self.assert_firehose_error(answer, "ValidationException")
        self.assert_not_kept(before)

    #: The local cloud refuses a PutRecord document that is broken, lacks a member or has
    #: one of a wrong type.
    def test_RefusesBadDocuments(self):
        stream = '"DeliveryStreamName": "%s"' % STREAM
        for body, name in (
            ("{", "SerializationException"), ("[]", "SerializationException"),
            ("{}", "ValidationException"), ("{%s}" % stream, "ValidationException"),
            ('{%s, "Record": {"Data": 1}}' % stream, "SerializationException"),
            ('{%s, "Record": {"Data": "***"}}' % stream, "SerializationException"),
            ('{"DeliveryStreamName": "", "Record": {"Data": ""}}', "ValidationException"),
        ):
            self.assert_firehose_error(self.cloud.put_record(body=body.encode()), name)

    #: A test can change the credentials: the new ones are in the next configuration, and
    #: the old ones are refused.
    def test_KnowsTheCredentialsItWasTold(self):
        old = self.cloud.keys()
        self.cloud.control({"credentials": {"access-key-id": "AKIANEW", "session-token": ""}})
        self.assert_firehose_error(self.cloud.put_record(keys=old), "UnrecognizedClientException")
        self.assertEqual(
            self.cloud.put_record(keys=Credentials("AKIANEW", old.secret_key)).status, 200
        )
        sealed = self.cloud.config().json()["credentials"]
        key = decrypt(PROD["storage-key"], sealed["iv"], sealed["AccessKeyId"])
        self.assertEqual((key, sealed["SessionToken"]), ("AKIANEW", ""))

    #: When a test declares the credentials expired the local cloud refuses them with the
    #: service's own error.
    def test_RefusesExpiredCredentials(self):
        self.cloud.control({"credentials": {"expired": True}})
        self.assert_firehose_error(
            self.cloud.put_record(), "ExpiredTokenException",
            "The security token included in the request is expired",
        )


def aws_client(cloud, service):
    keys = cloud.keys()
    session = botocore.session.Session()
    return session.create_client(
        service,
        region_name="eu-west-1",
        endpoint_url="https://localhost:%d" % cloud.https,
        verify=cloud.values["ca"],
        aws_access_key_id=keys.access_key,
        aws_secret_access_key=keys.secret_key,
        aws_session_token=keys.token,
        config=botocore.config.Config(
            s3={"addressing_style": "path"}, retries={"total_max_attempts": 1}
        ),
    )


# --- S3 -----------------------------------------------------------------------


class ObjectTest(CloudTest):
    #: The local cloud keeps an uploaded object as a file, lists it in an index with key,
    #: type and size, and gives it back.
    def test_KeepsAnObjectAndGivesItBack(self):
        path = "/norvane-ddump/kiv-test/dir/a%20file%2B1.txt"
        body = bytes(range(256))
        answer = self.cloud.put_object(path, body)
        self.assertEqual((answer.status, answer.body), (200, b""))
        self.assertEqual(answer.headers["ETag"], '"%s"' % hashlib.md5(body).hexdigest())
        kept = self.read("objects", "norvane-ddump", "kiv-test", "dir", "a file+1.txt")
        self.assertEqual(kept, body)
        sent = self.cloud.log()[-1]["headers"]
        self.assertEqual(sent["x-amz-content-sha256"], "UNSIGNED-PAYLOAD")
        entry = json.loads(self.read("objects", "index.jsonl").splitlines()[-1])
        self.assertEqual((entry["bucket"], entry["key"], entry["content-type"], entry["bytes"]),
                         ("norvane-ddump", "kiv-test/dir/a file+1.txt", "text/plain", 256))
        for unsigned in (False, True):
            answer = self.cloud.get_object(path, unsigned)
            self.assertEqual((answer.status, answer.body), (200, body))
            self.assertEqual(answer.headers["Content-Type"], "text/plain")

    #: The local cloud keeps an object of no bytes and gives it back.
    def test_KeepsAnEmptyObject(self):
        self.assertEqual(self.cloud.put_object("/norvane-ddump/empty", b"").status, 200)
        self.assertEqual(self.read("objects", "norvane-ddump", "empty"), b"")
        self.assertEqual(self.cloud.get_object("/norvane-ddump/empty").body, b"")

    #: The AWS client for Python can put and get objects of the local cloud, and reads its
    #: refusals as it reads the real service's.
    def test_TakesARealClientsCallsAndTellsItsErrors(self):
        client = aws_client(self.cloud, "s3")
        self.addCleanup(client.close)
        client.put_object(Bucket="norvane-ddump", Key="x/y z", Body=b"hello")
        answer = client.get_object(Bucket="norvane-ddump", Key="x/y z")
        self.assertEqual(answer["Body"].read(), b"hello")
        with self.assertRaises(botocore.exceptions.ClientError) as raised:
            client.get_object(Bucket="norvane-ddump", Key="none")
        self.assertEqual(raised.exception.response["Error"]["Code"], "NoSuchKey")
        with self.assertRaises(botocore.exceptions.ClientError) as raised:
            client.put_object(Bucket="nowhere", Key="k", Body=b"x")
        self.assertEqual(raised.exception.response["Error"]["Code"], "NoSuchBucket")

    #: When an upload says "Expect: 100-continue" the local cloud asks for the body before
    #: it is sent.
    def test_AsksForTheBodyBeforeItIsSent(self):
        path, body = "/norvane-ddump/expect", b"late body"
        headers = {"content-type": "text/plain", "content-md5": md5(body)}
        signed = self.cloud.sign("s3", "PUT", path, body, headers)
        with self.cloud.connect() as connection:
            lines = ["PUT %s HTTP/1.1" % path, "Host: localhost:%d" % self.cloud.https,
                     "Content-Length: %d" % len(body), "Expect: 100-continue"]
            lines += ["%s: %s" % header for header in signed.items()]
            connection.sendall(("\r\n".join(lines) + "\r\n\r\n").encode())
            self.assertEqual(connection.recv(1000), b"HTTP/1.1 100 Continue\r\n\r\n")
            connection.sendall(body)
            self.assertTrue(connection.recv(1000).startswith(b"HTTP/1.1 200 OK\r\n"))
        self.assertEqual(self.read("objects", "norvane-ddump", "expect"), body)

    #: The local cloud refuses a request that was signed with a wrong secret, names a wrong
    #: key or token, or was changed after it was signed, with the service's own error, and
    #: keeps nothing.
    def test_RefusesTamperedRequests(self):
        keys, path = self.cloud.keys(), "/norvane-ddump/tampered"
        put = lambda **options: self.cloud.put_object(path, b"body", **options)
        wrong_secret = Credentials(keys.access_key, "wrong", keys.token)
        other_key = Credentials("ASIAOTHER", keys.secret_key, keys.token)
        other_token = Credentials(keys.access_key, keys.secret_key, "wrong")
        no_token = Credentials(keys.access_key, keys.secret_key)
        self.assert_s3_error(put(keys=wrong_secret), 403, "SignatureDoesNotMatch",
                             AWSAccessKeyId=keys.access_key)
        self.assert_s3_error(put(change={"content-type": "a/b"}), 403, "SignatureDoesNotMatch")
        self.assert_s3_error(put(keys=other_key), 403, "InvalidAccessKeyId",
                             AWSAccessKeyId="ASIAOTHER")
        self.assert_s3_error(put(keys=other_token), 400, "InvalidToken", **{"Token-0": "wrong"})
        self.assert_s3_error(put(keys=no_token), 403, "InvalidAccessKeyId")
        self.assert_s3_error(put(change={"authorization": None}), 403, "AccessDenied",
                             Message="Access Denied")
        self.assert_s3_error(put(change={"x-amz-content-sha256": None}), 400, "InvalidRequest")
        self.assert_s3_error(put(change={"x-amz-date": None}), 403, "AccessDenied")
        self.assert_s3_error(self.cloud.get_object(path), 404, "NoSuchKey", Key="tampered")

    #: The local cloud refuses a request whose signature was made for another path.
    def test_RefusesASignatureOfAnotherPath(self):
        signed = self.cloud.sign("s3", "GET", "/norvane-ddump/a")
        answer = self.cloud.request("GET", "/norvane-ddump/b", headers=signed)
        self.assert_s3_error(answer, 403, "SignatureDoesNotMatch")

    #: The local cloud refuses an upload that was signed for another region or service, or
    #: is dated 16 minutes ago.
    def test_RefusesAnotherRegionServiceOrTime(self):
        put = lambda **options: self.cloud.put_object("/norvane-ddump/scope", b"", **options)
        self.assert_s3_error(put(region="us-east-1"), 400, "AuthorizationHeaderMalformed",
                             Region="eu-west-1")
        self.assert_s3_error(put(named="firehose"), 400, "AuthorizationHeaderMalformed")
        late = utc_now() - datetime.timedelta(minutes=16)
        self.assert_s3_error(put(at=late), 403, "RequestTimeTooSkewed",
                             MaxAllowedSkewMilliseconds="900000",
                             RequestTime=late.strftime("%Y%m%dT%H%M%SZ"))

    #: When a test declares the credentials expired the local cloud refuses them with the
    #: service's own error.
    def test_RefusesExpiredCredentials(self):
        self.cloud.control({"credentials": {"expired": True}})
        self.assert_s3_error(self.cloud.put_object("/norvane-ddump/e", b""), 400, "ExpiredToken")

    #: The local cloud refuses an object whose body does not have the MD5 or SHA-256 digest
    #: that the headers name.
    def test_ChecksTheDigestsOfTheBody(self):
        put = self.cloud.put_object
        path = "/norvane-ddump/digest"
        self.assert_s3_error(
            put(path, b"a", headers={"content-md5": md5(b"b")}), 400, "BadDigest",
            ExpectedDigest=md5(b"b"), CalculatedDigest=md5(b"a"),
        )
        for bad in ("AAAA", "?"):
            answer = put(path, b"a", headers={"content-md5": bad})
            self.assert_s3_error(answer, 400, "InvalidDigest")
        body = b"signed body"
        request = AWSRequest("PUT", "https://localhost:%d%s" % (self.cloud.https, path), data=body)
        S3SigV4Auth(self.cloud.keys(), "s3", "eu-west-1").add_auth(request)
        signed = dict(request.headers.items())
        self.assertEqual(signed["X-Amz-Content-SHA256"], hashlib.sha256(body).hexdigest())
        self.assert_s3_error(
            self.cloud.request("PUT", path, b"other body", signed),
            400, "XAmzContentSHA256Mismatch",
            S3ComputedContentSHA256=hashlib.sha256(b"other body").hexdigest(),
        )
        self.assertEqual(self.cloud.request("PUT", path, body, signed).status, 200)

    #: The local cloud refuses an object for an unknown bucket until a test or a
    #: configuration names the bucket.
    def test_RefusesAnUnknownBucketUntilItIsNamed(self):
        put = lambda bucket: self.cloud.put_object("/%s/k" % bucket, b"x")
        self.assert_s3_error(put("second"), 404, "NoSuchBucket", BucketName="second")
        self.cloud.control({"buckets": ["second"], "config": {"*": {"s3_bucket": "third/dir"}}})
        self.assertEqual((put("second").status, put("third").status), (200, 200))
        self.assert_s3_error(put("fourth"), 404, "NoSuchBucket")

    #: An object whose key has "..", empty parts or other awkward characters is kept inside
    #: the state directory and given back.
    def test_KeepsHostileKeysInsideItsDirectory(self):
        for path in ("/norvane-ddump/../../../escape", "/norvane-ddump/%2e%2e/%2E%2e/escape",
                     "/norvane-ddump//abs/escape", "/norvane-ddump/" + "n" * 300,
                     "/norvane-ddump/index.jsonl", "/norvane-ddump/nul%00escape"):
            body = path.encode()
            self.assertEqual(self.cloud.put_object(path, body).status, 200, path)
            self.assertEqual(self.cloud.get_object(path).body, body)
        outside = [name for name in os.listdir(self.directory) if name != "state"]
        self.assertEqual(outside, [])
        self.assertNotIn("escape", os.listdir(self.cloud.state))
        self.assertNotIn("escape", os.listdir(os.path.join(self.cloud.state, "objects")))

    #: A bucket that is named like the index of the objects does not overwrite the index.
    def test_KeepsItsIndexFromABucketOfTheSameName(self):
        self.cloud.control({"buckets": ["index.jsonl"]})
        self.assertEqual(self.cloud.put_object("/index.jsonl/k", b"x").status, 200)
        self.assertEqual(self.cloud.get_object("/index.jsonl/k").body, b"x")
        entry = json.loads(self.read("objects", "index.jsonl").splitlines()[-1])
        self.assertEqual(entry["file"], "index%2Ejsonl/k")

    #: The local cloud keeps an object whose key is the beginning of another object's path.
    def test_KeepsAKeyBesideKeysBelowIt(self):
        for first, second in (("/norvane-ddump/p", "/norvane-ddump/p/q"),
                              ("/norvane-ddump/r/s", "/norvane-ddump/r")):
            self.cloud.put_object(first, b"first")
            self.cloud.put_object(second, b"second")
            self.assertEqual(self.cloud.get_object(first).body, b"first")
            self.assertEqual(self.cloud.get_object(second).body, b"second")

    #: The local cloud refuses an object key of more than 1024 bytes, and methods other than
    #: PUT and GET.
    def test_RefusesALongKeyAndOtherMethods(self):
        answer = self.cloud.put_object("/norvane-ddump/" + "k" * 1025, b"")
        self.assert_s3_error(answer, 400, "KeyTooLongError")
        signed = self.cloud.sign("s3", "DELETE", "/norvane-ddump/k")
        answer = self.cloud.request("DELETE", "/norvane-ddump/k", headers=signed)
        self.assert_s3_error(answer, 405, "MethodNotAllowed", Method="DELETE")


# --- misbehaviour -------------------------------------------------------------


CERTIFICATE_ERRORS = {
    "untrusted": "unable to get local issuer certificate", "expired": "certificate has expired",
    "other-host": "Hostname mismatch", "too-new": "certificate is not yet valid",
}


class MisbehaviourTest(CloudTest):
    def raw(self, path="/prod/time", limit=None):
        """All bytes of an answer until the end of the connection (or LIMIT bytes)."""
        received = b""
        with self.cloud.connect() as connection:
            head = "GET %s HTTP/1.1\r\nHost: x\r\nx-api-key: %s\r\n\r\n" % (path, PROD["api-key"])
            connection.sendall(head.encode())
            while limit is None or len(received) < limit:
                try:
                    piece = connection.recv(65536)
                except ssl.SSLEOFError:
                    break
                if not piece:
                    break
                received += piece
        return received

    def ends_with_reset(self):
        """Whether the server's end of the connection is a reset, not an orderly one."""
        with self.cloud.connect() as connection:
            head = "GET /prod/time HTTP/1.1\r\nx-api-key: %s\r\n\r\n" % PROD["api-key"]
            connection.sendall(head.encode())
            poll = select.poll()
            poll.register(connection, select.POLLRDHUP)
            events = poll.poll(5000)
            self.assertTrue(events, "the connection is still open")
            return bool(events[0][1] & select.POLLERR)

    def last_misbehaviour(self):
        line = self.cloud.log()[-1]
        return line["target"], line["verdict"]

    def requests(self):
        """One good request to every target."""
        return {
            "config": self.cloud.config,
            "tou": lambda: self.cloud.device_get("/prod/tou", PROD["api-key"]),
            "time": self.cloud.time,
            "geo": lambda: self.cloud.request("GET", "/json", plain=True),
            "firehose": self.cloud.put_record,
            "s3": lambda: self.cloud.put_object("/norvane-ddump/misbehaviour", b"x"),
        }

    #: Told to refuse, the local cloud answers each target with the refusal of the service
    #: it stands for, and keeps nothing.
    def test_RefusesInTheWordsOfEachService(self):
        before = self.records()
        for target, request in self.requests().items():
            self.cloud.misbehave(target, action="refuse", count=1)
            answer = request()
            self.assertEqual(self.last_misbehaviour(), (target, "misbehaved: refuse"))
            if target == "firehose":
                self.assertEqual(answer.status, 400)
                self.assertEqual(answer.json()["__type"], "AccessDeniedException")
            elif target == "s3":
                self.assertEqual((answer.status, answer.xml()["Code"]), (403, "AccessDenied"))
            else:
                self.assertEqual((answer.status, answer.json()), (403, {"message": "Forbidden"}))
        self.assertEqual(self.records(), before)

    #: A test can choose the code, the status and the message of a refusal.
    def test_RefusesAsTold(self):
        told = {"action": "refuse", "code": "SlowDown", "status": 503, "message": "a < b"}
        self.cloud.control({"misbehave": {"firehose": told, "s3": told}})
        answer = self.cloud.put_record()
        self.assertEqual(answer.status, 503)
        self.assertEqual(answer.json(), {"__type": "SlowDown", "message": "a < b"})
        answer = self.cloud.put_object("/norvane-ddump/k", b"")
        self.assertEqual((answer.status, answer.xml()["Message"]), (503, "a < b"))

    #: Told to fail, the local cloud answers any target with status 500 and an HTML page.
    def test_AnswersServerErrorsWithHtmlOnEveryTarget(self):
        for target, request in self.requests().items():
            self.cloud.misbehave(target, action="server-error", count=1)
            answer = request()
            self.assertEqual((answer.status, answer.headers["Content-Type"]), (500, "text/html"))
            self.assertIn(b"<html>", answer.body)
            self.assertEqual(request().status, 200)

    #: A misbehaviour with a count holds for that many requests; then the next one of the
    #: list begins, and at the end all is well.
    def test_CountsRequestsAndGoesOnWithTheNextAction(self):
        self.cloud.control({"misbehave": {"time": [
            {"action": "server-error", "count": 2}, {"action": "refuse", "count": 1}]}})
        self.assertEqual([self.cloud.time().status for _ in range(4)], [500, 500, 403, 200])

    #: A misbehaviour without a count lasts until a test takes it back, for one target or
    #: for all.
    def test_LastsUntilToldOtherwise(self):
        self.cloud.misbehave("time", action="refuse")
        self.cloud.misbehave("tou", action="refuse")
        self.assertEqual([self.cloud.time().status for _ in range(3)], [403] * 3)
        self.cloud.control({"misbehave": {"time": None}})
        self.assertEqual(self.cloud.time().status, 200)
        self.assertEqual(self.requests()["tou"]().status, 403)
        self.cloud.control({"misbehave": None})
        self.assertEqual(self.requests()["tou"]().status, 200)

    #: Told so, the local cloud answers 200 with a JSON document that has only an error
    #: message.
    def test_SendsAnErrorAnswer(self):
        self.cloud.misbehave("config", action="error-answer", message="no such device")
        answer = self.cloud.config()
        self.assertEqual((answer.status, answer.json()), (200, {"errorMessage": "no such device"}))

    #: Told so, the local cloud sends a configuration that has expired when it arrives.
    def test_SendsAnExpiredConfiguration(self):
        self.cloud.misbehave("config", action="expired", count=1)
        document = self.cloud.config().json()
        self.assertEqual((document["expiry_tou"], document["version"]), (0, "1.0"))
        self.assertEqual(self.cloud.config().json()["expiry_tou"], 600)

    #: Told so, the local cloud sends broken JSON, or any other text, in the place of a
    #: configuration.
    def test_SendsAConfigurationThatIsNotJson(self):
        self.cloud.misbehave("config", action="not-json", count=1)
        with self.assertRaises(ValueError):
            self.cloud.config().json()
        self.cloud.misbehave("config", action="not-json", body="hello")
        self.assertEqual(self.cloud.config().body, b"hello")

    #: A test can give the whole answer: status, body and content type.
    def test_SendsAnyAnswer(self):
        told = {"action": "answer", "status": 302, "body": "[]", "content-type": "text/plain"}
        self.cloud.control({"misbehave": {"config": told}})
        answer = self.cloud.config()
        self.assertEqual((answer.status, answer.body), (302, b"[]"))
        self.assertEqual(answer.headers["Content-Type"], "text/plain")

    #: Told so, the local cloud sends a body above 1 MiB, with its length in the headers or
    #: in chunks without it.
    def test_SendsABodyAboveOneMebibyteWithAndWithoutLength(self):
        self.cloud.misbehave("config", action="huge")
        answer = self.cloud.config()
        self.assertGreater(len(answer.body), 1024 * 1024)
        self.assertEqual(answer.headers["Content-Length"], str(len(answer.body)))
        self.cloud.misbehave("config", action="huge", length=False, bytes=3000000)
        answer = self.cloud.config()
        self.assertGreater(len(answer.body), 3000000)
        self.assertIsNone(answer.headers["Content-Length"])
        self.assertEqual(answer.headers["Transfer-Encoding"], "chunked")

    #: Told so, the local cloud sends more than 64 KiB of headers.
    def test_SendsHeadersAbove64Kibibytes(self):
        self.cloud.misbehave("time", action="huge", part="headers")
        received = self.raw(limit=70000)
        self.assertNotIn(b"\r\n\r\n", received[: 64 * 1024])

    #: A test can have the Date header of an answer wrong, unreadable or left out.
    def test_SendsAWrongDateOrNone(self):
        self.cloud.misbehave("time", action="date", value="yesterday", count=1)
        self.assertEqual(self.cloud.time().headers["Date"], "yesterday")
        self.cloud.misbehave("time", action="date", value=None, count=1)
        self.assertIsNone(self.cloud.time().headers["Date"])
        self.cloud.misbehave("time", action="date", offset=-3600, count=1)
        date = http_seconds(self.cloud.time().headers["Date"])
        self.assertAlmostEqual(date - time.time(), -3600, delta=5)
        date = http_seconds(self.cloud.time().headers["Date"])
        self.assertAlmostEqual(date - time.time(), 0, delta=5)

    #: Told to hang, the local cloud does not answer that request until a test ends it;
    #: other requests are answered.
    def test_HangsUntilToldOtherwise(self):
        self.cloud.misbehave("time", action="hang", count=1)
        with self.cloud.connect() as connection:
            request = "GET /prod/time HTTP/1.1\r\nHost: x\r\n\r\n"
            connection.sendall(request.encode())
            connection.settimeout(0.3)
            with self.assertRaises(TimeoutError):
                connection.recv(1)
            self.assertEqual(self.last_misbehaviour(), ("time", "misbehaved: hang"))
            self.assertEqual(self.cloud.time().status, 200)  # nobody else waits
            self.cloud.control({"clear": True})
            connection.settimeout(5)
            try:
                self.assertEqual(connection.recv(1), b"")
            except ssl.SSLEOFError:
                pass  # the other way in which the end of a TLS stream shows

    #: Told to hang after some bytes, the local cloud sends that much of the body and then
    #: nothing more.
    def test_HangsInTheMiddleOfAnAnswer(self):
        self.cloud.misbehave("time", action="hang", after=5, count=1)
        with self.cloud.connect() as connection:
            head = "GET /prod/time HTTP/1.1\r\nHost: x\r\nx-api-key: %s\r\n\r\n"
            connection.sendall((head % PROD["api-key"]).encode())
            connection.settimeout(0.5)
            received = b""
            with self.assertRaises(TimeoutError):
                while True:
                    piece = connection.recv(1000)
                    self.assertTrue(piece)
                    received += piece
        self.assertEqual(received.partition(b"\r\n\r\n")[2], b'{"env')

    #: Told to drip, the local cloud sends the body byte by byte with a pause between.
    def test_DripsTheBody(self):
        self.cloud.misbehave("time", action="drip", delay=0.02)
        start = time.monotonic()
        answer = self.cloud.time()
        taken = time.monotonic() - start
        self.assertEqual(answer.json(), {"environment": "prod"})
        self.assertGreater(taken, 0.02 * (len(answer.body) - 1))

    #: Told to cut, the local cloud closes the connection within the body, although the
    #: headers announced all of it.
    def test_CutsTheAnswerOff(self):
        self.cloud.misbehave("time", action="cut", count=1)
        received = self.raw()
        head, _, body = received.partition(b"\r\n\r\n")
        self.assertIn(b"Content-Length: %d" % len(b'{"environment": "prod"}'), head)
        self.assertEqual(body, b'{"environme')
        self.cloud.misbehave("time", action="cut", after=0, count=1)
        self.assertEqual(self.raw().partition(b"\r\n\r\n")[2], b"")

    #: Told to cut an answer without a body, the local cloud closes the connection within
    #: its headers; the request has taken effect.
    def test_CutsTheHeadWhereThereIsNoBody(self):
        self.cloud.misbehave("s3", action="cut", after=8, count=1)
        with self.assertRaises(http.client.BadStatusLine):
            self.cloud.put_object("/norvane-ddump/cut", b"kept")
        self.assertEqual(self.read("objects", "norvane-ddump", "cut"), b"kept")

    #: Told to reset, the local cloud ends the connection with a TCP reset and no answer; a
    #: cut answer ends in an orderly way.
    def test_ResetsTheConnection(self):
        self.cloud.misbehave("time", action="reset", count=1)
        self.assertTrue(self.ends_with_reset())
        self.assertIsNone(self.cloud.log()[-1]["status"])
        self.cloud.misbehave("time", action="cut", count=1)
        self.assertFalse(self.ends_with_reset())

    #: Told to reset, the local cloud resets connections of plain HTTP too.
    def test_ResetsPlainConnectionsToo(self):
        self.cloud.misbehave("geo", action="reset", count=1)
        with socket.create_connection(("127.0.0.1", self.cloud.http), timeout=5) as connection:
            connection.sendall(b"GET /json HTTP/1.1\r\n\r\n")
            with self.assertRaises(ConnectionResetError):
                connection.recv(1)

    #: A record whose connection is reset is kept only where the test says that it was
    #: processed.
    def test_KeepsARecordWhoseAnswerIsLostOnlyWhenTold(self):
        before = len(self.records())
        self.cloud.misbehave("firehose", action="reset", count=1)
        with self.assertRaises(ConnectionResetError):
            self.cloud.put_record()
        self.assertEqual(len(self.records()), before)
        self.cloud.misbehave("firehose", action="reset", processed=True, count=1)
        with self.assertRaises(ConnectionResetError):
            self.cloud.put_record()
        self.assertEqual(len(self.records()), before + 1)

    #: A captive portal answers every target with its page and status 200; the service sees
    #: nothing of it.
    def test_ShowsTheCaptivePortalsPageOnEveryTarget(self):
        before = self.cloud.control({})["counts"]
        for target, request in self.requests().items():
            self.cloud.misbehave(target, action="portal", count=1)
            answer = request()
            self.assertEqual((answer.status, answer.headers["Content-Type"]), (200, "text/html"))
            self.assertIn(b"Welcome to our network", answer.body)
            self.assertEqual(self.last_misbehaviour(), (target, "misbehaved: portal"))
        after = self.cloud.control({})["counts"]
        self.assertEqual((after["records"], after["objects"]),
                         (before["records"], before["objects"]))

    #: A redirect points to the portal's page, which is there, or wherever it is told.
    def test_RedirectsEveryTargetToAPageThatIsThere(self):
        before = self.cloud.control({})["counts"]
        for target, request in self.requests().items():
            self.cloud.misbehave(target, action="redirect", count=1)
            answer = request()
            page = "http://127.0.0.1:%d/portal" % self.cloud.http
            self.assertEqual((answer.status, answer.headers["Location"]), (302, page))
            self.assertEqual(self.last_misbehaviour(), (target, "misbehaved: redirect"))
        after = self.cloud.control({})["counts"]
        self.assertEqual((after["records"], after["objects"]),
                         (before["records"], before["objects"]))
        page = self.cloud.request("GET", "/portal", plain=True)
        self.assertEqual((page.status, page.headers["Content-Type"]), (200, "text/html"))
        self.assertIn(b"Welcome to our network", page.body)
        self.cloud.misbehave("tou", action="redirect", status=307, location="/elsewhere")
        answer = self.requests()["tou"]()
        self.assertEqual((answer.status, answer.headers["Location"]), (307, "/elsewhere"))

    #: The local cloud answers with any status from 300 to 599 and a chosen body, or with the
    #: service's own body.
    def test_AnswersWithAnyStatusAndAChosenBodyOrTheServicesOwn(self):
        for status in (300, 301, 400, 404, 418, 451, 499, 500, 503, 599):
            self.cloud.misbehave("config", action="status", status=status, body="told")
            answer = self.cloud.config()
            self.assertEqual((answer.status, answer.body), (status, b"told"))
        self.cloud.misbehave("config", action="status", status=304, body="told")
        answer = self.cloud.config()
        self.assertEqual((answer.status, answer.headers["Connection"]), (304, "close"))
        self.cloud.misbehave("config", action="status")
        answer = self.cloud.config()
        self.assertEqual((answer.status, answer.json()["version"]), (503, "1.0"))
        before = len(self.records())
        self.cloud.misbehave("firehose", action="status", status=500, count=1)
        answer = self.cloud.put_record()
        self.assertEqual((answer.status, len(answer.json()["RecordId"])), (500, 32))
        self.assertEqual(len(self.records()), before + 1)
        self.cloud.misbehave("firehose", action="status", status=500, body="{}", count=1)
        self.assertEqual(self.cloud.put_record().body, b"{}")
        self.assertEqual(len(self.records()), before + 1)

    #: The local cloud answers every target with an empty object, and with a mebibyte of text
    #: that no client can use.
    def test_AnswersWithAnEmptyObjectAndWithAMebibyteOfText(self):
        for target, request in self.requests().items():
            self.cloud.misbehave(target, action="empty-object", count=1)
            answer = request()
            self.assertEqual((answer.status, answer.body), (200, b"{}"), target)
            self.cloud.misbehave(target, action="long-text", count=1)
            answer = request()
            self.assertEqual((answer.status, len(answer.body)), (200, 1024 * 1024), target)
            with self.assertRaises(ValueError):
                answer.json()
        self.cloud.misbehave("config", action="long-text", bytes=5)
        self.assertEqual(self.cloud.config().body, b"This ")

    #: The stream answers with status 200 and without a record id in every form; it keeps the
    #: record only when told.
    def test_AnswersAPutOfARecordWithoutItsId(self):
        before = len(self.records())
        bodies = {"json": b'{"Encrypted": false}',
                  "empty": b'{"RecordId": "", "Encrypted": false}',
                  "broken": b'{"RecordId": "49', "nothing": b""}
        for form, body in bodies.items():
            self.cloud.misbehave("firehose", action="no-record-id", form=form, count=1)
            answer = self.cloud.put_record()
            self.assertEqual((answer.status, answer.body), (200, body), form)
        self.cloud.misbehave("firehose", action="no-record-id", form="html", count=1)
        answer = self.cloud.put_record()
        self.assertEqual((answer.status, answer.headers["Content-Type"]), (200, "text/html"))
        self.assertEqual(len(self.records()), before)
        self.cloud.misbehave("firehose", action="no-record-id", processed=True, count=1)
        self.assertEqual(self.cloud.put_record().body, bodies["json"])
        self.assertEqual(len(self.records()), before + 1)

    #: The object service answers with status 200 and without an ETag; it keeps the object only
    #: when told.
    def test_AnswersAPutOfAnObjectWithoutETag(self):
        path = "/norvane-ddump/no-etag"
        for processed in (False, True):
            self.cloud.misbehave("s3", action="no-etag", processed=processed, count=1)
            answer = self.cloud.put_object(path, b"content")
            self.assertEqual((answer.status, answer.body, answer.headers["ETag"]),
                             (200, b"", None))
            self.assertEqual(self.cloud.get_object(path).status, 200 if processed else 404)

    #: The local cloud places a set in a city whose name has 200 000 characters.
    def test_PlacesASetInACityWithALongName(self):
        get = lambda: self.cloud.request("GET", "/json", plain=True).json()
        self.cloud.misbehave("geo", action="long-city", count=1)
        self.assertEqual(get(), {**get(), "city": "x" * 200000})
        self.cloud.misbehave("geo", action="long-city", characters=129, count=1)
        self.assertEqual(len(get()["city"]), 129)

    #: The local cloud dates an answer years ahead, before 1970, beyond 31 or 32 bits, or not at
    #: all.
    def test_DatesAnswersYearsAheadBefore1970BeyondTheirBitsOrNotAtAll(self):
        def date(**told):
            self.cloud.misbehave("time", action="date", count=1, **told)
            return self.cloud.time().headers["Date"]

        ten_years = 10 * 365.25 * 86400
        ahead = http_seconds(date(kind="years-ahead")) - time.time()
        self.assertAlmostEqual(ahead, ten_years, delta=5)
        self.assertEqual(date(kind="before-1970"), "Wed, 31 Dec 1969 23:59:59 GMT")
        self.assertEqual(date(kind="beyond-31-bits"), "Wed, 20 Jan 2038 03:14:08 GMT")
        self.assertEqual(date(kind="beyond-32-bits"), "Mon, 08 Feb 2106 06:28:16 GMT")
        self.assertIsNone(date(kind="missing"))
        self.assertEqual(date(offset=10**12), "Fri, 31 Dec 9999 23:59:59 GMT")
        self.assertEqual(date(offset=-10**12), "Mon, 01 Jan 0001 00:00:00 GMT")

    def trickled(self, seconds, **told):
        """What arrived of the time's answer within so many seconds, and the times of arrival."""
        self.cloud.misbehave("time", action="trickle", count=1, **told)
        pieces, start = [], time.monotonic()
        with self.cloud.connect() as connection:
            head = "GET /prod/time HTTP/1.1\r\nHost: x\r\nx-api-key: %s\r\n\r\n"
            connection.sendall((head % PROD["api-key"]).encode())
            connection.settimeout(0.9)
            while time.monotonic() < start + seconds:
                piece = connection.recv(1000)
                self.assertTrue(piece)
                pieces.append((time.monotonic() - start, piece))
        return pieces

    #: A trickling body comes at two bytes a second where nothing else is told, without a pause
    #: that a client could take for an end.
    def test_TricklesABodyAtTwoBytesASecond(self):
        pieces = self.trickled(2.2)
        head, _, body = b"".join(piece for _, piece in pieces).partition(b"\r\n\r\n")
        self.assertIn(b"Content-Length: 1000000", head)
        self.assertEqual(body, b'{"environment": "prod"}'[:len(body)])
        self.assertIn(len(body), (5, 6))

    #: Trickling headers come at the told rate, and no body before their end.
    def test_TricklesHeadersAtTheToldRate(self):
        received = b"".join(piece for _, piece in self.trickled(1, part="headers", rate=50))
        self.assertTrue(received.startswith(b"HTTP/1.1 200 OK\r\n"), received)
        self.assertNotIn(b"\r\n\r\n", received)
        self.assertAlmostEqual(len(received), 50, delta=10)

    #: A trickling answer that comes to its end is whole: the service's own, filled up with
    #: blanks.
    def test_TricklesAWholeAnswerToItsEnd(self):
        for told in ({"rate": 5000, "bytes": 1000}, {"rate": 100000, "part": "headers"}):
            self.cloud.misbehave("config", action="trickle", count=1, **told)
            start = time.monotonic()
            answer = self.cloud.config()
            self.assertGreater(time.monotonic() - start, 0.15)
            self.assertEqual((answer.status, answer.json()["version"]), (200, "1.0"))
        self.cloud.misbehave("time", action="trickle", count=1, rate=1000, bytes=100)
        self.assertEqual(self.cloud.time().body, b'{"environment": "prod"}'.ljust(100))

    #: A trickling answer ends when the target is told something new, and when the client goes.
    def test_EndsATrickleWhenToldOtherwiseOrWhenTheClientGoes(self):
        self.cloud.misbehave("time", action="trickle")
        with self.cloud.connect() as connection:
            head = "GET /prod/time HTTP/1.1\r\nHost: x\r\nx-api-key: %s\r\n\r\n"
            connection.sendall((head % PROD["api-key"]).encode())
            self.assertTrue(connection.recv(1000))
            self.assertIsNone(self.cloud.requests_since()["requests"][-1]["duration"])
            self.cloud.control({"clear": True})
            with self.assertRaises(ssl.SSLEOFError):
                end = time.monotonic() + 5
                while connection.recv(1000):
                    self.assertLess(time.monotonic(), end, "it trickles on")
                raise ssl.SSLEOFError  # the other way in which the end of a TLS stream shows
        number = self.cloud.requests_since()["requests"][-1]["number"]
        self.trickled(0.1)
        ended_log(self.cloud, number + 1)

    #: The local cloud shows other certificates.
    def test_ShowsOtherCertificates(self):
        texts = CERTIFICATE_ERRORS
        for kind, text in texts.items():
            self.cloud.misbehave("https", action="certificate", kind=kind, count=1)
            with self.assertRaisesRegex(ssl.SSLCertVerificationError, text):
                self.cloud.time()
            self.assertEqual(self.cloud.time().status, 200)

    #: A TLS handshake that the client breaks off gets a line in the log.
    def test_LogsAHandshakeThatTheClientBreaksOff(self):
        self.cloud.misbehave("https", action="certificate", count=1)
        with self.assertRaises(ssl.SSLCertVerificationError):
            self.cloud.connect()
        deadline = time.monotonic() + 5
        told = lambda: [line for line in self.cloud.log()
                        if line.get("misbehaviour", {}).get("action") == "certificate"]
        while not told() and time.monotonic() < deadline:
            time.sleep(0.01)
        self.assertEqual(told()[-1]["target"], "https")
        self.assertRegex(told()[-1]["verdict"], "^handshake failed: ")

    #: Told so, the local cloud resets a connection, or lets it hang, before the TLS
    #: handshake.
    def test_ResetsOrHangsBeforeTheHandshake(self):
        self.cloud.misbehave("https", action="reset", count=1)
        with self.assertRaises((ConnectionResetError, ssl.SSLEOFError)):
            self.cloud.connect()
        self.cloud.misbehave("https", action="hang", count=1)
        raw = socket.create_connection(("127.0.0.1", self.cloud.https), timeout=0.3)
        with raw, self.assertRaises(TimeoutError):
            self.cloud.trust.wrap_socket(raw, server_hostname="localhost")


class ControlTest(CloudTest):
    def refused(self, body):
        answer = self.cloud.request("POST", "/control", body, plain=True)
        self.assertEqual(answer.status, 400)
        return answer.json()["error"]

    #: The control interface tells which changes and misbehaviours hold, and clears them.
    def test_TellsWhatHolds(self):
        told = {"misbehave": {"geo": [{"action": "refuse", "count": 3}]},
                "config": {"TV": {"kiv_tou": False}}, "tou": {"version": 5}, "geo": {"ip": "x"},
                "clock-offset": 1.5, "streams": ["s"], "buckets": ["b"]}
        self.cloud.control(told)
        self.cloud.request("GET", "/json", plain=True)
        state = self.cloud.request("GET", "/control/state", plain=True).json()
        told["misbehave"]["geo"][0]["count"] = 2
        self.assertEqual({name: state[name] for name in told}, told)
        self.assertEqual(state["counts"]["requests"], len(self.cloud.log()))
        state = self.cloud.control({"clear": True})
        self.assertEqual((state["misbehave"], state["config"], state["clock-offset"]), ({}, {}, 0))

    #: The control interface tells how many requests, records and objects have arrived.
    def test_CountsWhatArrived(self):
        before = self.cloud.control({})["counts"]
        self.cloud.put_record()
        self.cloud.put_object("/norvane-ddump/counted", b"")
        after = self.cloud.control({})["counts"]
        self.assertEqual(after["requests"], before["requests"] + 2)
        self.assertEqual(after["records"][STREAM], before["records"].get(STREAM, 0) + 1)
        self.assertEqual(after["objects"], before["objects"] + 1)

    #: A control document with a mistake is refused with a text that names the mistake, and
    #: nothing of it takes effect.
    def test_RefusesMistakesAndThenChangesNothing(self):
        before = self.cloud.control({})
        for document, words in (
            ([], "not a JSON object"),
            ({"clear": 1}, '"clear"'),
            ({"misbehaviour": {}}, 'unknown member "misbehaviour"'),
            ({"clock-offset": 5, "misbehave": {"firehoes": {}}}, 'unknown target "firehoes"'),
            ({"clock-offset": 5, "misbehave": {"tou": {"action": "explode"}}}, "unknown action"),
            ({"misbehave": {"tou": {"action": ["refuse"]}}}, "unknown action"),
            ({"misbehave": {"geo": {"action": "certificate"}}},
             "only for config, tou, time, firehose, s3, https"),
            ({"misbehave": {"geo": {"action": "no-record-id"}}}, "only for firehose"),
            ({"misbehave": {"firehose": {"action": "no-record-id", "form": 5}}}, "is not one of"),
            ({"misbehave": {"firehose": {"action": "no-etag"}}}, "only for s3"),
            ({"misbehave": {"tou": {"action": "long-city"}}}, "only for geo"),
            ({"misbehave": {"tou": {"action": "status", "status": 200}}}, "is not 300 ... 599"),
            ({"misbehave": {"tou": {"action": "redirect", "status": 404}}}, "is not 300 ... 399"),
            ({"misbehave": {"tou": {"action": "trickle", "rate": 0}}}, "rate is not 0.01"),
            ({"misbehave": {"tou": {"action": "date", "kind": "soon"}}}, "is not one of"),
            ({"misbehave": {"firehose": {"action": "expired"}}}, "only for config"),
            ({"misbehave": {"tou": {"action": "refuse", "count": 0}}}, "count is not 1 or more"),
            ({"misbehave": {"tou": {"action": "refuse", "count": True}}}, "count is not"),
            ({"misbehave": {"tou": {"action": "drip", "delay": -1}}}, "delay is negative"),
            ({"misbehave": {"tou": {"action": "drip", "delay": "1"}}}, "delay has a wrong type"),
            ({"misbehave": {"tou": {"action": "drip", "speed": 1}}}, "unknown option 'speed'"),
            ({"misbehave": {"https": {"action": "hang", "after": 1}}}, "unknown option 'after'"),
            ({"misbehave": {"tou": {"action": "answer", "status": 5}}}, "status is not 100"),
            ({"misbehave": {"https": {"action": "certificate", "kind": "x"}}}, "is not one of"),
            ({"config": {"TV": 5}}, '"config/TV" is not an object'),
            ({"credentials": {"key": "x"}}, 'unknown member "credentials/key"'),
            ({"credentials": {"expired": 1}}, "is not a bool"),
            ({"streams": "s"}, '"streams" is not an array of names'),
            ({"clock-offset": "5"}, '"clock-offset" is not a number'),
        ):
            self.assertIn(words, self.refused(json.dumps(document).encode()), document)
        self.refused(b"{")
        self.refused(b"[" * 100000)
        self.assertEqual(self.cloud.control({}), before)

    #: The plain HTTP port of the local cloud answers a path that it does not know with 404.
    def test_AnswersOtherPathsWith404(self):
        for method, path in (("GET", "/control"), ("GET", "/control/x"), ("GET", "/other")):
            self.assertEqual(self.cloud.request(method, path, plain=True).status, 404)

    #: The control interface cannot be reached through the HTTPS port, which the daemon
    #: uses.
    def test_IsNotOnTheHttpsPort(self):
        self.assertNotEqual(self.cloud.request("POST", "/control", b"{}").status, 200)

    #: The local cloud refuses a request whose body has an unreadable, too large or missing
    #: length, and closes the connection.
    def test_RefusesBodiesItCannotMeasure(self):
        for headers, status in (({"Content-Length": "x"}, 400), ({"Content-Length": "-1"}, 400),
                                ({"Content-Length": "9" * 20}, 413),
                                ({"Transfer-Encoding": "chunked"}, 411)):
            answer = self.cloud.request("POST", "/", headers=headers)
            self.assertEqual(answer.status, status)
            self.assertEqual(answer.headers["Connection"], "close")

    #: The local cloud answers several requests on one connection.
    def test_KeepsAConnectionOpenForTheNextRequest(self):
        connection = http.client.HTTPConnection("127.0.0.1", self.cloud.http, timeout=5)
        connection.connect()
        first = connection.sock
        for _ in range(3):
            connection.request("GET", "/json")
            self.assertEqual(connection.getresponse().read()[:1], b"{")
        self.assertIs(connection.sock, first)
        connection.close()


# --- certificates by target ---------------------------------------------------


class OwnPortTest(CloudTest):
    #: Each target that is asked by HTTPS has a port of its own, on which everything is served,
    #: and the control interface names it.
    def test_EachTargetHasAPortOfItsOwn(self):
        ports = self.cloud.state_now()["ports"]
        self.assertEqual((ports["https"], ports["http"]), (self.cloud.https, self.cloud.http))
        self.assertEqual(sorted(ports),
                         ["config", "firehose", "http", "https", "s3", "time", "tou"])
        self.assertEqual(len(set(ports.values())), 7)
        for name in ("config", "firehose", "https", "s3", "time", "tou"):
            self.assertEqual(self.cloud.time(ports[name]).status, 200)

    #: A certificate told to one target is shown on its port and on no other, until told
    #: otherwise, and takes nothing of what its requests are told.
    def test_ACertificateToldToOneTargetIsShownOnItsPortAlone(self):
        ports = self.cloud.state_now()["ports"]
        for target in ("config", "tou", "time", "firehose", "s3"):
            others = [port for name, port in ports.items() if name not in (target, "http")]
            for kind, text in CERTIFICATE_ERRORS.items():
                self.cloud.misbehave(target, action="certificate", kind=kind)
                for _ in range(2):
                    with self.assertRaisesRegex(ssl.SSLCertVerificationError, text):
                        self.cloud.time(ports[target])
                self.assertEqual([self.cloud.time(port).status for port in others], [200] * 5)
            self.cloud.control({"misbehave": {target: None}})
            self.assertEqual(self.cloud.time(ports[target]).status, 200)
        self.cloud.control({"misbehave": {"time": [
            {"action": "certificate", "kind": "too-new", "count": 1},
            {"action": "refuse", "count": 1}]}})
        with self.assertRaises(ssl.SSLCertVerificationError):
            self.cloud.time(ports["time"])
        self.assertEqual([self.cloud.time(ports["time"]).status for _ in range(2)], [403, 200])

    #: What is told to all connections counts on a target's own port too; a failed handshake is
    #: logged with the port's target.
    def test_WhatIsToldToAllConnectionsCountsOnEveryPort(self):
        port = self.cloud.state_now()["ports"]["s3"]
        number = self.cloud.requests_since()["next"]
        self.cloud.misbehave("https", action="certificate", count=1)
        with self.assertRaises(ssl.SSLCertVerificationError):
            self.cloud.time(port)
        ended_log(self.cloud, number + 1)
        line = self.cloud.log()[-1]
        self.assertEqual((line["target"], line["port-of"]), ("https", "s3"))


# --- the log of requests and answers ------------------------------------------


def ended_log(cloud, number):
    """The request with this number once it has ended."""
    deadline = time.monotonic() + 5
    while time.monotonic() < deadline:
        found = cloud.requests_since(number - 1)["requests"]
        if found and found[0]["duration"] is not None:
            return found[0]
        time.sleep(0.01)
    raise AssertionError("request %d has not ended" % number)


class RequestLogTest(CloudTest):
    def newest(self):
        return self.cloud.requests_since()["requests"][-1]

    #: The log says of each request when it arrived, on both clocks, what became of it, how many
    #: bytes went either way and how long it took; the file says the same.
    def test_SaysWhenARequestArrivedAndWhatBecameOfIt(self):
        self.cloud.control({"clock-offset": 86400})
        before = time.monotonic()
        request = b"GET /prod/time HTTP/1.1\r\nHost: x\r\nx-api-key: %s\r\n\r\n"
        request %= PROD["api-key"].encode()
        with self.cloud.connect() as connection:
            connection.sendall(request)
            received = connection.recv(65536)
        entry = ended_log(self.cloud, self.newest()["number"])
        self.assertEqual((entry["target"], entry["method"], entry["path"], entry["status"],
                          entry["verdict"]), ("time", "GET", "/prod/time", 200, "accepted"))
        self.assertEqual((entry["bytes-in"], entry["bytes-out"]), (len(request), len(received)))
        self.assertTrue(before < entry["arrived"] < time.monotonic())
        self.assertTrue(0 < entry["duration"] < 1)
        seconds = lambda text: datetime.datetime.fromisoformat(text[:-1]).timestamp()
        self.assertEqual(seconds(entry["cloud-time"]) - seconds(entry["time"]), 86400)
        with open(os.path.join(self.cloud.state, "answers.jsonl"), encoding="utf-8") as file:
            self.assertEqual(json.loads(file.read().splitlines()[-1]), entry)
        line = self.cloud.log()[-1]
        for name in ("number", "arrived", "time", "cloud-time"):
            self.assertEqual(line[name], entry[name])

    #: Bytes are counted for each request of a connection.
    def test_CountsTheBytesOfEachRequestOfAConnection(self):
        first = self.newest_number()
        connection = http.client.HTTPConnection("127.0.0.1", self.cloud.http, timeout=5)
        for path in ("/json", "/json?longer", "/control/state", "/json"):
            connection.request("GET", path)
            connection.getresponse().read()
        connection.close()
        counts = [ended_log(self.cloud, first + n)["bytes-in"] for n in (1, 2, 3)]
        self.assertEqual([count - counts[0] for count in counts], [0, len("?longer"), 0])

    def newest_number(self):
        self.cloud.time()
        return self.newest()["number"]

    #: The control interface gives the requests after a number, and the number to ask with next,
    #: which misses none that is still under way.
    def test_GivesTheRequestsAfterANumberAndMissesNone(self):
        last = self.newest_number()
        ended_log(self.cloud, last)
        self.assertEqual(self.cloud.requests_since(last)["requests"], [])
        self.assertEqual(self.cloud.requests_since(last)["next"], last)
        self.cloud.misbehave("time", action="hang", count=1)
        with self.cloud.connect() as connection:
            connection.sendall(b"GET /prod/time HTTP/1.1\r\nHost: x\r\n\r\n")
            while len(self.cloud.requests_since(last)["requests"]) < 1:
                time.sleep(0.01)
            self.cloud.time()
            ended_log(self.cloud, last + 2)
            answer = self.cloud.requests_since(last)
            self.assertEqual([(entry["number"], entry["duration"] is None, entry["status"])
                              for entry in answer["requests"]],
                             [(last + 1, True, None), (last + 2, False, 200)])
            self.assertEqual(answer["next"], last)
            time.sleep(0.2)  # so long the client is held
        entry = ended_log(self.cloud, last + 1)
        self.assertGreater(entry["duration"], 0.2)
        self.assertEqual((entry["verdict"], entry["bytes-out"]), ("misbehaved: hang", 0))
        self.assertEqual(self.cloud.requests_since(last)["next"], last + 2)

    #: The log says how long a slow answer held its client and how much of it went out.
    def test_SaysHowLongASlowAnswerHeldItsClient(self):
        self.cloud.misbehave("geo", action="trickle", rate=20, count=1)
        last = self.newest_number()
        with socket.create_connection(("127.0.0.1", self.cloud.http), timeout=5) as connection:
            connection.sendall(b"GET /json HTTP/1.1\r\n\r\n")
            received, end = b"", time.monotonic() + 0.5
            while time.monotonic() < end:
                received += connection.recv(1000)
        entry = ended_log(self.cloud, last + 1)
        self.assertAlmostEqual(entry["duration"], 0.5, delta=0.3)
        self.assertAlmostEqual(entry["bytes-out"], len(received), delta=4)

    #: Connections that never became a request are in the log as well.
    def test_HasConnectionsThatNeverBecameARequest(self):
        last = self.newest_number()
        self.cloud.misbehave("https", action="reset", count=1)
        with self.assertRaises((ConnectionResetError, ssl.SSLEOFError)):
            self.cloud.connect()
        entry = ended_log(self.cloud, last + 1)
        self.assertEqual((entry["target"], entry["verdict"], entry["bytes-out"]),
                         ("https", "misbehaved: reset", 0))

    #: A question that is not a number is refused.
    def test_RefusesAQuestionThatIsNoNumber(self):
        for query in ("since=x", "since=-1", "since=", "since=1&since=2", "until=5"):
            answer = self.cloud.request("GET", "/control/requests?" + query, plain=True)
            self.assertEqual(answer.status, 400, query)
        answer = self.cloud.request("GET", "/control/requests", plain=True)
        self.assertEqual((answer.status, answer.json()["requests"][0]["number"]), (200, 1))


class WholeFilesTest(CloudTest):
    #: A reader that looks all the time never meets a part of a record, an object or an index
    #: line, and finds whatever an index speaks of.
    def test_AReaderNeverMeetsAPartOfAFile(self):
        reader = subprocess.Popen(
            [sys.executable, "-c", READER, self.cloud.state, STREAM], stdin=subprocess.PIPE,
            stdout=subprocess.PIPE, text=True)
        self.assertEqual(reader.stdout.readline(), "looking\n")
        for n in range(25):
            data = b"%d" % (n % 10) * 1000000
            self.assertEqual(self.cloud.put_record(data).status, 200)
            self.assertEqual(self.cloud.put_object("/norvane-ddump/whole", data).status, 200)
        looks, wrong = reader.communicate("end\n", timeout=20)[0].split(" ", 1)
        self.assertGreater(int(looks), 50)
        self.assertEqual(wrong, "[]\n")
        self.assertNotIn("incoming", os.listdir(self.cloud.state))


READER = """
import json, os, select, sys
state, stream = sys.argv[1:]
records, objects = os.path.join(state, "records", stream), os.path.join(state, "objects")
looks, wrong, seen = 0, [], set()
print("looking", flush=True)
while not select.select([sys.stdin], [], [], 0)[0]:
    looks += 1
    for name in os.listdir(records) if os.path.isdir(records) else []:
        if name.endswith(".jsonl") or name in seen:
            continue
        size = os.path.getsize(os.path.join(records, name))
        seen.add(name)
        if size != 1000000:
            wrong.append((name, size))
    for path in (os.path.join(objects, "norvane-ddump", "whole"),):
        if os.path.exists(path) and os.path.getsize(path) != 1000000:
            wrong.append((path, "size"))
    for folder in (records, objects):
        index = os.path.join(folder, "index.jsonl")
        text = open(index).read() if os.path.exists(index) else ""
        if text and not text.endswith("\\n"):
            wrong.append((index, text[-80:]))
            continue
        for line in text.splitlines():
            if not os.path.exists(os.path.join(folder, json.loads(line)["file"])):
                wrong.append(line)
print(looks, wrong)
"""


# --- start and end ------------------------------------------------------------


class ProcessTest(unittest.TestCase):
    def setUp(self):
        self.directory = tempfile.mkdtemp(prefix="localcloud-test-")
        self.addCleanup(shutil.rmtree, self.directory)
        self.state = os.path.join(self.directory, "state")

    def start(self, *options):
        cloud = Cloud(self.state, *options)
        self.addCleanup(lambda: cloud.process.poll() is None and cloud.stop())
        return cloud

    #: The local cloud ends with status 0 on SIGTERM; started again on the same directory it
    #: has its CA, records, objects and log.
    def test_FindsItsStateAgainAndEndsOnATermSignal(self):
        first = self.start()
        self.assertRegex(first.ready_line, r"^ready https=\d+ http=\d+ "
                         r"control=http://127\.0\.0\.1:%d/control ca=%s\n$"
                         % (first.http, os.path.join(self.state, "ca", "ca.pem")))
        self.assertEqual(first.put_record(b"one").status, 200)
        first.put_object("/norvane-ddump/kept", b"kept")
        self.assertEqual(first.stop(), 0)
        second = self.start()
        second.trust = first.trust
        self.assertEqual(second.get_object("/norvane-ddump/kept").body, b"kept")
        self.assertEqual(second.put_record(b"two").status, 200)
        records = os.path.join(self.state, "records", STREAM)
        self.assertEqual(sorted(os.listdir(records)), ["000001.json", "000002.json", "index.jsonl"])
        self.assertEqual([line["number"] for line in second.log()], [1, 2, 3, 4])

    #: The local cloud follows the scenario of its command line from the first request on.
    def test_FollowsAScenarioFromTheStart(self):
        path = os.path.join(self.directory, "scenario.json")
        with open(path, "w", encoding="utf-8") as file:
            json.dump({"misbehave": {"time": {"action": "refuse", "count": 1}}}, file)
        cloud = self.start("--scenario", path)
        self.assertEqual([cloud.time().status, cloud.time().status], [403, 200])

    #: The local cloud's certificate is trusted through the directory of its CA as well as
    #: through the CA file.
    def test_HasItsCaInAHashedDirectory(self):
        cloud = self.start()
        context = ssl.create_default_context(capath=os.path.dirname(cloud.values["ca"]))
        cloud.trust = context
        self.assertEqual(cloud.time().status, 200)

    #: The local cloud listens on 127.0.0.1 only.
    def test_ListensOnLoopbackOnly(self):
        cloud = self.start()
        with open("/proc/net/tcp", encoding="ascii") as file:
            listening = [line.split()[1] for line in file if line.split()[3] == "0A"]
        for port in (cloud.https, cloud.http):
            found = [address for address in listening if address.endswith(":%04X" % port)]
            self.assertEqual(found, ["0100007F:%04X" % port])

    def failing(self, *options):
        command = [LOCALCLOUD, "--state", self.state, *options]
        return subprocess.run(command, capture_output=True, text=True, timeout=20)

    #: Ports that the services file gives to one kind of service alone are that target's own.
    def test_TakesATargetsOwnPortFromTheServicesFile(self):
        with contextlib.ExitStack() as stack:
            sockets = [stack.enter_context(socket.create_server(("127.0.0.1", 0)))
                       for _ in range(4)]
            main, terms, moment, stream = (taken.getsockname()[1] for taken in sockets)
        document = json.loads(json.dumps(SERVICES_DOCUMENT))
        for environment in document["environments"].values():
            for name, port in (("config-url", main), ("tou-url", terms), ("web-time-url", moment)):
                environment[name] = environment[name].replace("18443", str(port))
        document["s3-endpoint"] = "https://localhost:%d" % main
        document["firehose-endpoint"] = "https://localhost:%d" % stream
        path = os.path.join(self.directory, "services.json")
        with open(path, "w", encoding="utf-8") as file:
            json.dump(document, file)
        cloud = Cloud(self.state, "--services", path, "--https-port", str(main))
        self.addCleanup(cloud.stop)
        ports = cloud.state_now()["ports"]
        self.assertEqual([ports[name] for name in ("https", "tou", "time", "firehose")],
                         [main, terms, moment, stream])
        self.assertNotIn(ports["config"], (main, terms, moment, stream))  # s3 shares the main one
        endpoints = [cloud.config().json()[name] for name in ("firehose_endpoint", "s3_endpoint")]
        self.assertEqual(endpoints, ["https://localhost:%d" % port for port in (stream, main)])
        cloud.control({"misbehave": {"tou": {"action": "certificate"}}})
        with self.assertRaises(ssl.SSLCertVerificationError):
            cloud.time(terms)
        self.assertEqual([cloud.time(port).status for port in (main, moment)], [200, 200])

    #: A line that a killed process left unfinished is taken away at the next start.
    def test_TakesAwayALineThatWasLeftUnfinished(self):
        first = self.start()
        self.assertEqual(first.time().status, 200)
        first.stop()
        with open(os.path.join(self.state, "requests.jsonl"), "a", encoding="utf-8") as file:
            file.write('{"number": 2, "ti')
        second = self.start()
        second.trust = first.trust
        self.assertEqual(second.time().status, 200)
        with open(os.path.join(self.state, "requests.jsonl"), encoding="utf-8") as file:
            self.assertEqual([json.loads(line)["number"] for line in file], [1, 2])
        self.assertEqual([entry["number"] for entry in second.requests_since()["requests"]], [2])

    #: The local cloud says what is wrong when it cannot start.
    def test_SaysWhatIsWrongWhenItCannotStart(self):
        bad = os.path.join(self.directory, "bad.json")
        for content, option, words in (
            ('{"misbehave": 1}', "--scenario", '"misbehave" is not an object'),
            ("{", "--scenario", "localcloud: "),
            ("{}", "--services", "missing or misplaced: 'environments'"),
        ):
            with open(bad, "w", encoding="utf-8") as file:
                file.write(content)
            ended = self.failing("--https-port", "0", "--http-port", "0", option, bad)
            self.assertEqual((ended.returncode, ended.stdout), (1, ""))
            self.assertIn(words, ended.stderr)
            self.assertNotIn("Traceback", ended.stderr)

    #: When its port is taken the local cloud ends with status 1 and says so.
    def test_SaysWhenAPortIsTaken(self):
        with socket.create_server(("127.0.0.1", 0)) as taken:
            port = str(taken.getsockname()[1])
            ended = self.failing("--https-port", port, "--http-port", "0")
        self.assertEqual(ended.returncode, 1)
        self.assertIn("Address already in use", ended.stderr)


# --- the scrambler ------------------------------------------------------------


def unscramble(vector):
    """The documented way back from a vector of signed bytes to the value."""
    sums, total = [], 0
    for value in vector:
        assert -128 <= value <= 127
        total = (total + value) % 256
        sums.append(total)
    n, result = len(vector), bytearray()
    for k in range(n // 2):
        for s in range(n // 2):
            if sums[n - 1 - s] == k:
                result.append((sums[s] + 40) % 256)
                break
    return bytes(result)


def parsed_tables(text):
    """Identifier: three values, unscrambled from the text of an include file."""
    tables = {}
    for part in text.split("std::vector<signed char> ")[1:]:
        name, _, rest = part.partition("[3] = {")
        vectors = rest.partition(";")[0].strip()[:-1].split("}")[:3]
        numbers = [v.replace("{", " ").replace(",", " ").split() for v in vectors]
        tables[name] = [unscramble([int(number) for number in vector]) for vector in numbers]
    return tables


class ScramblerTest(unittest.TestCase):
    NAMES = {"kTouUrlTable": "tou-url", "kWebTimeUrlTable": "web-time-url",
             "kConfigUrlTable": "config-url", "kApiKeyTable": "api-key",
             "kStorageKeyTable": "storage-key"}

    @classmethod
    def setUpClass(cls):
        cls.scrambler = load_module(SCRAMBLER)

    def setUp(self):
        self.directory = tempfile.mkdtemp(prefix="scrambler-test-")
        self.addCleanup(shutil.rmtree, self.directory)
        self.target = os.path.join(self.directory, "generated", "Tables.inc")
        self.document = json.loads(json.dumps(SERVICES_DOCUMENT))

    def run_tool(self, document=None):
        source = os.path.join(self.directory, "services.json")
        with open(source, "w", encoding="utf-8") as file:
            json.dump(self.document if document is None else document, file)
        return subprocess.run([SCRAMBLER, source, self.target], capture_output=True, text=True)

    def written(self):
        with open(self.target, encoding="ascii") as file:
            return file.read()

    #: The tables hold the services file of the build, and no value of it is readable in the
    #: program.
    def test_ComesBackByTheDocumentedAlgorithm(self):
        values = (b"", b"%", b"A", b"('%'" + bytes([0, 39, 40, 41, 127, 128, 255]), b"a" * 16,
                  bytes(range(16)), bytes(range(256)), b"%" * 256, b"x" * 255)
        for value in values:
            vector = self.scrambler.scramble(value, b"salt")
            self.assertEqual(len(vector), 2 * len(value))
            self.assertEqual(unscramble(vector), value)

    #: The scrambler mixes up the order of a value's characters, in each environment and for each
    #: member in another way.
    def test_ShufflesTheCharacters(self):
        value = bytes(range(40, 104))
        sums, total = [], 0
        for difference in self.scrambler.scramble(value):
            total = (total + difference) % 256
            sums.append(total)
        self.assertNotEqual(sums[:64], sorted(sums[:64]))
        first, second = (self.scrambler.scramble(value, salt) for salt in (b"1", b"2"))
        self.assertNotEqual(first, second)

    #: The scrambler refuses a value of more than 256 characters, for which its tables have
    #: no place.
    def test_RefusesMoreThan256Characters(self):
        with self.assertRaises(self.scrambler.ServicesError):
            self.scrambler.scramble(b"x" * 257)

    #: The tables hold the services file of the build, and no value of it is readable in the
    #: program.
    def test_WritesAllTablesInTheOrderProductionDevelopmentAcceptance(self):
        self.assertEqual(self.run_tool().returncode, 0)
        environments = self.document["environments"]
        expected = {
            table: [environments[name][member].encode() for name in ("prod", "dev", "acc")]
            for table, member in self.NAMES.items()
        }
        self.assertEqual(parsed_tables(self.written()), expected)

    #: The tables hold the services file of the build, and no value of it is readable in the
    #: program.
    def test_ShowsNoValueOfTheTables(self):
        self.assertEqual(self.run_tool().returncode, 0)
        for environment in self.document["environments"].values():
            for value in environment.values():
                self.assertNotIn(value, self.written())

    #: The scrambler writes the values that need no hiding as C++ constants, with awkward
    #: characters escaped.
    def test_WritesThePlainConstants(self):
        self.document["fallback-location"].update({"lat": -5, "city": 'a"\\?é1'})
        self.assertEqual(self.run_tool().returncode, 0)
        for line in (
            'constexpr char kConnectivityHost[] = "localhost";',
            'constexpr char kGeolocationUrl[] = "http://localhost:18480/json";',
            'constexpr char kDefaultFirehoseEndpoint[] = "https://localhost:18443";',
            'constexpr char kDefaultS3Endpoint[] = "https://localhost:18443";',
            "constexpr double kFallbackLatitude = -5.0;",
            "constexpr double kFallbackLongitude = 4.35;",
            'constexpr char kFallbackIp[] = "192.0.2.1";',
            'constexpr char kFallbackCity[] = "a\\042\\134\\077\\3511";',
            'constexpr char kFallbackRegion[] = "Brussels Capital";',
            'constexpr char kFallbackCountryCode[] = "BE";',
        ):
            self.assertIn(line + "\n", self.written())

    #: The scrambler leaves its file alone when no value has changed, so that nothing is
    #: built again.
    def test_GivesTheSameTextForTheSameValuesAndThenLeavesTheFileAlone(self):
        self.run_tool()
        first = self.written()
        os.utime(self.target, (1000, 1000))
        self.assertEqual(self.run_tool().returncode, 0)
        self.assertEqual(os.stat(self.target).st_mtime, 1000)
        self.document["environments"]["acc"]["api-key"] = "another-key"
        self.assertEqual(self.run_tool().returncode, 0)
        self.assertNotEqual(os.stat(self.target).st_mtime, 1000)
        self.assertNotEqual(self.written(), first)
        self.assertEqual(os.listdir(os.path.dirname(self.target)), ["Tables.inc"])

    def assert_error(self, words):
        ended = self.run_tool()
        self.assertEqual(ended.returncode, 1)
        self.assertIn(words, ended.stderr)
        self.assertNotIn("Traceback", ended.stderr)
        self.assertFalse(os.path.exists(self.target))

    #: When the services file lacks a member, or has a wrong one, the scrambler names it and
    #: writes nothing.
    def test_SaysWhichMemberIsMissingOrWrong(self):
        def prod(name, value):
            return lambda document: document["environments"]["prod"].update({name: value})

        def top(name, value):
            return lambda document: document.update({name: value})

        def place(name, value):
            return lambda document: document["fallback-location"].update({name: value})

        for change, words in (
            (lambda d: d.pop("environments"), "environments: missing"),
            (lambda d: d["environments"].pop("acc"), "environments/acc: missing"),
            (lambda d: d["environments"]["dev"].pop("tou-url"), "dev/tou-url: missing"),
            (lambda d: d.pop("s3-endpoint"), "s3-endpoint: missing"),
            (lambda d: d["fallback-location"].pop("city"), "fallback-location/city: missing"),
            (top("fallback-location", []), "fallback-location: not an object"),
            (prod("storage-key", "x" * 15), "prod/storage-key: 15 characters, must be 16"),
            (prod("storage-key", "x" * 17), "prod/storage-key: 17 characters, must be 16"),
            (prod("api-key", "x" * 257), "api-key: 257 characters, at most 256 are possible"),
            (prod("api-key", "\u20ac"), "api-key: has a character that is not a single byte"),
            (prod("api-key", "a\0b"), "api-key: has a NUL character"),
            (prod("api-key", 5), "api-key: not a string"),
            (prod("tou-url", ""), "tou-url: not an http(s) URL"),
            (prod("api-key", "localhost"), "prod/api-key: would be readable in connectivity-host"),
            (top("connectivity-host", "a; reboot"), "connectivity-host: not a host name"),
            (top("geolocation-url", "http://x/other"), "geolocation-url: not an http URL"),
            (top("firehose-endpoint", "http://x"), "firehose-endpoint: not an https URL"),
            (place("lat", 90.5), "fallback-location/lat: not within -90 ... 90"),
            (place("lng", float("nan")), "fallback-location/lng: not within"),
            (place("lat", True), "fallback-location/lat: not a number"),
            (place("country-code", "be"), "country-code: not two capital letters"),
        ):
            self.document = json.loads(json.dumps(SERVICES_DOCUMENT))
            change(self.document)
            self.assert_error(words)

    #: A storage key may have any bytes, zero included.
    def test_TakesAnyBytesAsStorageKey(self):
        key = "".join(map(chr, [0, 255, 128, 37])) * 4
        self.document["environments"]["dev"]["storage-key"] = key
        self.assertEqual(self.run_tool().returncode, 0)
        table = parsed_tables(self.written())["kStorageKeyTable"]
        self.assertEqual(table[1], key.encode("latin-1"))

    #: The scrambler ends with status 1 and says so when its file is missing or is not a
    #: JSON object, and with its usage when it is not told which file.
    def test_SaysThatAFileIsMissingOrNoJson(self):
        command = [SCRAMBLER, "/nonexistent", self.target]
        ended = subprocess.run(command, capture_output=True, text=True)
        self.assertEqual(ended.returncode, 1)
        self.assertIn("No such file", ended.stderr)
        self.assertEqual(self.run_tool([]).returncode, 1)
        ended = subprocess.run([SCRAMBLER], capture_output=True, text=True)
        self.assertEqual(ended.returncode, 2)
        self.assertIn("usage:", ended.stderr)


if __name__ == "__main__":
    signal.alarm(120)  # a test that waits for ever ends the run
    unittest.main()
