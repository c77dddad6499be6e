#!/usr/bin/python3
"""The Python module, over the library of a build and a queue of the test's own.

    tests/tools/kivevent_python_test.py BUILD-FOLDER
"""
import ctypes
import errno
import json
import os
import pathlib
import re
import sys
import threading
import time
import unittest

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
sys.path.insert(0, str(ROOT / "clients/python"))
sys.dont_write_bytecode = True
RT = ctypes.CDLL("librt.so.1", use_errno=True)


class Attributes(ctypes.Structure):
    _fields_ = [(name, ctypes.c_long) for name in ("flags", "maxmsg", "msgsize", "curmsgs")] + [
        ("reserved", ctypes.c_long * 4)]


class DaemonQueue:
    """The daemon's end of a queue of the test's own."""

    def __init__(self, name, size=256):
        self.name = name.encode()
        attributes = Attributes(maxmsg=3, msgsize=size)
        flags = os.O_RDONLY | os.O_NONBLOCK | os.O_CREAT | os.O_EXCL
        self.queue = RT.mq_open(self.name, flags, 0o600, ctypes.byref(attributes))
        self.buffer = ctypes.create_string_buffer(size)
        if self.queue < 0:
            raise OSError(ctypes.get_errno(), "mq_open")

    def receive(self):
        """The next message, None without one."""
        size = RT.mq_receive(self.queue, self.buffer, len(self.buffer), None)
        if size < 0 and ctypes.get_errno() != errno.EAGAIN:
            raise OSError(ctypes.get_errno(), "mq_receive")
        return self.buffer.raw[:size].decode() if size >= 0 else None

    def end(self):
        RT.mq_unlink(self.name)
        RT.mq_close(self.queue)


def answer(daemon):
    """Waits for one message, and posts the semaphore that it names."""
    end = time.monotonic() + 20
    while (message := daemon.receive()) is None and time.monotonic() < end:
        time.sleep(0.005)
    library = ctypes.CDLL(None)
    library.sem_open.restype = ctypes.c_void_p
    semaphore = ctypes.c_void_p(library.sem_open(json.loads(message)["syncsem"].encode(), 0))
    library.sem_post(semaphore)
    library.sem_close(semaphore)


class ModuleTest(unittest.TestCase):
    count = 0

    def setUp(self):
        ModuleTest.count += 1
        self.name = f"/kivtest-python-{os.getpid()}-{self.count}"
        self.daemon = DaemonQueue(self.name)
        self.addCleanup(self.daemon.end)
        self.queue = kivevent.Queue(self.name)
        self.addCleanup(self.queue.close)

    def refused(self, kind, code, text, call, *arguments, **named):
        with self.assertRaises(kind) as caught:
            call(*arguments, **named)
        self.assertEqual((caught.exception.code, str(caught.exception)), (code, text))

    #: Events are posted with type, data and kernel time, text beyond ASCII included, in compact JSON.
    def test_events_are_posted(self):
        self.queue.post("usage.epg", {"channel": 5, "name": "Küche \""}, kernel_time=7)
        self.queue.post("a")
        self.queue.post_text(b'{"event-type": "b"}')
        self.assertEqual(self.daemon.receive(), '{"event-type":"usage.epg","data":{"channel":5,'
                                                '"name":"Küche \\""},"kernel-time":7}')
        self.assertEqual(self.daemon.receive(), '{"event-type":"a"}')
        self.assertEqual(self.daemon.receive(), '{"event-type": "b"}')
        self.assertEqual(kivevent.event("a", {}, **{"oob-url": "/x"}),
                         '{"event-type":"a","oob-url":"/x","data":{}}')

    #: What the daemon would lose is an exception that says why.
    def test_events_that_the_daemon_would_lose_are_refused(self):
        quote = "single quote in the event: kivApp cannot store it"
        bad = kivevent.BadEvent
        self.refused(bad, kivevent.Code.QUOTE, quote, self.queue.post, "a", {"x": "it's"})
        self.refused(bad, kivevent.Code.QUOTE, quote, kivevent.check, '{"event-type":"it\'s"}')
        self.refused(bad, kivevent.Code.TOO_LARGE,
                     "message too large: 318 bytes, the queue takes 256",
                     self.queue.post, "a", {"x": "y" * 284})
        self.refused(bad, kivevent.Code.NOT_OBJECT, "not a JSON object", self.queue.post_text, "[]")
        self.refused(bad, kivevent.Code.NO_TYPE, 'no "event-type" string',
                     self.queue.post_text, "{}")
        self.refused(bad, kivevent.Code.NOT_JSON, "string or '}' expected near end of file (byte 1)",
                     self.queue.post_text, "{")
        self.refused(bad, kivevent.Code.NUL, "NUL character (byte 0)", self.queue.post_text, "\0")
        with self.assertRaises(bad):
            self.queue.post("a", {"x": "\ud800"})
        with self.assertRaises(bad):
            self.queue.post("a", {"x": float("nan")})
        with self.assertRaises(bad):
            self.queue.post("a", {"x": object()})
        self.assertIsNone(self.daemon.receive())

    #: A full queue, at once or after its time, and a missing one are told apart; the module goes on
    #: with the queue that was made anew.
    def test_daemon_that_is_busy_or_gone_is_told(self):
        for _ in range(3):
            self.queue.post("a")
        self.refused(kivevent.QueueFull, kivevent.Code.FULL, f"{self.name}: full",
                     self.queue.post, "a")
        start = time.monotonic()
        self.refused(kivevent.NotTaken, kivevent.Code.TIMEOUT,
                     f"{self.name}: no room within 0.2 s (kivApp is dead or busy)",
                     self.queue.post, "a", timeout=0.2)
        self.assertGreaterEqual(time.monotonic() - start, 0.2)
        self.daemon.end()
        self.refused(kivevent.NoDaemon, kivevent.Code.NO_DAEMON,
                     f"{self.name}: no such queue (is kivApp running?)", self.queue.post, "a")
        self.daemon = DaemonQueue(self.name)
        self.queue.post("b")
        self.assertEqual(self.daemon.receive(), '{"event-type":"b"}')

    #: A synchronous post returns when the event was handled, and says when it was not.
    def test_waits_until_an_event_is_handled(self):
        helper = threading.Thread(target=answer, args=(self.daemon,))
        helper.start()
        self.queue.post_sync("a", timeout=20)
        helper.join()
        self.refused(kivevent.NotHandled, kivevent.Code.NOT_HANDLED, "no answer within 0.1 s",
                     self.queue.post_sync, "a", timeout=0.1)
        self.daemon.receive()
        helper = threading.Thread(target=answer, args=(self.daemon,))
        with kivevent.Receipt() as receipt:
            self.queue.post_text('{"event-type":"a"}', receipt=receipt)
            self.assertFalse(receipt.wait(0))
            helper.start()
            self.assertTrue(receipt.wait(20))
            helper.join()

    #: What is closed is refused and does not end the program; closing twice does nothing.
    def test_closed_handles_are_refused(self):
        with kivevent.Queue(self.name) as queue:
            self.assertEqual((queue.name, queue.limit), (self.name, 256))
        queue.close()
        with self.assertRaises(kivevent.InvalidArgument):
            queue.post("a")
        with kivevent.Receipt() as receipt:
            pass
        receipt.close()
        with self.assertRaises(kivevent.InvalidArgument):
            receipt.wait(0)
        for bad in (-1, float("nan")):
            with self.assertRaises(kivevent.InvalidArgument):
                self.queue.post("a", timeout=bad)
        with self.assertRaises(ValueError):
            kivevent.Queue("nonsense")

    #: The numbers and the version are those of the header.
    def test_codes_are_those_of_the_header(self):
        header = (ROOT / "clients/c/kivevent.h").read_text()
        codes = {name: int(number) for name, number in
                 re.findall(r"^    KIVEVENT_(\w+) = (\d+)", header, re.M)}
        self.assertEqual(codes, {code.name: code.value for code in kivevent.Code})
        self.assertEqual(re.search(r'KIVEVENT_VERSION "(.*)"', header)[1], kivevent.version())
        project = (ROOT / "CMakeLists.txt").read_text()
        self.assertIn(f"project(kivApp VERSION {kivevent.version()} ", project)

    #: The library exports what its header declares, and nothing else.
    def test_library_exports_its_header_alone(self):
        import subprocess
        header = (ROOT / "clients/c/kivevent.h").read_text()
        declared = set(re.findall(r"^KIVEVENT_API [^;]*?(kivevent_\w+)\(", header, re.M))
        lines = subprocess.run(["nm", "-D", "--defined-only", LIBRARY], check=True,
                               capture_output=True, text=True).stdout.splitlines()
        self.assertEqual({line.split()[2] for line in lines}, declared)


if __name__ == "__main__":
    LIBRARY = str(pathlib.Path(sys.argv.pop(1)).resolve() / "clients/libkivevent.so.0")
    ctypes.CDLL(LIBRARY, mode=ctypes.RTLD_GLOBAL)  # the module finds it loaded, by its own name
    import kivevent
    unittest.main()
