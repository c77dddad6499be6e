"""The configuration of a set as text that a person edits, and back to a merge patch."""

import json

BIGGEST = 2**63 - 1
MEMBERS = ("version", "kiv_tou", "expiry_tou", "event-filter", "file-filter", "upload_events",
           "firehose_endpoint", "firehose_stream", "s3_endpoint", "s3_bucket", "credentials",
           "message", "errorMessage")


class TextError(Exception):
    """A text that is no such document; says why, and where when that is known."""

    def __init__(self, why, line=None, column=None):
        super().__init__(why)
        self.why, self.line, self.column = why, line, column

    def document(self):
        where = "line %d, column %d: " % (self.line, self.column) if self.line else ""
        return {"error": where + self.why, "line": self.line, "column": self.column}


def parsed_object(text, what):
    """The JSON object of a text, as a set would read it; raises TextError."""
    def no_such_number(word):
        raise TextError("%s is not a number in JSON" % word)

    def distinct(pairs):
        names = set()
        for name, _ in pairs:
            if name in names:
                raise TextError('"%s" stands twice in the same object' % name)
            names.add(name)
        return dict(pairs)

    try:
        document = json.loads(text, parse_constant=no_such_number, object_pairs_hook=distinct)
        json.dumps(document, ensure_ascii=False).encode()
    except json.JSONDecodeError as error:
        raise _explained(error, text)
    except UnicodeEncodeError:
        raise TextError("half of a surrogate pair is not a character")
    except RecursionError:
        raise TextError("nested too deeply")
    except ValueError as error:
        raise TextError(str(error))
    if not isinstance(document, dict):
        raise TextError("%s must be a JSON object: { ... }" % what, 1, 1)
    _check_numbers(document, "")
    return document


def _explained(error, text):
    if not text.strip():
        return TextError("there is no text", 1, 1)
    before = text[: error.pos].rstrip()
    if before.endswith(",") and text[error.pos : error.pos + 1] in ("}", "]"):
        lines = before.split("\n")
        return TextError("no comma may stand before a closing bracket", len(lines), len(lines[-1]))
    words = {
        "Expecting property name enclosed in double quotes": 'a member\'s name in double quotes '
                                                             "is expected here",
        "Expecting ':' delimiter": 'a colon is expected here, between a name and its value',
        "Expecting ',' delimiter": "a comma or a closing bracket is expected here",
        "Expecting value": "a value is expected here (text in double quotes, a number, true, "
                           "false, null, [ or {)",
        "Extra data": "the document has ended before this",
        "Unterminated string starting at": "the text that begins here has no closing quote",
    }
    return TextError(words.get(error.msg, error.msg), error.lineno, error.colno)


def _check_numbers(value, where):
    if isinstance(value, dict):
        for name, member in value.items():
            _check_numbers(member, "%s/%s" % (where, name) if where else name)
    elif isinstance(value, list):
        for place, element in enumerate(value):
            _check_numbers(element, "%s/%d" % (where, place))
    elif isinstance(value, int) and not isinstance(value, bool) and abs(value) > BIGGEST:
        raise TextError('"%s": the number is too large for a set' % where)
    elif isinstance(value, float) and value in (float("inf"), float("-inf")):
        raise TextError('"%s": the number is too large for a set' % where)


def concerns(document):
    """What a set would not understand, in words; the document can be given out all the same."""
    found = ['"%s" is not a member that a set knows' % name
             for name in document if name not in MEMBERS]
    kinds = {"kiv_tou": (bool, "true or false"), "expiry_tou": (int, "a whole number of seconds"),
             "event-filter": (dict, "an object"), "file-filter": (dict, "an object"),
             "upload_events": (dict, "an object")}
    for name, (kind, words) in kinds.items():
        value = document.get(name)
        wrong = not isinstance(value, kind) or kind is int and isinstance(value, bool)
        if name in document and wrong:
            found.append('"%s" should be %s' % (name, words))
    for name in ("event-filter", "file-filter"):
        if isinstance(document.get(name), dict):
            found += filter_concerns(document[name], '"%s": ' % name)
    return found


def filter_concerns(document, where=""):
    found = []
    for name, rules in document.items():
        if name not in ("include", "exclude"):
            found.append('%s"%s" rules nothing; known are "include" and "exclude"' % (where, name))
        elif not isinstance(rules, list):
            found.append('%s"%s" is not an array: it matches nothing' % (where, name))
    return found


def patch_between(old, new, where=""):
    """The merge patch (RFC 7396) that makes `new` of `old`; raises TextError where none can."""
    patch = {}
    for name in old:
        if name not in new:
            patch[name] = None
    for name, value in new.items():
        place = "%s/%s" % (where, name) if where else name
        if value is None:
            raise TextError('"%s" cannot be given out as null; leave the member out, or put the '
                            "rule into an array" % place)
        if name in old and same(old[name], value):
            continue
        if isinstance(value, dict):
            before = old.get(name)
            patch[name] = patch_between(before if isinstance(before, dict) else {}, value, place)
            # An empty patch makes an object of what is none, and leaves an object as it is.
        else:
            patch[name] = value
    return patch


def same(one, other):
    """Equal as JSON: true is not 1, and 1 is not 1.0."""
    return json.dumps(one, sort_keys=True) == json.dumps(other, sort_keys=True)
