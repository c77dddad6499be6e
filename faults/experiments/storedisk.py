"""What the disk of the store can do: full while the daemon runs or at its start, read-only, late,
and pages that are zeros, garbage or have flipped bits, in the stopped store and in the running one.
A damaged page may cost the events that it holds, and no others; where it is one of the tree's own,
whose loss takes rows along that nobody can find any more, these are counted in the remarks."""
import contextlib
import errno
import os
import random
import sqlite3
import subprocess
import time

import callfaults
import harness
from callfaults import FOR_EVER, CallFaults
from ledger import ids_of
from lives import YOUNG_S, Rig, RigExperiment, Sender

# The store tries again after 200 ms, 1 s and 5 s, and is opened again at most once in 5 s.
RECOVERY_BOUND_S = 8.0
READY_BOUND_S = 8.0  # with a replacement of the file, which is tried again after 5 s
PAGE = 4096
SIZES = ("512k", "1m")
DAMAGES = ("zeros", "garbage", "bits")
FAULT_S = (0.3, 1.2)
LOOK_S = 2.0
EVENTS = 110


class OnTmpfs(RigExperiment):
    """The store, and nothing else, is on a file system of its own."""

    def __init__(self, seed):
        super().__init__(seed)
        self.disk = self.folder / "disk"
        self.mounted = False

    def why_not_possible(self):
        if "KIV_ISOLATED" not in os.environ:
            return "no mount namespace of its own"
        if callfaults.why_not_possible():
            return callfaults.why_not_possible()
        self.disk.mkdir(exist_ok=True)
        try:
            self.mount("512k")
            self.remount("ro")
        except subprocess.CalledProcessError as error:
            return error.stderr.decode().strip()
        finally:
            self.unmount()
        return ""

    def mount(self, size):
        self.disk.mkdir(exist_ok=True)
        _run("mount", "-t", "tmpfs", "-o", f"size={size}", "tmpfs", self.disk)
        self.mounted = True

    def remount(self, how):
        """Waits for files that are being written."""
        end = time.monotonic() + 5
        while True:
            try:
                return _run("mount", "-o", f"remount,{how}", self.disk)
            except subprocess.CalledProcessError:
                if time.monotonic() > end:
                    raise
                time.sleep(0.002)

    def unmount(self):
        if self.mounted:
            _run("umount", "-l", self.disk)
        self.mounted = False

    def fill(self):
        with contextlib.suppress(OSError), open(self.disk / "ballast", "wb", buffering=0) as file:
            while file.write(bytes(4096)) == 4096:
                pass

    def free(self):
        (self.disk / "ballast").unlink()

    def stop(self):
        super().stop()
        self.unmount()


class StoreDisk(OnTmpfs):
    name = "disk"
    says = "the store's disk is full, read-only, late, or damages a page; it goes on by itself"
    trials = 100
    quick_trials = 10

    def __init__(self, seed):
        super().__init__(seed)
        self.kinds = (self._full, self._damage_stopped, self._read_only, self._damage_running,
                      self._late, self._damage_stopped, self._full_at_start, self._damage_running,
                      self._read_only_at_start, self._damage_stopped)
        self.faults = None
        self.with_page = self.with_tree = 0  # events lost with a damaged page

    def trial(self, trial):
        kind = self.kinds[trial.number % len(self.kinds)]
        self._begin(SIZES[trial.number // len(self.kinds) % len(SIZES)])
        what = kind(trial) or kind.__name__.strip("_").replace("_", " ")
        if trial.failures:
            trial.fail(what)

    def _begin(self, size):
        """A disk with a new store that was made in order."""
        if self.rig is None or self.used == self.trials_of_a_rig:
            self.stop()
            self.mount(size)
            self.rigs += 1
            self.used = 0
            self.rig = Rig(self.folder / f"rig.{self.rigs}", f"disk.{self.seed}.{self.rigs}",
                           store=self.disk / "Db")
            self.faults = self.faults or CallFaults(self.folder)
            self.rig.device.environment.update(self.faults.environment)
        else:
            self.rig.kill()
            self.unmount()
            self.mount(size)
            self.rig.ledger.see_store(set())
            self.rig.start()
            harness.wait_until(self.rig.device.database.exists, "the store")
            self.rig.stop()
        self.used += 1
        self.rig.cloud.misbehave(firehose=None)
        self.rig.next_boot()

    # --- full, read-only, late ---

    def _full(self, trial):
        rig = self.rig
        self._start_with_events(rig)
        self.fill()
        self._send_for_a_while(trial)
        self.free()
        self._recover(trial)

    def _full_at_start(self, trial):
        new = trial.dice.random() < 0.5
        rig = self.rig
        if new:
            for path in self.disk.glob("Db*"):
                path.unlink()
        self.fill()
        rig.start()
        rig.watch()
        self._send_for_a_while(trial)
        self.free()
        self._recover(trial)

    def _read_only(self, trial):
        """The kernel refuses to make a file system read-only that has files open for writing: only
        a fault does that to a disk, so it is done to the daemon's calls."""
        rig = self.rig
        self._start_with_events(rig)
        self.faults.arm("write", "truncate", "unlink", "fsync", error=errno.EROFS,
                        path=f"{self.disk}/", last=FOR_EVER)
        self._send_for_a_while(trial)
        self.faults.disarm()
        self._recover(trial)

    def _read_only_at_start(self, trial):
        rig = self.rig
        self.remount("ro")
        rig.start()
        rig.watch()
        self._send_for_a_while(trial)
        self.remount("rw")
        self._recover(trial)

    def _late(self, trial):
        rig = self.rig
        self.unmount()
        self.disk.rmdir()
        rig.start()
        self._send_for_a_while(trial)
        self.mount("1m")
        rig.watch()
        self._recover(trial)

    @staticmethod
    def _start_with_events(rig):
        rig.start()
        rig.watch()
        for _ in range(10):
            rig.post()
        rig.settle(READY_BOUND_S)

    def _send_for_a_while(self, trial):
        rig = self.rig
        sender = Sender(rig, random.Random(trial.dice.random()), most_bytes=90000,
                        pause_s=(0.001, 0.05), bursts=(1, 1, 3, 10))
        time.sleep(trial.dice.choice((*FAULT_S, *FAULT_S, 6.0)))
        sender.stop()
        rig.alive()
        if sender.longest_wait_s > 1.5:
            trial.fail(f"a sender waited {sender.longest_wait_s:.1f} s for room on the queue")

    def _recover(self, trial):
        rig = self.rig
        rig.post()
        seconds, missing = rig.settle(RECOVERY_BOUND_S, also_stored=True)
        trial.standstill_s = max(trial.standstill_s, seconds)
        if missing:
            trial.fail(f"{len(missing)} events not there {seconds:.1f} s after the fault's end")
        rig.judge(trial)
        rig.alive()
        rig.stop_watching()
        rig.kill()
        rig.look_at_store(trial)
        self._start_again(trial)

    def _start_again(self, trial):
        rig = self.rig
        rig.answers_were_lost()
        rig.next_boot()
        rig.start()
        seconds, missing = rig.drain(READY_BOUND_S)
        if seconds > READY_BOUND_S:
            trial.fail(f"not drained {seconds:.1f} s after the start")
        rig.judge(trial, missing)
        rig.stop_watching()
        rig.kill()
        if rig.read_store()[1] != "ok":
            trial.fail(f"integrity: {rig.read_store()[1]}")

    # --- damage ---

    def _stored_events(self):
        """A running daemon with a store that holds events, all of them in the database itself."""
        rig = self.rig
        rig.cloud.misbehave(firehose="refuse")
        rig.start()
        rig.watch()
        for number in range(EVENTS):
            rig.post("x" * (100 + 3 * number))
        seconds, missing = rig.settle(READY_BOUND_S, also_stored=True)
        if missing:
            raise AssertionError(f"{len(missing)} events not stored within {seconds} s")
        return rig

    def _into_the_database(self):
        with contextlib.closing(sqlite3.connect(self.rig.device.database, timeout=5)) as store:
            store.execute("PRAGMA wal_checkpoint(TRUNCATE)").fetchall()

    def _damage(self, trial):
        """Damages a page in place; returns (ids on it, what was done)."""
        path = self.rig.device.database
        pages = path.stat().st_size // PAGE
        number = trial.number * 7 % pages
        kind = DAMAGES[trial.number // 10 % len(DAMAGES)]
        with open(path, "r+b", buffering=0) as file:
            file.seek(number * PAGE)
            page = bytearray(file.read(PAGE))
            ids = ids_of_bytes(page)
            if kind == "bits":
                for _ in range(8):
                    page[trial.dice.randrange(PAGE)] ^= 1 << trial.dice.randrange(8)
            else:
                page[:] = bytes(PAGE) if kind == "zeros" else trial.dice.randbytes(PAGE)
            file.seek(number * PAGE)
            file.write(page)
        return ids, f"{kind} in page {number + 1} of {pages}, which holds {len(ids)} events"

    def _damage_stopped(self, trial):
        rig = self._stored_events()
        rig.stop_watching()
        rig.kill()
        self._into_the_database()
        ids, what = self._damage(trial)
        rig.cloud.misbehave(firehose=None)
        rig.answers_were_lost()
        rig.next_boot()
        rig.start()
        self._judge_damage(trial, ids)
        return f"stopped: {what}"

    def _damage_running(self, trial):
        rig = self._stored_events()
        rig.stop_watching()
        self._into_the_database()
        ids, what = self._damage(trial)
        rig.watch()
        new = {rig.post() for _ in range(20)}
        # Where the watcher cannot read past the page, nobody can say whether they are stored yet.
        end = time.monotonic() + LOOK_S
        while rig.is_up() and time.monotonic() < end:
            if new <= (rig.watcher.ids or set()):
                break
            time.sleep(0.01)
        time.sleep(YOUNG_S)
        rig.alive()
        rig.stop_watching()
        rig.kill()
        rig.cloud.misbehave(firehose=None)
        rig.answers_were_lost()
        rig.next_boot()
        rig.start()
        self._judge_damage(trial, ids)
        return f"running: {what}"

    def _judge_damage(self, trial, ids):
        """Everything but what was on the page arrives, and so does what is posted now."""
        rig = self.rig
        new = {rig.post() for _ in range(20)}
        while rig.is_up() and rig.uptime_s() < READY_BOUND_S:
            if not rig.missing() - ids:
                break
            if new <= rig.ledger.accepted.keys() and not ids and rig.uptime_s() > 1:
                break
            time.sleep(0.01)
        time.sleep(0.1)
        missing = rig.missing()
        trial.standstill_s = max(trial.standstill_s, rig.uptime_s())
        rig.alive()
        late = new & missing
        if late:
            trial.fail(f"{len(late)} new events not sent {rig.uptime_s():.1f} s after the start")
        if ids:
            rig.judge(trial, missing - ids - late)
            self.with_page += len(missing & ids)
        else:
            self.with_tree += len(missing - late)
            rig.judge(trial)
        rig.gone |= missing
        rig.kill()
        if rig.read_store()[1] != "ok":
            trial.fail(f"integrity: {rig.read_store()[1]}")

    def remarks(self):
        return [f"events lost with the page that held them: {self.with_page}; with a page of the "
                f"tree: {self.with_tree}"]


def ids_of_bytes(page):
    """Ids of the events whose text is in these bytes, wholly or in part."""
    text = page.decode("latin-1")
    return {name for piece in text.split('{"') for name in ids_of(['{"' + piece])}


def _run(*command):
    subprocess.run([str(word) for word in command], check=True, capture_output=True)
