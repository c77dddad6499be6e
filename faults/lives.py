"""A set for the experiments: device, local cloud, ledger and a sender, over any number of restarts.

What is in the daemon's memory when it is killed is gone; it must be young. What is still in the
message queue stays there: the next daemon takes it.
"""
import contextlib
import itertools
import json
import os
import pathlib
import shutil
import signal
import sqlite3
import threading
import time

import base
from ledger import Ledger, ids_of
from watcher import Watcher

import harness

STREAM = harness.STREAM
CONFIGURATION = {"upload_events": {"min-size": 1, "max-delay": 3500, "max-size": 131072}}
STORE_ONLY = {"upload_events": {"min-size": 10**7, "max-delay": 86400, "max-size": 131072}}
# Handled and not yet stored: 200 ms and the batch, on a busy machine.
YOUNG_S = 1.0
MOST_WAITING = 512
QUIET_S = 1.0  # for requests of a daemon that has ended
GONE_S = 2.0  # for the children of a daemon that was killed


class Sender:
    """Posts on a thread of its own, single events and bursts, until it is stopped."""

    def __init__(self, rig, dice, most_bytes=60000, pause_s=(0.001, 0.08), bursts=(1, 1, 1, 3, 20),
                 characters=(20, 400)):
        self._rig, self._dice, self._left = rig, dice, most_bytes
        self._pause_s, self._bursts, self._characters = pause_s, bursts, characters
        self._stopped = threading.Event()
        self.error = None
        self.longest_wait_s = 0.0  # for room on the queue
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def stop(self):
        self._stopped.set()
        self._thread.join()
        if self.error:
            raise self.error

    def _run(self):
        try:
            while not self._stopped.is_set() and self._left > 0:
                for _ in range(self._dice.choice(self._bursts)):
                    text = "x" * self._dice.randrange(*self._characters)
                    self._left -= len(text) + 300
                    begin = time.monotonic()
                    self._rig.post(text=text, stopped=self._stopped)
                    self.longest_wait_s = max(self.longest_wait_s, time.monotonic() - begin)
                self._stopped.wait(self._dice.uniform(*self._pause_s))
        except Exception as error:
            self.error = error


class Rig:
    """`store`: the database, where it is not to be beside the device's other files."""

    def __init__(self, folder, name, configuration=None, store=None, first_start=True):
        self.folder = pathlib.Path(folder)
        self.name = name
        self.configuration = configuration or CONFIGURATION
        self.ledger = Ledger(name)
        self.boot = 1
        self.gone = set()  # ids that were in the memory of a daemon that was killed
        self.kills = []  # kernel milliseconds of the ends of the daemon
        self.young_s = 0.0  # how old the oldest of `gone` was when it went
        self.files = {}  # object key: content
        self.watcher = None
        self.stored = set()  # at the last look without a daemon
        self._number = itertools.count(1)
        self._asked = 0  # number of the last request that `answers_were_lost` has looked at
        self.end = contextlib.ExitStack()
        try:
            logs = self.folder / "logs"
            logs.mkdir(parents=True)
            self.cloud = harness.Cloud(self.folder / "cloud", {"config": {"*": self.configuration}})
            self.end.callback(self.cloud.stop)
            self.device = harness.Device(self.folder / "device", self.cloud, logs)
            if store is not None:
                self.device.database = pathlib.Path(store)
            self.end.callback(self.kill)
            self.end.callback(self.stop_watching)
            harness.forget_system_wide_names()
            if first_start:
                self.start(ready=True)
                self.device.wait_for_config()
                self.stop()
        except BaseException:
            self.end.close()
            raise

    # --- the daemon ---

    def next_boot(self):
        self.boot += 1
        self.device.write_boot(self.boot, 1)

    def start(self, *options, ready=True, watch=False):
        self.started = time.monotonic()
        self.device.start(*options, ready=ready)
        if watch:
            self.watch()

    def watch(self):
        if self.watcher is None:
            self.watcher = Watcher(self.device.database, self.ledger)

    def stop_watching(self):
        if self.watcher is not None:
            self.watcher.close()
            self.watcher = None

    def stop(self):
        """By SIGTERM, as a set does; what was not stored by then is gone here, too."""
        self.kill(signal.SIGTERM)

    def kill(self, how=signal.SIGKILL):
        self.device.stop(how)
        self.has_ended()

    def has_ended(self):
        """Whoever ended it."""
        self.kills.append(harness.kernel_ms())

    def alive(self):
        return self.device.alive()

    def uptime_s(self):
        return time.monotonic() - self.started

    def is_up(self):
        return self.device.process is not None and self.device.process.poll() is None

    def other_daemons(self):
        """Process ids of the daemon's program in sight, children of a killed one say."""
        program = str(harness.BUILD / "kivApp")
        found = []
        for folder in pathlib.Path("/proc").glob("[0-9]*"):
            with contextlib.suppress(OSError):
                state = (folder / "stat").read_text().rpartition(")")[2].split()[0]
                if os.readlink(folder / "exe") == program and state not in "XZ":
                    found.append(int(folder.name))
        return found

    def check_no_child_left(self, trial):
        try:
            harness.wait_until(lambda: not self.other_daemons(), "the children's end", GONE_S)
        except AssertionError:
            trial.fail(f"children left behind: {self.other_daemons()}")

    # --- posting ---

    def post(self, text="x" * 60, stopped=None, limit_s=30, event_type="usage.epg"):
        """Returns the event's id, or None when it was not posted before `stopped`."""
        name, message = self.ledger.event(event_type, (self.boot, 1), text=text)
        end = time.monotonic() + limit_s
        while stopped is None or not stopped.is_set():
            with contextlib.suppress(OSError):  # there is no queue yet
                if self.device.post_now(message):
                    return name
            if stopped is None and time.monotonic() > end:
                self.ledger.forget(name)
                raise AssertionError(f"no room on the queue for {limit_s} s")
            time.sleep(0.001)
        self.ledger.forget(name)
        return None

    def announce(self, content):
        """Announces a file, described, so that it is deleted once it was sent."""
        number = next(self._number)
        path = self.folder / f"announced.{number}"
        path.write_bytes(content)
        key = f"{self.name}-{number}"
        message = json.dumps({"event-type": "usage.app", "oob-url": str(path),
                              "data": {"oob-info": {"unique-id": key}}}).encode()
        end = time.monotonic() + 10
        while True:
            with contextlib.suppress(OSError):
                if self.device.post_now(message):
                    break
            if time.monotonic() > end:
                return None
            time.sleep(0.001)
        self.files[key] = (content, path, harness.kernel_ms())
        return key

    # --- what became of it ---

    def answers_were_lost(self):
        """After the end of a daemon: what the cloud has accepted, or still accepts of a request
        that was under way, may come once more."""
        end = time.monotonic() + QUIET_S
        quiet = 0
        while quiet < 2 and time.monotonic() < end:
            requests, self._asked = self.cloud.exchanges(self._asked)
            under_way = any(request["duration"] is None for request in requests)
            quiet = 0 if under_way else quiet + 1
            time.sleep(0.004)
        self.ledger.read_cloud(self.cloud, STREAM)
        self.ledger.answer_was_lost()

    def missing(self, also_stored=False):
        """Ids of events that are accounted for nowhere; with `also_stored` those in the store,
        as the watcher sees it, are accounted for."""
        self.ledger.read_cloud(self.cloud, STREAM)
        stored = ()
        if also_stored and self.watcher is not None and self.watcher.ids is not None:
            stored = self.watcher.ids
        missing = self.ledger.unaccounted(stored) - self.gone
        if missing and self.watcher is not None:
            self.ledger.see_overflows(self.watcher.texts)
            missing = self.ledger.unaccounted(stored) - self.gone
        return missing

    def settle(self, limit_s, also_stored=False):
        """Waits until everything is accounted for; returns (seconds, ids that are missing)."""
        begin = time.monotonic()
        while True:
            missing = self.missing(also_stored)
            seconds = time.monotonic() - begin
            if not missing or seconds > limit_s or not self.is_up():
                return seconds, missing
            time.sleep(0.005 if seconds < 1 else 0.03)

    def age_at_a_kill(self, name):
        """Seconds from the event's posting to the next end of a daemon."""
        posted = self.ledger.posted[name][2]
        return min(((kill - posted) / 1000 for kill in self.kills if kill >= posted), default=1e9)

    def may_be_gone(self, names):
        """Those that may have been in memory only when a daemon was ended."""
        return {name for name in names if name not in self.ledger.committed
                and self.age_at_a_kill(name) <= YOUNG_S}

    def drain(self, limit_s):
        """After a start: waits until everything has been sent that is not gone; returns (seconds
        since the start, ids that are missing)."""
        self.watch()
        last = self.post()  # behind it the queue is empty
        while True:
            old = self.missing() - self.may_be_gone(self.missing())
            done = not old and last in self.ledger.accepted and not self.watcher.ids
            seconds = self.uptime_s()
            if done or seconds > limit_s or not self.is_up():
                break
            time.sleep(0.005)
        missing = self.missing()
        gone = self.may_be_gone(missing) if done else set()
        self.young_s = max([self.young_s, *map(self.age_at_a_kill, gone)])
        self.gone |= gone
        return seconds, missing - gone

    def judge(self, trial, missing=()):
        """What was lost and what was sent twice, so far."""
        missing = set(missing)
        if missing:
            seen = missing & self.ledger.committed.keys()
            trial.lost += len(missing)
            trial.fail(f"missing {base.some(missing)} ({len(seen)} of them seen in the store)")
            self.gone |= missing  # told once
        known = len(self.ledger.repeated)
        twice = self.ledger.sent_twice()
        trial.repeated += len(self.ledger.repeated) - known
        trial.sent_twice += len(twice)
        if twice:
            trial.fail(f"sent twice: {base.some(twice)}")

    def read_store(self):
        """(texts, answer of the integrity check) of a copy: the store's next user is to be the
        daemon."""
        copy = self.folder / "copy"
        shutil.rmtree(copy, ignore_errors=True)
        copy.mkdir()
        for path in self.device.database.parent.glob("Db*"):
            shutil.copy(path, copy)
        try:
            with contextlib.closing(sqlite3.connect(copy / "Db")) as store:
                sound = store.execute("PRAGMA integrity_check").fetchone()[0]
                return [row[0] for row in store.execute("SELECT data FROM Events")], sound
        except sqlite3.Error as error:
            return [], str(error)

    def look_at_store(self, trial):
        """Without a daemon: the store is sound, and nothing is lost nor comes back."""
        self.ledger.read_cloud(self.cloud, STREAM)
        texts, sound = self.read_store()
        if sound != "ok":
            trial.fail(f"integrity: {sound}")
        self.stored = ids_of(texts)
        self.ledger.see_overflows(texts)
        lost = self.ledger.lost(self.stored) - self.gone
        if lost:
            trial.lost += len(lost)
            trial.fail(f"seen committed and lost: {base.some(lost)}")
        back = self.ledger.came_back(self.stored)
        if back:
            trial.fail(f"seen deleted and stored again: {base.some(back)}")

    def check_files(self, trial):
        """Every announced file has arrived whole, but for announcements that were in memory when
        the daemon was killed: such a file is still where it was."""
        objects = {key.split("/", 1)[-1]: content
                   for (_, key), content in self.cloud.objects().items()}
        for key, (content, path, announced_ms) in list(self.files.items()):
            if objects.get(key) == content:
                continue
            if key in objects:
                trial.fail(f"file {key} has arrived with other contents")
            elif not path.exists():
                trial.fail(f"file {key} is nowhere")
            elif not any(0 <= kill - announced_ms <= 1000 * YOUNG_S for kill in self.kills):
                trial.fail(f"file {key} was never sent")

    def wait_for_files(self, limit_s):
        """Until all announced files have arrived that the store still knows of."""
        end = time.monotonic() + limit_s
        while time.monotonic() < end and self.is_up():
            if self.device.query("SELECT COUNT(*) FROM Files") == [(0,)]:
                break
            time.sleep(0.02)

    def contents(self):
        return json.dumps({name: {**known, "gone with a kill": name in self.gone}
                           for name, known in self.ledger.contents().items()}, indent=1)


class RigExperiment(base.Experiment):
    """With one rig at a time, of a number of trials each."""

    trials_of_a_rig = 25
    configuration = None

    def __init__(self, seed):
        super().__init__(seed)
        self.rig = None
        self.rigs = 0

    def fresh_rig(self, **options):
        self.stop()
        self.rigs += 1
        self.used = 0
        self.rig = Rig(self.folder / f"rig.{self.rigs}", f"{self.name}.{self.seed}.{self.rigs}",
                       self.configuration, **options)
        return self.rig

    def stop(self):
        if self.rig is not None:
            self.rig.end.close()
            shutil.rmtree(self.rig.folder, ignore_errors=True)
            self.rig = None

    def keep(self, folder):
        super().keep(folder)
        if self.rig is not None:
            (folder / "ledger.json").write_text(self.rig.contents())
