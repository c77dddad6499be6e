"""Power cuts at random moments, with everything that must survive them on the disk that is cut.

On the disk: store, configuration, token, version and terms-of-use files. Outside: the cloud, the
logs, and a reader of the store, which knows what another process has seen committed or deleted.
"""
import contextlib
import json
import pathlib
import random
import shutil
import sqlite3
import threading
import time

import base
from disk import Disk, why_not_possible
from ledger import Ledger, ids_of
from watcher import Watcher

import harness

CUTS_OF_AN_IMAGE = 25
READY_BOUND_S = 2.0  # from the start of the process until it is up and what was stored is sent
LONGEST_WAIT_S = 20
MOST_BYTES = 60000  # posted before a cut: below the store's limit, so that nothing is pruned
CONFIGURATION = {"upload_events": {"min-size": 1, "max-delay": 3500, "max-size": 131072}}


class Life:
    """One disk with its set and its cloud, from the first start to the last."""

    def __init__(self, folder, name):
        self.folder = pathlib.Path(folder)
        self.ledger = Ledger(name)
        self.boot = 1
        self.terms_shown = {None}  # contents that "show_new_tou.txt" may have
        self.versions = {None}  # versions of the sibling that its file may hold
        self.held_back = False  # whether the cloud holds its answer to a record back until the cut
        self.held = set()  # ids excused by that
        self.stored = set()  # ids in the store when the disk was last looked at
        self.end = contextlib.ExitStack()
        try:
            self._make()
            self._first_start()
        except BaseException:
            self.end.close()
            raise

    def _make(self):
        self.disk = Disk(self.folder)
        self.end.callback(self.disk.remove)
        self.disk.mount()
        logs = self.folder / "logs"
        logs.mkdir()
        self.cloud = harness.Cloud(self.folder / "cloud", {"config": {"*": CONFIGURATION}})
        self.end.callback(self.cloud.stop)
        self.device = harness.Device(self.disk.root, self.cloud, logs)
        self.end.callback(self.device.kill)

    def _first_start(self):
        self.device.start()
        self.device.wait_for_config()
        harness.wait_until(lambda: self.token(), "the token")
        self.device.stop()
        self.first_token = self.token()
        self.consent = self._text("current_tou.txt")
        self.disk.sync()

    def token(self):
        try:
            return self.device.db_token()
        except (OSError, ValueError, KeyError):
            return None

    def _text(self, name):
        path = self.disk.root / name
        return path.read_text(errors="replace") if path.exists() else None

    # --- one cut ---

    def prepare(self, dice):
        """Between a cut and the next start: what the set and its server bring along."""
        harness.forget_system_wide_names()  # the queue ends with the power, too
        self.ledger.read_cloud(self.cloud, harness.STREAM)
        excused = self.ledger.answer_was_lost()
        if self.held_back:
            self.held |= excused
        self.held_back = False
        self.boot += 1
        self.device.write_boot(self.boot, 1)
        self.device.write_global_info()
        if dice.random() < 0.5:  # old enough to be fetched anew
            document = self.device.config()
            document["UTC-Time"] = int(time.time()) - 3600
            (self.disk.root / "Config").write_text(json.dumps(document))
        if dice.random() < 0.4:
            url = f"https://localhost:18443/terms-of-use/{self.boot}"
            self.terms_shown.add(url)
            self.cloud.control({"tou": {"version": self.boot, "url": url}})
        self.disk.sync()

    def post(self, dice, gone):
        """Single events and bursts, until the power is gone."""
        left = MOST_BYTES
        while not gone.is_set() and left > 0:
            for _ in range(dice.choice((1, 1, 1, 3, 20, 60))):
                name, message = self._message(dice)
                left -= len(message) + 150  # as completed
                if not self._put(message, gone):
                    self.ledger.forget(name)
            gone.wait(dice.uniform(0.001, 0.08))

    def post_last(self):
        harness.wait_until(self.device.queue_exists, "the message queue")
        self._put(self.ledger.event("usage.epg", (self.boot, 1))[1], threading.Event())

    def _put(self, message, gone):
        while not gone.is_set():
            with contextlib.suppress(OSError):  # the queue is not there yet
                if self.device.post_now(message):
                    return True
            time.sleep(0.001)
        return False

    def _message(self, dice):
        if dice.random() < 0.02:
            version = str(len(self.versions))
            self.versions.add(version)
            return self.ledger.event("pim.start", (self.boot, 1), **{
                "pim-version": version, "pim-builddate": "2019-03-07"})
        return self.ledger.event("usage.epg", (self.boot, 1), text="x" * dice.randrange(20, 400))

    def cut(self, watcher, log_flush):
        """The power goes: disk and daemon at once."""
        watcher.stop()
        self.cut_at = harness.kernel_ms()
        self.disk.cut(log_flush)
        self.device.kill()
        watcher.close()
        self.disk.unmount()

    # --- what is left ---

    def look(self, trial):
        """Holds the disk, mounted and without a daemon, against what was seen."""
        self.ledger.read_cloud(self.cloud, harness.STREAM)
        self._look_at_store(trial)
        young = [moment[2] for name, moment in self.ledger.posted.items()
                 if moment and moment[0] == self.boot and name not in self.stored
                 and name not in self.ledger.accepted and name not in self.ledger.committed]
        self.young_s = (self.cut_at - min(young, default=self.cut_at)) / 1000
        lost = self.ledger.lost(self.stored)
        if lost:
            trial.lost += len(lost)
            trial.fail(f"seen committed and lost: {base.some(lost)}")
        back = self.ledger.came_back(self.stored)
        if back:
            trial.fail(f"seen deleted and stored again: {base.some(back)}")
        self.count_copies(trial)
        for finding in self._file_findings():
            trial.fail(finding)

    def _look_at_store(self, trial):
        """At a copy: the first to open the store itself is to be the daemon."""
        copy = self.folder / "copy"
        shutil.rmtree(copy, ignore_errors=True)
        copy.mkdir()
        for path in self.disk.root.glob("Db*"):
            shutil.copy(path, copy)
        try:
            with contextlib.closing(sqlite3.connect(copy / "Db")) as store:
                sound = store.execute("PRAGMA integrity_check").fetchone()[0]
                texts = [row[0] for row in store.execute("SELECT data FROM Events")]
        except sqlite3.Error as error:
            trial.fail(f"the store cannot be read: {error}")
            texts = []
        else:
            if sound != "ok":
                trial.fail(f"integrity: {sound}")
        self.stored = ids_of(texts)
        self.ledger.see_overflows(texts)

    def count_copies(self, trial):
        known = len(self.ledger.repeated)
        twice = self.ledger.sent_twice()
        trial.repeated += len(self.ledger.repeated) - known
        trial.sent_twice += len(twice)
        if twice:
            trial.fail(f"sent twice: {base.some(twice)}")

    def _file_findings(self):
        if self.token() != self.first_token:
            yield f"token {self.token()} instead of {self.first_token}"
        if self._text("current_tou.txt") != self.consent:
            yield f"consent: {self._text('current_tou.txt')!r}"
        if self._text("show_new_tou.txt") not in self.terms_shown:
            yield f"terms of use: {self._text('show_new_tou.txt')!r}"
        try:
            version = self._text("pimversion.json")
            if version is not None and json.loads(version)["pim-version"] not in self.versions:
                yield f"version file: {version}"
        except (ValueError, KeyError) as error:
            yield f"version file: {error!r}: {version!r}"
        yield from self._configuration_findings()

    def _configuration_findings(self):
        """Each configuration has members of its own (times, credentials): all others are fixed."""
        text = self._text("Config")
        try:
            document = json.loads(text)
            if document["upload_events"] != CONFIGURATION["upload_events"]:
                yield f"configuration: {document['upload_events']}"
            for name in ("kiv_tou", "expiry_tou", "UTC-Time", "Last-Modified", "credentials",
                         "firehose_endpoint", "firehose_stream", "event-filter", "file-filter"):
                if name not in document:
                    yield f"configuration without {name}"
        except (TypeError, ValueError, KeyError) as error:
            yield f"configuration: {error!r}: {text!r}"

    # --- the end ---

    def drain(self, watcher):
        """Waits until a new event is stored and nothing is there of what was stored at the start;
        returns the seconds."""
        begin = self.started
        end = begin + LONGEST_WAIT_S
        while len(self.ledger.committed) == self.known or self.stored & watcher.ids:
            self.device.alive()
            if time.monotonic() > end:
                break
            time.sleep(0.002)
        return time.monotonic() - begin

    def start(self):
        self.known = len(self.ledger.committed)
        self.started = time.monotonic()
        self.device.start(ready=False)
        return Watcher(self.device.database, self.ledger)


class PowerCut(base.Experiment):
    name = "powercut"
    says = "the power goes at a random moment, ext4 drops what is not synced"
    trials = 1000
    quick_trials = 50

    def __init__(self, seed):
        super().__init__(seed)
        self.life = None
        self.lives = 0
        self.ready = []  # seconds
        self.young_s = 0.0  # the longest that an event was posted and not yet stored at a cut
        self.posted = 0
        self.repeated_held = 0  # copies because the cloud had held its answer back

    def why_not_possible(self):
        return why_not_possible()

    def trial(self, trial):
        if self.life is None or self.cuts == CUTS_OF_AN_IMAGE:
            self.stop()
            self.lives += 1
            self.life = Life(self.folder / f"life.{self.lives}", f"{self.seed}.{self.lives}")
            self.cuts = 0
        life, dice = self.life, trial.dice
        life.prepare(dice)
        watcher = life.start()
        gone = threading.Event()
        sender = threading.Thread(target=life.post, args=(random.Random(dice.random()), gone))
        sender.start()
        try:
            self._wait_for_the_moment(trial, life, watcher)
        finally:
            life.cut(watcher, log_flush=dice.random() < 0.1)
            gone.set()
            sender.join()
        life.cloud.misbehave(firehose=None)
        life.disk.copy_image(self.folder / "cut.img")
        life.disk.mount()
        life.look(trial)
        self.young_s = max(self.young_s, life.young_s)
        self.cuts += 1
        if self.cuts == CUTS_OF_AN_IMAGE:
            self.finish(trial)

    def _wait_for_the_moment(self, trial, life, watcher):
        kind = trial.dice.random()
        if kind < 0.2:  # during start, refresh and first upload
            time.sleep(trial.dice.uniform(0, 0.3))
            life.device.alive()
            return
        self._check_ready(trial, life, watcher)
        mood = trial.dice.random()
        if mood < 0.2:
            life.cloud.misbehave(firehose="refuse")
        elif mood < 0.3:
            life.cloud.misbehave(firehose={"action": "hang", "processed": True})
            life.held_back = True
        time.sleep(trial.dice.uniform(0.02, 0.5))
        if kind < 0.5:  # when a transaction has just been seen
            watcher.wait_for_change(limit_s=0.3)

    def _check_ready(self, trial, life, watcher):
        seconds = life.drain(watcher)
        self.ready.append(seconds)
        trial.standstill_s = max(trial.standstill_s, seconds)
        if seconds > READY_BOUND_S:
            trial.fail(f"up and drained only after {seconds:.2f} s")

    def finish(self, trial):
        """The disk's last start: everything that was ever seen committed is in the cloud."""
        life = self.life
        if life is None:  # broken off
            return
        life.prepare(trial.dice)
        watcher = life.start()
        try:
            life.post_last()
            self._check_ready(trial, life, watcher)
        finally:
            watcher.close()
        life.device.stop()
        life.look(trial)

    def stop(self):
        if self.life is not None:
            self.posted += len(self.life.ledger.posted)
            self.repeated_held += len(self.life.ledger.repeated & self.life.held)
            self.life.end.close()
            self.life = None

    def keep(self, folder):
        super().keep(folder)
        if self.life is not None:
            (folder / "ledger.json").write_text(json.dumps(self.life.ledger.contents(), indent=1))

    def remarks(self):
        ready = sorted(self.ready) or [0]
        return [f"{self.posted} events on {self.lives} disks; up and drained in "
                f"{ready[len(ready) // 2]:.2f} s (median), {ready[-1]:.2f} s (longest)",
                f"posted and not yet stored when the power went: up to {self.young_s:.2f} s old",
                f"{self.repeated_held} of the repeated ones: the cloud had held its answer back"]
