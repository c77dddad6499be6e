"""Posts events on the message queue of the telemetry daemon kivApp.

    import kivevent
    with kivevent.Queue() as queue:
        queue.post("usage.epg", {"channel": 5})

Over libkivevent.so.0; needs nothing else. A Queue may be used by any number of threads, and by the
children of a fork. docs/clients-python.md explains it.
"""
import ctypes
import enum
import json
import types
from typing import Any, Mapping, Optional, Type, Union

__all__ = ["Code", "Error", "InvalidArgument", "BadEvent", "NotTaken", "NoDaemon", "QueueFull",
           "NotHandled", "Denied", "Receipt", "Queue", "event", "check", "version"]

_LIBRARY = ctypes.CDLL("libkivevent.so.0")


class Code(enum.IntEnum):
    """How a call went; the numbers of kivevent.h."""
    OK = 0
    INVALID = 1
    NOT_JSON = 2
    NOT_UTF8 = 3
    NUL = 4
    NOT_OBJECT = 5
    NO_TYPE = 6
    QUOTE = 7
    TOO_LARGE = 8
    NO_DAEMON = 9
    FULL = 10
    TIMEOUT = 11
    NOT_HANDLED = 12
    DENIED = 13
    NO_MEMORY = 14
    SYSTEM = 15


class Error(Exception):
    """What kept an event from the daemon, in words; `code` says it to the program."""

    def __init__(self, code: int, text: str) -> None:
        super().__init__(text)
        self.code = Code(code) if code in list(Code) else code


class InvalidArgument(Error, ValueError):
    """An argument that makes no sense."""


class BadEvent(Error, ValueError):
    """The daemon would lose this event, whenever it is posted."""


class NotTaken(Error):
    """The event is not taken now; later it may be."""


class NoDaemon(NotTaken):
    """There is no queue: the daemon does not run."""


class QueueFull(NotTaken):
    """There was no room in the queue, now or for the whole time."""


class NotHandled(Error):
    """The event is in the queue, but was not handled in time; it may still be."""


class Denied(Error, PermissionError):
    """This user may not post."""


_CLASSES: Mapping[int, Type[Error]] = {
    Code.INVALID: InvalidArgument, Code.NOT_JSON: BadEvent, Code.NOT_UTF8: BadEvent,
    Code.NUL: BadEvent, Code.NOT_OBJECT: BadEvent, Code.NO_TYPE: BadEvent, Code.QUOTE: BadEvent,
    Code.TOO_LARGE: BadEvent, Code.NO_DAEMON: NoDaemon, Code.FULL: QueueFull,
    Code.TIMEOUT: QueueFull, Code.NOT_HANDLED: NotHandled, Code.DENIED: Denied}

_POINTER, _TEXT, _NUMBER, _SIZE = (ctypes.c_void_p, ctypes.c_char_p, ctypes.c_int,
                                   ctypes.c_size_t)


def _function(name: str, result: Any, *arguments: Any) -> Any:
    function = getattr(_LIBRARY, name)
    function.restype, function.argtypes = result, arguments
    return function


_version = _function("kivevent_version", _TEXT)
_detail = _function("kivevent_detail", _TEXT)
_open = _function("kivevent_open", _NUMBER, _TEXT, ctypes.POINTER(_POINTER))
_close = _function("kivevent_close", None, _POINTER)
_queue_name = _function("kivevent_queue_name", _TEXT, _POINTER)
_message_limit = _function("kivevent_message_limit", _NUMBER, _POINTER, ctypes.POINTER(_SIZE))
_post_bytes = _function("kivevent_post_bytes", _NUMBER, _POINTER, _TEXT, _SIZE, _NUMBER, _POINTER)
_post_sync = _function("kivevent_post_sync", _NUMBER, _POINTER, _TEXT, _NUMBER)
_check = _function("kivevent_check", _NUMBER, _TEXT, _SIZE)
_receipt_open = _function("kivevent_receipt_open", _NUMBER, ctypes.POINTER(_POINTER))
_receipt_wait = _function("kivevent_receipt_wait", _NUMBER, _POINTER, _NUMBER)
_receipt_close = _function("kivevent_receipt_close", None, _POINTER)

Text = Union[str, bytes]


def _succeed(code: int) -> None:
    if code != Code.OK:
        raise _CLASSES.get(code, Error)(code, _detail().decode(errors="replace"))


def _bytes(text: Text) -> bytes:
    """What is not UTF-8 goes to the library as it is, which refuses it in its own words."""
    return text if isinstance(text, bytes) else text.encode("utf-8", "surrogatepass")


def _milliseconds(seconds: float) -> int:
    if not seconds >= 0:
        raise InvalidArgument(Code.INVALID, "a time-out below 0")
    return int(min(seconds * 1000, 2147483647))


def version() -> str:
    """The library's version."""
    return _version().decode()


def event(event_type: str, data: Optional[Mapping[str, Any]] = None, *,
          kernel_time: Optional[int] = None, **members: Any) -> str:
    """The text of an event. `kernel_time` is in milliseconds of `time.monotonic_ns() // 10**6`;
    further members ("oob-url", "utc-time") are given as `**{"oob-url": "/tmp/a.log"}`."""
    whole = {"event-type": event_type, **members}
    if data is not None:
        whole["data"] = data
    if kernel_time is not None:
        whole["kernel-time"] = kernel_time
    try:
        return json.dumps(whole, ensure_ascii=False, allow_nan=False, separators=(",", ":"))
    except (TypeError, ValueError) as error:
        raise BadEvent(Code.NOT_JSON, str(error)) from None


def check(text: Text) -> None:
    """Raises BadEvent where the daemon would lose an event of this JSON text."""
    raw = _bytes(text)
    _succeed(_check(raw, len(raw)))


class Receipt:
    """Learns that one event was handled. Its name is in the system until it is closed."""

    def __init__(self) -> None:
        self._receipt = _POINTER()
        _succeed(_receipt_open(ctypes.byref(self._receipt)))

    def wait(self, seconds: float) -> bool:
        """Whether the event was handled within this time; True once."""
        code = _receipt_wait(self._receipt, _milliseconds(seconds))
        if code != Code.NOT_HANDLED:
            _succeed(code)
        return code == Code.OK

    def close(self) -> None:
        """Gives it back; once more does nothing."""
        receipt, self._receipt = self._receipt, _POINTER()
        _receipt_close(receipt)

    def __enter__(self) -> "Receipt":
        return self

    def __exit__(self, kind: Optional[Type[BaseException]], error: Optional[BaseException],
                 trace: Optional[types.TracebackType]) -> None:
        self.close()


class Queue:
    """A handle on the queue of the daemon: the one named, else the environment's KIV_QUEUE, else
    "/kiv_queue". It can be made without a daemon, and stays good when that is started again."""

    def __init__(self, name: Optional[str] = None) -> None:
        self._handle = _POINTER()
        _succeed(_open(None if name is None else _bytes(name), ctypes.byref(self._handle)))

    @property
    def name(self) -> str:
        """The name of the queue."""
        return _queue_name(self._handle).decode(errors="replace")

    @property
    def limit(self) -> int:
        """How large a message may be, in bytes."""
        size = _SIZE()
        _succeed(_message_limit(self._handle, ctypes.byref(size)))
        return size.value

    def post(self, event_type: str, data: Optional[Mapping[str, Any]] = None, *,
             timeout: float = 0, kernel_time: Optional[int] = None) -> None:
        """Posts an event, and waits up to `timeout` seconds for room. It returns when the event is
        in the queue."""
        self.post_text(event(event_type, data, kernel_time=kernel_time), timeout=timeout)

    def post_sync(self, event_type: str, data: Optional[Mapping[str, Any]] = None, *,
                  timeout: float = 5, kernel_time: Optional[int] = None) -> None:
        """The same; it returns when the daemon has handled the event."""
        text = _bytes(event(event_type, data, kernel_time=kernel_time))
        _succeed(_post_sync(self._handle, text, _milliseconds(timeout)))

    def post_text(self, text: Text, *, timeout: float = 0,
                  receipt: Optional[Receipt] = None) -> None:
        """Posts a whole event as a JSON text; `receipt` learns that it was handled."""
        raw = _bytes(text)
        _succeed(_post_bytes(self._handle, raw, len(raw), _milliseconds(timeout),
                             receipt._receipt if receipt else None))

    def close(self) -> None:
        """Gives the handle back; no other thread may be using it. Once more does nothing."""
        handle, self._handle = self._handle, _POINTER()
        _close(handle)

    def __enter__(self) -> "Queue":
        return self

    def __exit__(self, kind: Optional[Type[BaseException]], error: Optional[BaseException],
                 trace: Optional[types.TracebackType]) -> None:
        self.close()
