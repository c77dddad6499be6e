"""Messages that nobody should write, by dice, from events that everybody writes."""
import json

HOSTILE_NAMES = ["", "/", "//", ".", "..", "/../../tmp/x", "/a/b", "x" * 300, "/" + "x" * 250,
                 "/" + "x" * 5000,
                 "/kiv_queue", "%s%n%x", "/with\nnewline", "/with\x1b[2Jescape", "\u202e", "/é",
                 "-1", "/dev/zero", "/proc/self/mem", "'; DROP TABLE Events; --"]
SEEDS = [
    {"event-type": "usage.epg", "data": {"channel": 5, "text": "some text"}},
    {"event-type": "usage.app", "kernel-time": 123456, "utc-time": "1470009600000",
     "data": {"app": "player", "list": [1, 2.5, None, True, {"a": []}]}},
    {"event-type": "usage.app", "oob-url": "/nowhere/file", "data": {
        "oob-info": {"unique-id": "u1", "bucketname": "b", "text": "t"}}},
    {"event-type": "usage.epg", "oob-url": "/nowhere/other.log", "data": {"text": "t"}},
    {"event-type": "pim.start", "data": {"pim-version": "1.2", "pim-builddate": "2019-03-07"}},
    {"event-type": "usage.moreinfo", "syncsem": "/nobody.waits",
     "data": {"text": "é\u2028\U0001f600"}},
]
NUMBERS = [b"0", b"-0", b"-1", b"2147483648", b"-2147483649", b"4294967296",
           b"9223372036854775807", b"-9223372036854775808", b"9223372036854775808",
           b"1e308", b"1e309", b"-1e999", b"1e-400",
           b"0.1e", b"1" * 400, b"0x10", b"NaN", b"Infinity", b"01"]
VALUES = [None, True, 0, -1, 2**31, -2**63, 2**63 - 1, 1.5, "", "x", "9" * 50, [], {}, [[]],
          {"": {}}, {"unique-id": {}}, [None] * 50]
TEXTS = [b"\x00", b"\xff", b"\xc0\x80", b"\xed\xa0\x80", b"\xf5\x80\x80\x80", b"\xe2\x80\xae",
         b"\\u0000", b"\\ud800", b"\\udc00\\ud800", b"\\", b'"', b"'", b"%s%n", b"\x1b[2J", b"\n",
         b"\xef\xbb\xbf"]
MOST = 8192  # bytes of a message


def mutated(dice):
    """A message of at most MOST bytes."""
    message = dice.choice(WAYS)(dice)
    if dice.random() < 0.2:
        message = _bytes_changed(dice, message)
    return message[:MOST]


def _seed(dice):
    return json.loads(json.dumps(dice.choice(SEEDS)))


def _text(event):
    return json.dumps(event).encode()


def _bytes_changed(dice, message):
    changed = bytearray(message or b"x")
    for _ in range(dice.randrange(1, 6)):
        changed[dice.randrange(len(changed))] = dice.randrange(256)
    return bytes(changed)


def _bytes(dice):
    return _bytes_changed(dice, _text(_seed(dice)))


def _truncated(dice):
    message = _text(_seed(dice))
    return message[:dice.randrange(len(message))]


def _nested(dice):
    depth = dice.choice((10, 100, 500, 1500, 2040, 2050, 4000))
    begin, end = dice.choice(((b"[", b"]"), (b'{"a":', b"}")))
    inside = begin * depth + b"1" + end * depth
    if dice.random() < 0.5:
        return inside
    return b'{"event-type": "usage.epg", "data": {"deep": ' + inside + b"}}"


def _number(dice):
    name = dice.choice((b"kernel-time", b"utc-time", b"event-type", b"data", b"syncsem", b"eventid",
                        b"boot-count", b"standby-count"))
    return b'{"event-type": "usage.epg", "%s": %s}' % (name, dice.choice(NUMBERS))


def _twice(dice):
    event = _seed(dice)
    name = dice.choice(sorted(event))
    again = json.dumps({name: dice.choice(VALUES)})[1:]
    return _text(event)[:-1] + b", " + again.encode()


def _odd_text(dice):
    message, odd = _text(_seed(dice)), dice.choice(TEXTS)
    place = dice.randrange(len(message))
    return message[:place] + odd + message[place:]


def _wrong_type(dice):
    event = _seed(dice)
    inside = event
    while True:
        name = dice.choice(sorted(inside))
        if isinstance(inside[name], dict) and inside[name] and dice.random() < 0.7:
            inside = inside[name]
            continue
        inside[name] = dice.choice(VALUES)
        return _text(event)


def _hostile_name(dice):
    name = dice.choice(HOSTILE_NAMES)
    kind = dice.randrange(4)
    if kind == 0:
        return _text({"event-type": "usage.epg", "syncsem": name, "data": {"text": "t"}})
    if kind == 1:
        return _text({"event-type": "usage.app", "oob-url": "/nowhere/x", "data": {
            "oob-info": {"unique-id": name, "bucketname": dice.choice(HOSTILE_NAMES)}}})
    if kind == 2:
        return _text({"event-type": name, "data": {"text": name}})
    return _text({"event-type": "usage.app", "oob-url": name, "data": {"oob-info": {"text": "t"}}})


def _long(dice):
    size = dice.choice((4000, 7000, 8000, 8192))
    return dice.choice((
        _text({"event-type": "usage.epg", "data": {"text": "x" * size}}),
        _text({"event-type": "x" * size}), b" " * size, b"\0" * size, dice.randbytes(size),
        b"[" * size, b'{"a":' * (size // 5),
        b"{" + b",".join(b'"%d":%d' % (n, n) for n in range(size // 12)) + b"}"))


WAYS = (_bytes, _bytes, _truncated, _nested, _number, _twice, _odd_text, _wrong_type,
        _hostile_name, _long)

PIPE_TEXTS = [b"", b"0", b"-1", b"1470009599", b"99999999999999999999999", b"9223372036854775807",
              b"-9223372036854775808", b"1e12", b"0x7fffffff", b"nan", b" ", b"\n", b"\0" * 16,
              b"\xff" * 100, b"%n%s%x", b"\x1b[2J", b"{}", b"x" * 5000, b"1" * 5000,
              b"253402300800000", b"4102444800000", b"2147483648000", b"1,5", b"++1", b"--"]


def mutated_time(dice, now_ms):
    """What somebody may write on the time pipe; never a time that would be believed."""
    text = dice.choice(PIPE_TEXTS)
    if dice.random() < 0.5:
        text = str(now_ms).encode()
        place = dice.randrange(len(text))
        text = text[:place] + bytes([dice.randrange(256)]) + text[place:]
    if dice.random() < 0.3:
        text = _bytes_changed(dice, text)
    return text[:4000]
