#!/usr/bin/python3
"""Checks the signature of one captured request with botocore's own signers.

    sigv4_verify.py REQUEST.json

REQUEST.json is an object with "service", "region", "access_key", "secret_key", "token", "scheme",
"method", "target", "headers" (pairs of name and value, as sent) and "body" (Base64). Prints "ok"
and leaves with 0 when the request is signed as it came; otherwise one line for each thing that is
wrong and leaves with 1.
"""

import base64
import hashlib
import json
import sys

from botocore.auth import S3SigV4Auth, SigV4Auth
from botocore.awsrequest import AWSRequest
from botocore.credentials import Credentials

# Headers that a proxy may change, and the signature itself.
UNSIGNED = {"accept", "user-agent", "authorization", "expect"}


def expected_authorization(captured, headers):
    """The Authorization header that botocore gives the captured request."""
    token = captured["token"] or None
    credentials = Credentials(captured["access_key"], captured["secret_key"], token)
    kind = S3SigV4Auth if captured["service"] == "s3" else SigV4Auth
    signer = kind(credentials, captured["service"], captured["region"])
    request = AWSRequest(
        method=captured["method"],
        url=captured["scheme"] + "://" + headers["host"] + captured["target"],
        headers={name: value for name, value in headers.items() if name not in UNSIGNED},
    )
    request.context["timestamp"] = headers["x-amz-date"]
    text = signer.string_to_sign(request, signer.canonical_request(request))
    signature = signer.signature(text, request)
    signed = signer.signed_headers(signer.headers_to_sign(request))
    return (
        "AWS4-HMAC-SHA256 Credential=%s, SignedHeaders=%s, Signature=%s"
        % (signer.scope(request), signed, signature)
    )


def expected_payload(captured, body):
    """What x-amz-content-sha256 has to say."""
    if captured["service"] == "s3" and captured["scheme"] == "https":
        return "UNSIGNED-PAYLOAD"
    return hashlib.sha256(body).hexdigest()


def problems(captured):
    """The list of what is wrong with the request."""
    names = [name.lower() for name, _ in captured["headers"]]
    headers = {name.lower(): value for name, value in captured["headers"]}
    body = base64.b64decode(captured["body"])
    found = ["header sent twice: " + name for name in sorted(set(names)) if names.count(name) > 1]
    expected = {
        "x-amz-content-sha256": expected_payload(captured, body),
        "x-amz-security-token": captured["token"] or None,
        "authorization": expected_authorization(captured, headers),
    }
    if captured["method"] != "GET":
        expected["content-length"] = str(len(body))
    if "content-md5" in headers:
        expected["content-md5"] = base64.b64encode(hashlib.md5(body).digest()).decode()
    for name, value in expected.items():
        if headers.get(name) != value:
            found.append("%s: expected %s, sent %s" % (name, value, headers.get(name)))
    return found


def main():
    with open(sys.argv[1], encoding="utf-8") as file:
        found = problems(json.load(file))
    print("\n".join(found) if found else "ok")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
