"""Looks at a store from outside, as another process would, and tells the ledger what it saw."""
import contextlib
import os
import sqlite3
import threading
import time

from ledger import ids_of


class Watcher:
    """Reads the committed state every few milliseconds until it is stopped.

    What a read found that ended before `stop` returned was committed before `stop` returned: it
    stops between two reads. Where the store cannot be read (not there yet, being written) it has
    seen nothing. Nothing else in this process may open the store meanwhile: closing a file drops
    the locks that SQLite holds on it for the whole process.
    """

    PAUSE_S = 0.002

    def __init__(self, database, ledger):
        self._database = database
        self._address = f"file:{database}?mode=ro"
        self._ledger = ledger
        self._reading = threading.Lock()
        self._stopped = False
        self.ids = None  # of the newest state, None before the first
        self.texts = []  # of its events
        self._changed = threading.Event()
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def stop(self):
        """Ends the reads. The store is closed only when `close` returns."""
        with self._reading:
            self._stopped = True

    def wait_for_change(self, limit_s):
        """Returns as soon as the store has another committed state."""
        self._changed.clear()
        self._changed.wait(limit_s)

    def close(self):
        self.stop()
        self._thread.join()

    def _run(self):
        while not self._stopped:
            with contextlib.suppress(sqlite3.Error, OSError):
                with contextlib.closing(self._connect()) as store:
                    self._read_on(store)
            time.sleep(self.PAUSE_S)

    def _connect(self):
        return sqlite3.connect(self._address, uri=True, timeout=0, isolation_level=None,
                               check_same_thread=False)

    def _read_on(self, store):
        """Until another file takes the store's place."""
        version, file = None, os.stat(self._database).st_ino
        while True:
            with self._reading:
                if self._stopped or os.stat(self._database).st_ino != file:
                    return
                newest = store.execute("PRAGMA data_version").fetchone()
                if newest != version:
                    rows = store.execute("SELECT rowid, data FROM Events").fetchall()
                    self.texts = [text for _, text in rows]
                    self.ids = ids_of(self.texts)
                    self._ledger.see_store(self.ids)
                    version = newest
                    self._changed.set()
            time.sleep(self.PAUSE_S)
