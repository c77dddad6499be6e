"""A slow road to the local cloud: passes bytes on to its port, so many a second in all."""
import contextlib
import socket
import threading
import time

PIECE = 16384


class SlowRoad:
    def __init__(self, port, rate):
        self.rate = rate  # bytes a second, from the client
        self._to = port
        self._closed = False
        self._listener = socket.create_server(("127.0.0.1", 0))
        self.port = self._listener.getsockname()[1]
        threading.Thread(target=self._accept, daemon=True).start()

    def close(self):
        self._closed = True
        with contextlib.suppress(OSError):
            self._listener.shutdown(socket.SHUT_RDWR)
        self._listener.close()

    def _accept(self):
        while not self._closed:
            try:
                client, _ = self._listener.accept()
                cloud = socket.create_connection(("127.0.0.1", self._to))
            except OSError:
                continue
            for source, target, slow in ((client, cloud, True), (cloud, client, False)):
                threading.Thread(target=self._pass_on, args=(source, target, slow),
                                 daemon=True).start()

    def _pass_on(self, source, target, slow):
        with contextlib.suppress(OSError):
            # Little waits in the system's own buffers.
            if slow:
                source.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, PIECE)
            while piece := source.recv(PIECE):
                target.sendall(piece)
                if slow:
                    time.sleep(len(piece) / self.rate)
        for end in (source, target):
            with contextlib.suppress(OSError):
                end.shutdown(socket.SHUT_RDWR)
