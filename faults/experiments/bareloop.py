"""Power cuts of the least that any store does: one loop that inserts, deletes and commits.

Shows what each of SQLite's ways to commit is worth on this machine, and that a cut finds the loss
where there is one.
"""
import contextlib
import shutil
import sqlite3
import subprocess
import time

import base
import storeloop
from disk import Disk, why_not_possible


class BareLoop(base.Experiment):
    trials = 250
    quick_trials = 50
    journal = synchronous = ""

    def __init__(self, seed):
        super().__init__(seed)
        self.disk = None
        self.process = None
        self.inserted, self.deleted = set(), 0

    def why_not_possible(self):
        return why_not_possible()

    def trial(self, trial):
        if self.disk is None:
            self.disk = Disk(self.folder / "bare")
            self.disk.mount()
        report = self.folder / "report"
        with open(report, "w") as out:
            self.process = subprocess.Popen(
                ["/usr/bin/python3", storeloop.__file__, self.disk.root / "Db", self.journal,
                 self.synchronous, str(trial.number)], stdout=out,
                stderr=subprocess.DEVNULL)
        while report.stat().st_size == 0 and self.process.poll() is None:
            time.sleep(0.001)
        time.sleep(trial.dice.uniform(0, 0.1))
        lines = report.read_text()
        self.disk.cut()
        self.stop_process()
        self.disk.unmount()
        self.disk.copy_image(self.folder / "cut.img")
        inserted, deleted = storeloop.committed(lines[:lines.rindex("\n") + 1])
        self.inserted |= inserted
        self.deleted = max(self.deleted, deleted)
        self.look(trial)

    def look(self, trial):
        self.disk.mount()
        with contextlib.closing(sqlite3.connect(self.disk.root / "Db")) as store:
            sound = store.execute("PRAGMA integrity_check").fetchone()[0]
            stored = {row[0] for row in store.execute("SELECT number FROM Events")}
        if sound != "ok":
            trial.fail(f"integrity: {sound}")
        highest = max(stored, default=self.deleted)
        missing = {number for number in self.inserted - stored if number > self.deleted
                   and not self._was_deleted(number, stored)}
        back = {number for number in stored if number <= self.deleted}
        if missing:
            trial.lost = len(missing)
            trial.fail(f"committed and lost: {base.some(missing)}")
        if back:
            trial.sent_twice = len(back)
            trial.fail(f"deleted and there again: {base.some(back)}")
        self.inserted, self.deleted = stored, min(stored, default=highest + 1) - 1

    @staticmethod
    def _was_deleted(number, stored):
        """By a deletion that was committed, and whose report the cut was faster than."""
        return bool(stored) and number < min(stored)

    def stop_process(self):
        if self.process is not None:
            self.process.kill()
            self.process.wait()

    def stop(self):
        self.stop_process()
        if self.disk is not None:
            self.disk.remove()
            self.disk = None

    def keep(self, folder):
        for name in ("cut.img", "report"):
            shutil.copy(self.folder / name, folder)


class BareLoopWal(BareLoop):
    name = "bareloop-wal"
    says = "power cuts of a bare SQLite loop: write-ahead log, synchronous=FULL"
    journal, synchronous = "WAL", "FULL"


class BareLoopExtra(BareLoop):
    name = "bareloop-extra"
    says = "the same: rollback journal, synchronous=EXTRA"
    journal, synchronous = "DELETE", "EXTRA"


class BareLoopFull(BareLoop):
    name = "bareloop-full"
    says = "the same: rollback journal, synchronous=FULL"
    journal, synchronous = "DELETE", "FULL"
    must_lose = True
