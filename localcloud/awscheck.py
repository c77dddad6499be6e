"""Who signed a request, and rightly? The checks that the real services make.

The signature is computed anew from the raw request with botocore's own signers.
A request that fails raises AwsError with the service's own error name, message
and status.
"""

import calendar
import hashlib
import hmac
import re
import time
from dataclasses import dataclass

from botocore.auth import S3SigV4Auth, SigV4Auth
from botocore.awsrequest import AWSRequest
from botocore.credentials import Credentials as SigningCredentials

REGION = "eu-west-1"
MAX_SKEW = 15 * 60  # seconds
UNSIGNED = "UNSIGNED-PAYLOAD"

# What is wrong: (error name, status, message), for each service.
_FIREHOSE = {
    "anonymous": ("MissingAuthenticationTokenException", 400, "Missing Authentication Token"),
    "malformed": ("IncompleteSignatureException", 400,
                  "Authorization header requires 'Credential', 'Signature' and 'SignedHeaders' "
                  "parameters. Authorization={authorization}"),
    "no date": ("IncompleteSignatureException", 400,
                "Authorization header requires existence of either a 'X-Amz-Date' or a 'Date' "
                "header. Authorization={authorization}"),
    "key": ("UnrecognizedClientException", 400,
            "The security token included in the request is invalid."),
    "region": ("InvalidSignatureException", 400,
               "Credential should be scoped to a valid region, not '{region}'. "),
    "service": ("InvalidSignatureException", 400,
                "Credential should be scoped to correct service: '{expected}'. "),
    "scope": ("InvalidSignatureException", 400,
              "Date in Credential scope does not match YYYYMMDD from ISO-8601 version of date "
              "from HTTP: '{scope}' != '{date}'."),
    "skew": ("InvalidSignatureException", 400,
             "Signature not within 15 min of the current time: {date} is not near {now}."),
    "unsigned header": ("InvalidSignatureException", 400,
                        "'{header}' must be a 'SignedHeader' in the AWS Authorization."),
    "signature": ("InvalidSignatureException", 400,
                  "The request signature we calculated does not match the signature you provided. "
                  "Check your AWS Secret Access Key and signing method. Consult the service "
                  "documentation for details."),
    "token": ("UnrecognizedClientException", 400,
              "The security token included in the request is invalid."),
    "expired": ("ExpiredTokenException", 400,
                "The security token included in the request is expired"),
}
_FIREHOSE["digest"] = _FIREHOSE["signature"]
_FIREHOSE["no token"] = _FIREHOSE["token"]

_S3 = {
    "anonymous": ("AccessDenied", 403, "Access Denied"),
    "malformed": ("AuthorizationHeaderMalformed", 400,
                  "The authorization header that you provided is not valid."),
    "no date": ("AccessDenied", 403,
                "AWS authentication requires a valid Date or x-amz-date header"),
    "key": ("InvalidAccessKeyId", 403,
            "The AWS Access Key Id you provided does not exist in our records."),
    "region": ("AuthorizationHeaderMalformed", 400,
               "The authorization header is malformed; the region '{region}' is wrong; "
               "expecting '{expected}'"),
    "service": ("AuthorizationHeaderMalformed", 400,
                "The authorization header is malformed; incorrect service \"{service}\". "
                "This endpoint belongs to \"{expected}\"."),
    "scope": ("AuthorizationHeaderMalformed", 400,
              "The authorization header is malformed; Invalid credential date \"{scope}\". "
              "This date is not the same as X-Amz-Date: \"{date}\"."),
    "skew": ("RequestTimeTooSkewed", 403,
             "The difference between the request time and the current time is too large."),
    "unsigned header": ("AccessDenied", 403,
                        "There were headers present in the request which were not signed"),
    "signature": ("SignatureDoesNotMatch", 403,
                  "The request signature we calculated does not match the signature you provided. "
                  "Check your key and signing method."),
    "token": ("InvalidToken", 400, "The provided token is malformed or otherwise invalid."),
    "expired": ("ExpiredToken", 400, "The provided token has expired."),
    "no digest": ("InvalidRequest", 400,
                  "Missing required header for this request: x-amz-content-sha256"),
    "digest": ("XAmzContentSHA256Mismatch", 400,
               "The provided 'x-amz-content-sha256' header does not match what was computed."),
}
_S3["no token"] = _S3["key"]  # a temporary key is not known without its token

_ERRORS = {"firehose": _FIREHOSE, "s3": _S3}
_SIGNERS = {"firehose": SigV4Auth, "s3": S3SigV4Auth}

_AUTHORIZATION = re.compile(
    r"AWS4-HMAC-SHA256 +Credential=(?P<key>[^/,\s]+)/(?P<scope>\d{8})/(?P<region>[^/,\s]+)"
    r"/(?P<service>[^/,\s]+)/aws4_request, *SignedHeaders=(?P<signed>[a-z0-9;-]+), *"
    r"Signature=(?P<signature>[0-9a-f]{64})"
)


class AwsError(Exception):
    """A refusal in the service's own words."""

    def __init__(self, code, status, message, **details):
        super().__init__("%s: %s" % (code, message))
        self.code = code
        self.status = status
        self.message = message
        self.details = details  # further elements of an S3 error document


@dataclass
class _Signature:
    key: str
    scope: str  # its date, YYYYMMDD
    region: str
    service: str
    signed: str
    signature: str


def check(request, service, credentials, now):
    """Returns when REQUEST is rightly signed for "firehose" or "s3" at NOW (UTC seconds)."""
    _Check(request, service, credentials, now).run()


class _Check:
    def __init__(self, request, service, credentials, now):
        self._request = request
        self._service = service
        self._credentials = credentials
        self._now = now

    def run(self):
        sent = self._authorization()
        date = self._date()
        if sent.key != self._credentials.access_key_id:
            self._fail("key", AWSAccessKeyId=sent.key)
        self._check_token_is_there()
        self._check_scope(sent, date)
        self._check_skew(date)
        self._check_digest_is_there()
        self._check_headers_are_signed(sent)
        self._check_signature(sent, date)
        self._check_digest()
        self._check_token()

    def _fail(self, what, words=None, **details):
        code, status, message = _ERRORS[self._service][what]
        raise AwsError(code, status, message.format(**(words or {})), **details)

    def _authorization(self):
        value = self._request.header("authorization")
        if value is None:
            self._fail("anonymous")
        match = _AUTHORIZATION.fullmatch(value)
        if match is None:
            self._fail("malformed", {"authorization": value})
        return _Signature(**match.groupdict())

    def _date(self):
        """The text of x-amz-date, known to be a date."""
        date = self._request.header("x-amz-date")
        if date is None or _seconds(date) is None:
            authorization = self._request.header("authorization")
            self._fail("no date", {"authorization": authorization})
        return date

    def _check_scope(self, sent, date):
        if sent.region != REGION:
            self._fail("region", {"region": sent.region, "expected": REGION}, Region=REGION)
        if sent.service != self._service:
            self._fail("service", {"service": sent.service, "expected": self._service})
        if sent.scope != date[:8]:
            self._fail("scope", {"scope": sent.scope, "date": date[:8]})

    def _check_skew(self, date):
        if abs(_seconds(date) - self._now) > MAX_SKEW:
            now = time.strftime("%Y%m%dT%H%M%SZ", time.gmtime(self._now))
            self._fail("skew", {"date": date, "now": now}, RequestTime=date,
                       ServerTime=time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime(self._now)),
                       MaxAllowedSkewMilliseconds=str(MAX_SKEW * 1000))

    def _check_headers_are_signed(self, sent):
        signed = sent.signed.split(";")
        present = {name.lower() for name, _ in self._request.headers}
        needed = ["host"] + sorted(name for name in present if name.startswith("x-amz-"))
        for name in needed:
            if name not in signed:
                self._fail("unsigned header", {"header": name}, HeadersNotSigned=name)
        for name in signed:
            if name not in present:
                self._fail("signature")

    def _check_digest_is_there(self):
        """Other services than S3 hash the body themselves and need no header."""
        sent = self._request.header("x-amz-content-sha256")
        if sent is None and self._service == "s3":
            self._fail("no digest")

    def _check_digest(self):
        sent = self._request.header("x-amz-content-sha256")
        if sent is None or (sent == UNSIGNED and self._service == "s3"):
            return
        computed = hashlib.sha256(self._request.body).hexdigest()
        if sent != computed:
            self._fail("digest", ClientComputedContentSHA256=sent,
                       S3ComputedContentSHA256=computed)

    def _check_signature(self, sent, date):
        keys = SigningCredentials(
            self._credentials.access_key_id, self._credentials.secret_access_key
        )
        signer = _SIGNERS[self._service](keys, self._service, REGION)
        request = self._as_signed(sent, date)
        text = signer.string_to_sign(request, signer.canonical_request(request))
        computed = signer.signature(text, request)
        if not hmac.compare_digest(computed, sent.signature):
            self._fail("signature", AWSAccessKeyId=sent.key,
                       SignatureProvided=sent.signature, StringToSign=text)

    def _as_signed(self, sent, date):
        """The request with its signed headers only, as botocore's signers take it."""
        signed = sent.signed.split(";")
        url = "https://" + (self._request.header("host") or "") + self._request.target
        request = AWSRequest(self._request.method, url, data=self._request.body)
        for name, value in self._request.headers:
            if name.lower() in signed:
                request.headers.add_header(name, value)
        request.context["timestamp"] = date
        return request

    def _check_token_is_there(self):
        expected = self._credentials.session_token
        if expected and not self._request.header("x-amz-security-token"):
            key = self._credentials.access_key_id
            self._fail("no token", AWSAccessKeyId=key)

    def _check_token(self):
        expected = self._credentials.session_token
        sent = self._request.header("x-amz-security-token") or ""
        if not hmac.compare_digest(sent.encode(), expected.encode()):
            self._fail("token", **{"Token-0": sent})
        if self._credentials.expired:
            self._fail("expired", **{"Token-0": sent})


def _seconds(date):
    """UTC seconds of YYYYMMDDTHHMMSSZ, None when it is not such a text."""
    if not re.fullmatch(r"\d{8}T\d{6}Z", date):
        return None
    try:
        return calendar.timegm(time.strptime(date, "%Y%m%dT%H%M%SZ"))
    except ValueError:
        return None
