#!/usr/bin/python3
"""Turns a services file into the C++ tables of ServiceTables.cpp and Services.cpp.

usage: scramble_services.py IN.json OUT.inc

The five service values of every environment are written scrambled, so that none
of them can be read in the program file. The other values are plain constants.
OUT is written only when its content changes; the same IN gives the same OUT.
"""

import hashlib
import json
import math
import os
import re
import sys
import tempfile
import textwrap

ENVIRONMENTS = ("prod", "dev", "acc")  # the order of the vectors in every table
TABLES = (
    ("tou-url", "kTouUrlTable"),
    ("web-time-url", "kWebTimeUrlTable"),
    ("config-url", "kConfigUrlTable"),
    ("api-key", "kApiKeyTable"),
    ("storage-key", "kStorageKeyTable"),
)
TEXTS = (
    ("connectivity-host", "kConnectivityHost"),
    ("geolocation-url", "kGeolocationUrl"),
    ("firehose-endpoint", "kDefaultFirehoseEndpoint"),
    ("s3-endpoint", "kDefaultS3Endpoint"),
)
FALLBACK_NUMBERS = (
    ("lat", "kFallbackLatitude", 90.0),
    ("lng", "kFallbackLongitude", 180.0),
)
FALLBACK_TEXTS = (
    ("ip", "kFallbackIp"),
    ("city", "kFallbackCity"),
    ("region", "kFallbackRegion"),
    ("country-code", "kFallbackCountryCode"),
)

MAX_LENGTH = 256  # a place in a vector is one byte
STORAGE_KEY_LENGTH = 16  # AES-128
CHARACTER_OFFSET = 40


class ServicesError(Exception):
    """The services file cannot be used; the text says why."""


# --- scrambling ---------------------------------------------------------------


def scramble(value, salt=b""):
    """The vector (signed bytes) of VALUE (bytes, at most 256).

    Its running sums p[0..2m-1] carry in p[s] a character less 40 (mod 256) and
    in p[2m-1-s] that character's place in the value. SALT varies the shuffle.
    """
    if len(value) > MAX_LENGTH:
        raise ServicesError("longer than %d characters" % MAX_LENGTH)

    def shuffled(place):
        return hashlib.sha256(salt + b"\0" + value + b"\0%d" % place).digest()

    order = sorted(range(len(value)), key=shuffled)
    sums = [(value[place] - CHARACTER_OFFSET) % 256 for place in order] + order[::-1]
    differences = [(now - before) % 256 for before, now in zip([0] + sums, sums)]
    return [d - 256 if d > 127 else d for d in differences]


# --- reading and checking -----------------------------------------------------


def _member(parent, name, where):
    if name not in parent:
        raise ServicesError("%s: missing" % where)
    return parent[name]


def _object(parent, name, where):
    value = _member(parent, name, where)
    if not isinstance(value, dict):
        raise ServicesError("%s: not an object" % where)
    return value


def _text(parent, name, where):
    """A string member as bytes, one per character."""
    value = _member(parent, name, where)
    if not isinstance(value, str):
        raise ServicesError("%s: not a string" % where)
    try:
        encoded = value.encode("latin-1")
    except UnicodeEncodeError:
        raise ServicesError("%s: has a character that is not a single byte" % where)
    if len(encoded) > MAX_LENGTH:
        raise ServicesError(
            "%s: %d characters, at most %d are possible" % (where, len(encoded), MAX_LENGTH)
        )
    if b"\0" in encoded and name != "storage-key":
        raise ServicesError("%s: has a NUL character" % where)
    return encoded


def _number(parent, name, where, limit):
    value = _member(parent, name, where)
    if isinstance(value, bool) or not isinstance(value, (int, float)):
        raise ServicesError("%s: not a number" % where)
    if not math.isfinite(value) or abs(value) > limit:
        raise ServicesError("%s: not within -%g ... %g" % (where, limit, limit))
    return float(value)


def _check_form(value, pattern, where, form):
    if not re.fullmatch(pattern, value):
        raise ServicesError("%s: not %s" % (where, form))


def _read_environment(environments, environment):
    members = _object(environments, environment, "environments/%s" % environment)
    values = {}
    for name, _ in TABLES:
        where = "environments/%s/%s" % (environment, name)
        values[name] = _text(members, name, where)
        if name.endswith("-url"):
            _check_form(values[name], rb"https?://[^/\s]+(/\S*)?", where, "an http(s) URL")
    where = "environments/%s/storage-key" % environment
    if len(values["storage-key"]) != STORAGE_KEY_LENGTH:
        raise ServicesError(
            "%s: %d characters, must be %d"
            % (where, len(values["storage-key"]), STORAGE_KEY_LENGTH)
        )
    return values


def _read_texts(document):
    values = {name: _text(document, name, name) for name, _ in TEXTS}
    # The host becomes a word of a shell command, so it holds no character of the shell's.
    _check_form(
        values["connectivity-host"],
        rb"[A-Za-z0-9][A-Za-z0-9.:-]*",
        "connectivity-host",
        "a host name or address",
    )
    _check_form(
        values["geolocation-url"],
        rb"http://[^/\s]+/json",
        "geolocation-url",
        'an http URL with the path "/json"',
    )
    for name in ("firehose-endpoint", "s3-endpoint"):
        _check_form(values[name], rb"https://[^/\s]+", name, "an https URL without a path")
    return values


def _read_fallback(document):
    place = _object(document, "fallback-location", "fallback-location")
    values = {}
    for name, _, limit in FALLBACK_NUMBERS:
        values[name] = _number(place, name, "fallback-location/%s" % name, limit)
    for name, _ in FALLBACK_TEXTS:
        values[name] = _text(place, name, "fallback-location/%s" % name)
    _check_form(
        values["country-code"],
        rb"[A-Z]{2}",
        "fallback-location/country-code",
        "two capital letters",
    )
    return values


def _check_nothing_shows(environments, plain):
    """No scrambled value may stand readable in one of the plain constants."""
    for environment, values in environments.items():
        for table, _ in TABLES:
            for name, text in plain.items():
                if values[table] and values[table] in text:
                    raise ServicesError(
                        "environments/%s/%s: would be readable in %s" % (environment, table, name)
                    )


def read_services(document):
    """(environments, texts, fallback) of a parsed services file, checked."""
    if not isinstance(document, dict):
        raise ServicesError("not a JSON object")
    parent = _object(document, "environments", "environments")
    environments = {name: _read_environment(parent, name) for name in ENVIRONMENTS}
    texts = _read_texts(document)
    fallback = _read_fallback(document)
    plain = dict(texts)
    plain.update((name, fallback[name]) for name, _ in FALLBACK_TEXTS)
    _check_nothing_shows(environments, plain)
    return environments, texts, fallback


# --- writing ------------------------------------------------------------------


def _vector(values):
    text = "{" + ", ".join(str(value) for value in values) + "}"
    return textwrap.fill(text, 96, initial_indent="    ", subsequent_indent="     ")


def _table(name, identifier, environments):
    vectors = []
    for environment in ENVIRONMENTS:
        salt = ("%s/%s" % (environment, name)).encode()
        vectors.append(_vector(scramble(environments[environment][name], salt)))
    return "[[maybe_unused]] const std::vector<signed char> %s[3] = {\n%s};\n" % (
        identifier,
        ",\n".join(vectors),
    )


def _literal(value):
    """A C++ string literal; an octal escape has three digits, so no digit can join it."""
    plain = set(range(0x20, 0x7F)) - set(b'"\\?')
    return '"' + "".join(chr(c) if c in plain else "\\%03o" % c for c in value) + '"'


def include_text(document):
    """The content of the include file."""
    environments, texts, fallback = read_services(document)
    parts = [
        "// Made by tools/scramble_services.py; do not edit.\n",
        "#ifndef KIV_SERVICE_PLACES  // defined where only the plain constants are wanted\n",
    ]
    parts += [_table(name, identifier, environments) for name, identifier in TABLES]
    parts += ["#endif  // KIV_SERVICE_PLACES\n"]
    constants = [(identifier, texts[name]) for name, identifier in TEXTS]
    constants += [(identifier, fallback[name]) for name, identifier in FALLBACK_TEXTS]
    lines = [
        "[[maybe_unused]] constexpr char %s[] = %s;\n" % (identifier, _literal(value))
        for identifier, value in constants
    ]
    lines += [
        "[[maybe_unused]] constexpr double %s = %r;\n" % (identifier, fallback[name])
        for name, identifier, _ in FALLBACK_NUMBERS
    ]
    return "\n".join(parts + ["".join(lines)])


def write_if_changed(path, text):
    """Replaces the file in one step; leaves it (and its date) alone when it is the same."""
    try:
        with open(path, encoding="ascii") as old:
            if old.read() == text:
                return
    except (OSError, UnicodeDecodeError):
        pass  # no readable old file: write it
    directory = os.path.dirname(os.path.abspath(path))
    os.makedirs(directory, exist_ok=True)
    handle, temporary = tempfile.mkstemp(dir=directory, prefix=".scramble-")
    try:
        with os.fdopen(handle, "w", encoding="ascii") as new:
            new.write(text)
        os.chmod(temporary, 0o644)
        os.replace(temporary, path)
    except BaseException:
        os.unlink(temporary)
        raise


def main(arguments):
    if len(arguments) != 2 or arguments[0].startswith("-"):
        print(__doc__.strip(), file=sys.stderr)
        return 2
    source, target = arguments
    try:
        with open(source, encoding="utf-8") as file:
            document = json.load(file)
        write_if_changed(target, include_text(document))
    except (OSError, ValueError, RecursionError, ServicesError) as error:
        print("%s: %s" % (source, error), file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
