#!/usr/bin/python3
"""What the stream service answers while it is not the stream service, or never comes to an end."""
import contextlib
import socket
import ssl
import threading
import time
import unittest

from harness import WholeProgramTest, wait_until

LONG = {"text": "x" * 100}
FAILED = "kivUpload: Event upload failed, will try later in 60 seconds"
UNNAMED = "kivAWSWrapper: The answer has no record id: the packet counts as not sent"


class TricklingStream:
    """Answers every request with a body that goes on for ever, four bytes a second."""

    def __init__(self, certificate):
        self.stopped = threading.Event()
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(certificate)
        self.listener = context.wrap_socket(socket.create_server(("127.0.0.1", 0)),
                                            server_side=True)
        self.endpoint = f"https://localhost:{self.listener.getsockname()[1]}"
        threading.Thread(target=self.serve, daemon=True).start()

    def serve(self):
        while not self.stopped.is_set():
            with contextlib.suppress(OSError):
                connection, _ = self.listener.accept()
                with connection:
                    self.trickle(connection)

    def trickle(self, connection):
        connection.recv(65536)
        connection.sendall(b"HTTP/1.1 200 OK\r\nContent-Length: 100000\r\n\r\n")
        while not self.stopped.wait(0.25):
            connection.sendall(b" ")

    def stop(self):
        self.stopped.set()
        with contextlib.suppress(OSError):
            self.listener.shutdown(socket.SHUT_RDWR)
        self.listener.close()


class AnswersTest(WholeProgramTest):
    def numbers_in_store(self):
        return [event["data"]["number"] for event in self.device.stored_events()
                if event["event-type"] == "usage.epg"]

    def start_quietly(self):
        self.start_with_consent()
        wait_until(lambda: self.cloud.requests("tou"), "the end of the start-up's requests")

    #: A packet counts as sent only when the stream service names it by a record id: until then
    #: its events stay, and they arrive once it does.
    def test_answer_without_record_id_keeps_the_events(self):
        self.start_quietly()
        self.cloud.misbehave(firehose={"action": "answer", "status": 200, "body": "{}",
                                       "content-type": "application/x-amz-json-1.1"})
        self.device.send("usage.epg", {"number": 1, **LONG})
        self.device.wait_for_error(FAILED)
        lines = self.device.err_lines()
        stated = lines.index("kivAWSWrapper: Failed sending packet to Firehose AWS")
        self.assertEqual(lines[stated + 1:stated + 3], ["kivAWSWrapper: Error = ", UNNAMED])
        self.assertEqual(self.numbers_in_store(), [1])
        self.cloud.misbehave(firehose=None)
        self.restart(2, 1)
        event, = self.wait_for_events(1, "usage.epg")
        self.assertEqual(event["number"], 1)
        self.device.wait_for_empty_store()

    #: A put has an end: an answer that trickles in, and never stalls, is given up after 120 s.
    def test_answer_that_trickles_is_given_up_after_two_minutes(self):
        stream = TricklingStream(self.cloud.state / "keys/good.pem")
        self.addCleanup(stream.stop)
        self.cloud.control({"config": {"*": {**self.configuration,
                                             "firehose_endpoint": stream.endpoint}}})
        self.start_quietly()
        begun = time.monotonic()
        self.device.send("usage.epg", {"number": 1, **LONG})
        self.device.wait_for_error(FAILED, limit_s=140)
        self.assertTrue(115 < time.monotonic() - begun < 130, time.monotonic() - begun)
        self.assertIn("kivAWSWrapper: Error = curlCode: 28, Timeout was reached",
                      self.device.err_lines())
        self.assertEqual(self.numbers_in_store(), [1])


if __name__ == "__main__":
    unittest.main()
