"""The stream service (Firehose) and the object service (S3)."""

import base64
import binascii
import hashlib
import json
import urllib.parse
import uuid
from xml.sax.saxutils import escape

import awscheck
from answer import Answer
from awscheck import AwsError

PUT_RECORD = "Firehose_20150804.PutRecord"
JSON_TYPE = "application/x-amz-json-1.1"
MAX_RECORD = 1000 * 1024  # bytes, before base64
MAX_KEY = 1024  # bytes in UTF-8
ACCOUNT = "000000000000"


# --- Firehose -----------------------------------------------------------------


class Firehose:
    def __init__(self, store, scenario):
        self._store = store
        self._scenario = scenario

    def answer(self, request):
        try:
            return self._put_record(request)
        except AwsError as error:
            return self.error_answer(error)

    def error_answer(self, error):
        document = {"__type": error.code, "message": error.message}
        return self._json(document, error.status, "refused: %s" % error)

    @staticmethod
    def refusal(code=None, status=None, message=None):
        """What a refusal looks like where the order does not say otherwise."""
        return AwsError(
            code or "AccessDeniedException",
            status or 400,
            message or "The caller is not authorized to perform: firehose:PutRecord",
        )

    def _put_record(self, request):
        if request.method != "POST" or request.header("x-amz-target") != PUT_RECORD:
            raise AwsError("UnknownOperationException", 400, "Unknown operation")
        if request.header("content-type") != JSON_TYPE:
            raise AwsError("UnknownOperationException", 400, "Unknown content type")
        awscheck.check(
            request, "firehose", self._scenario.credentials(), self._scenario.now()
        )
        stream, data = self._parse(request.body)
        if not self._scenario.knows_stream(stream):
            raise AwsError(
                "ResourceNotFoundException",
                400,
                "Firehose %s under account %s not found." % (stream, ACCOUNT),
            )
        record_id = self._store.add_record(stream, data)
        return self._json({"RecordId": record_id, "Encrypted": False}, 200, "accepted")

    @staticmethod
    def _parse(body):
        """(stream name, record bytes) of the request's document."""
        try:
            document = json.loads(body)
        except (ValueError, RecursionError):
            raise AwsError("SerializationException", 400, "The document is not JSON")
        if not isinstance(document, dict):
            raise AwsError("SerializationException", 400, "Start of structure or map expected")
        stream = document.get("DeliveryStreamName")
        record = document.get("Record")
        data = record.get("Data") if isinstance(record, dict) else None
        for value, name in ((stream, "deliveryStreamName"), (data, "record.data")):
            if value is None:
                raise _validation("null", name, "Member must not be null")
            if not isinstance(value, str):
                raise AwsError("SerializationException", 400, "%s is not a string" % name)
        if not 1 <= len(stream) <= 64:
            limits = "Member must have length between 1 and 64"
            raise _validation("'%s'" % stream, "deliveryStreamName", limits)
        try:
            decoded = base64.b64decode(data, validate=True)
        except (binascii.Error, ValueError):
            raise AwsError("SerializationException", 400, "record.data is not Base64")
        if len(decoded) > MAX_RECORD:
            limit = "Member must have length less than or equal to %d" % MAX_RECORD
            raise _validation("of %d bytes" % len(decoded), "record.data", limit)
        return stream, decoded

    @staticmethod
    def _json(document, status, verdict):
        request_id = ("x-amzn-RequestId", str(uuid.uuid4()))
        body = json.dumps(document).encode()
        return Answer(status, body, JSON_TYPE, verdict, [request_id])


def _validation(value, member, constraint):
    return AwsError(
        "ValidationException",
        400,
        "1 validation error detected: Value %s at '%s' failed to satisfy constraint: %s"
        % (value, member, constraint),
    )


# --- S3 -----------------------------------------------------------------------


class S3:
    def __init__(self, store, scenario):
        self._store = store
        self._scenario = scenario

    def answer(self, request):
        try:
            return self._answer(request)
        except AwsError as error:
            return self.error_answer(error)

    def error_answer(self, error):
        request_id = uuid.uuid4().hex[:16].upper()
        elements = {"Code": error.code, "Message": error.message, **error.details}
        elements.update({"RequestId": request_id, "HostId": "local-cloud"})
        inside = "".join("<%s>%s</%s>" % (k, escape(v), k) for k, v in elements.items())
        body = '<?xml version="1.0" encoding="UTF-8"?>\n<Error>%s</Error>' % inside
        headers = [("x-amz-request-id", request_id)]
        verdict = "refused: %s" % error
        return Answer(error.status, body.encode(), "application/xml", verdict, headers)

    @staticmethod
    def refusal(code=None, status=None, message=None):
        """What a refusal looks like where the order does not say otherwise."""
        return AwsError(code or "AccessDenied", status or 403, message or "Access Denied")

    def _answer(self, request):
        awscheck.check(request, "s3", self._scenario.credentials(), self._scenario.now())
        bucket, key = self._bucket_and_key(request.path)
        if request.method not in ("PUT", "GET") or not key:
            raise AwsError("MethodNotAllowed", 405,
                           "The specified method is not allowed against this resource.",
                           Method=request.method)
        if not self._scenario.knows_bucket(bucket):
            raise AwsError("NoSuchBucket", 404, "The specified bucket does not exist",
                           BucketName=bucket)
        if len(key.encode()) > MAX_KEY:
            raise AwsError("KeyTooLongError", 400, "Your key is too long")
        if request.method == "PUT":
            return self._put(request, bucket, key)
        return self._get(bucket, key)

    @staticmethod
    def _bucket_and_key(path):
        try:
            decoded = urllib.parse.unquote(path, errors="strict")
        except UnicodeDecodeError:
            raise AwsError("InvalidURI", 400, "Couldn't parse the specified URI.", URI=path)
        bucket, _, key = decoded[1:].partition("/")
        return bucket, key

    def _put(self, request, bucket, key):
        computed = hashlib.md5(request.body)
        self._check_md5(request.header("content-md5"), computed.digest())
        content_type = request.header("content-type") or "binary/octet-stream"
        self._store.put_object(bucket, key, request.body, content_type)
        return self._answer_with(b"", "", computed.hexdigest())

    @staticmethod
    def _check_md5(sent, computed):
        if sent is None:
            return
        try:
            decoded = base64.b64decode(sent, validate=True)
        except (binascii.Error, ValueError):
            decoded = b""
        if len(decoded) != len(computed):
            raise AwsError("InvalidDigest", 400, "The Content-MD5 you specified was invalid.",
                           **{"Content-MD5": sent})
        if decoded != computed:
            raise AwsError("BadDigest", 400,
                           "The Content-MD5 you specified did not match what we received.",
                           ExpectedDigest=sent,
                           CalculatedDigest=base64.b64encode(computed).decode())

    def _get(self, bucket, key):
        found = self._store.get_object(bucket, key)
        if found is None:
            raise AwsError("NoSuchKey", 404, "The specified key does not exist.", Key=key)
        entry, data = found
        return self._answer_with(data, entry["content-type"], entry["md5"])

    @staticmethod
    def _answer_with(body, content_type, md5):
        request_id = ("x-amz-request-id", uuid.uuid4().hex[:16].upper())
        return Answer(200, body, content_type, headers=[request_id, ("ETag", '"%s"' % md5)])
