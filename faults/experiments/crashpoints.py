"""Every crash point: what the daemon writes is recorded operation by operation, each disk state
that a power cut may leave is built from that, and opened with the daemon's own start-up code.

A trial is a bundle of states. The states of each cut in which all or nothing of what was not synced
is there come first, then the others by the experiment's dice, as many as there are trials.
"""
import contextlib
import hashlib
import json
import os
import pathlib
import random
import shutil
import subprocess
import sys
import tempfile
import time

import base
from ledger import KEY, Ledger, range_of
from watcher import Watcher

import harness

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "crashpoints"))
from diskstates import SIMPLE, Cut, content_of  # noqa: E402
from judge import CONFIGURATION as CONFIGURATION_FILE  # noqa: E402
from judge import SERVERS_TERMS, SHOWN_TERMS, TOKEN, VERSION, Judge  # noqa: E402
from recording import (RENAME, UNLINK, Recording, apply_names, differences,  # noqa: E402
                       give)

STATES_OF_A_TRIAL = 100
OPENERS = 2
KEPT_STATES = 3  # of a trial that failed
STATES_AT_ONCE = 16  # built while the openers are busy with the ones before
CONFIGURATION = {"upload_events": {"min-size": 1, "max-delay": 3500, "max-size": 131072}}
SECOND_CONFIGURATION = {**CONFIGURATION, "expiry_tou": 86399}
GIVEN_FILES = ("GlobalInfo", "BootInfo", "current_tou.txt")
SECOND_TERMS = {"version": 2, "mandatory": True, "url": "https://localhost:18443/terms-of-use/2"}
OPENING_CYCLE = {"boot-count": 99, "standby-count": 1}  # as opener.cpp expects it


class Sightings(Ledger):
    """A ledger with the moments (nanoseconds of the monotonic clock) of what was seen."""

    def __init__(self):
        super().__init__("c")
        self.seen = {}  # id: when another process had read it in the store
        self.gone = {}  # id: when another process had seen that it was there no more
        self.sent = {}  # id: when the stream accepted its record
        self.sent_ranges = []  # (when, range) of overflow records that the stream accepted

    NAMES = ("posted", "seen", "gone", "sent", "sent_ranges")

    def save(self, path):
        path.write_text(json.dumps({name: getattr(self, name) for name in self.NAMES}))

    def load(self, path):
        for name, value in json.loads(path.read_text()).items():
            setattr(self, name, value)
        self.posted = {name: tuple(moment) for name, moment in self.posted.items()}
        self.sent_ranges = [(moment, tuple(map(tuple, ends))) for moment, ends in self.sent_ranges]

    def see_store(self, ids):
        super().see_store(ids)
        now = time.monotonic_ns()
        for name in ids:
            self.seen.setdefault(name, now)
        for name in self.deleted:
            self.gone.setdefault(name, now)

    def read_accepted(self, cloud):
        ahead = time.time_ns() - time.monotonic_ns()
        for path in sorted((cloud.state / "records" / harness.STREAM).glob("[0-9]*.json")):
            moment = path.stat().st_mtime_ns - ahead
            for block in map(json.loads, path.read_text().splitlines()):
                for event in block["events"]:
                    if KEY in event:
                        self.sent.setdefault(event[KEY], moment)
                    elif event["event-type"] == "logging.overflow":
                        self.sent_ranges.append((moment, range_of(event)))


class Script:
    """The scripted run that is recorded."""

    def __init__(self, folder, recorder):
        self.folder = pathlib.Path(folder)
        self.root = self.folder / "device"
        self.log = self.folder / "recording"
        self.ledger = Sightings()
        self.boot = 0
        self.watcher = None
        self.end = contextlib.ExitStack()
        logs = self.folder / "logs"
        logs.mkdir()
        self.cloud = harness.Cloud(self.folder / "cloud", {"config": {"*": CONFIGURATION}})
        self.end.callback(self.cloud.stop)
        self.device = harness.Device(self.root, self.cloud, logs)
        self.end.callback(self.device.kill)
        self.device.environment.update(LD_PRELOAD=str(recorder), CRASHPOINTS_LOG=str(self.log),
                                       CRASHPOINTS_ROOT=os.path.realpath(self.root))

    def run(self):
        with self.end:
            self._first_cycle()
            self._second_cycle()
            self._third_cycle()
            self.ledger.read_accepted(self.cloud)
        self._check()

    def _check(self):
        """A recording that lacks something would prove less than it says."""
        recording = Recording(self.log)
        renamed = {name.other for name in recording.names if name.kind == RENAME}
        removed = {name.path for name in recording.names if name.kind == UNLINK}
        missing = {CONFIGURATION_FILE, TOKEN, VERSION, SERVERS_TERMS, SHOWN_TERMS} - renamed
        missing |= {SERVERS_TERMS} - removed
        if not self.ledger.sent_ranges:
            missing.add("pruning")
        if missing:
            raise AssertionError(f"the run did not do what it should: {', '.join(missing)}")

    def _first_cycle(self):
        """From nothing: token, configuration, a version, events that are sent one by one."""
        self._start()
        self.device.wait_for_config()
        for number in range(30):
            self._post("usage.epg", text="x" * (50 + 10 * number))
            self._wait_until_seen()
            if number in (3, 20):
                self._post("pim.start", **{"pim-version": f"1.{number}",
                                           "pim-builddate": "2019-03-07"})
        self._stop()

    def _second_cycle(self):
        """The server has a new configuration and newer terms, and then takes no records until the
        store has pruned itself."""
        document = self.device.config()
        document["UTC-Time"] -= 3600 * 24
        (self.root / "Config").write_text(json.dumps(document))
        self.cloud.control({"tou": SECOND_TERMS, "config": {"*": SECOND_CONFIGURATION}})
        self._start("Config")
        self.device.wait_for_config(expiry_tou=86399)
        harness.wait_until((self.root / "tou_server_answer.txt").exists, "the newer terms")
        self.cloud.misbehave(firehose="server-error")
        for number in range(150):
            self._post("usage.epg", text="y" * 2000)
            if number % 6 == 0:
                self._wait_until_seen()
        harness.wait_until(lambda: any(
            "logging.overflow" in row[0] for row in self.device.query("SELECT type FROM Events")),
            "the pruning")
        self._wait_until_seen()
        self._stop()

    def _third_cycle(self):
        """The user has accepted the newer terms; all that is left is sent."""
        self.device.write_consent("CUL-TOU 2 TRUE")
        self.cloud.misbehave(firehose=None)
        self._start()
        for number in range(18):
            self._post("usage.epg", text="z" * 300)
            if number % 3 == 0:
                self._wait_until_seen()
        self._post("pim.start", **{"pim-version": "2", "pim-builddate": "2019-03-08"})
        harness.wait_until(lambda: self.watcher.ids == set(), "the store drained")
        harness.wait_until(lambda: self.device.query("SELECT COUNT(*) FROM Events") == [(0,)],
                           "an empty store")
        self._stop()

    def _start(self, *given):
        self.boot += 1
        self.device.write_boot(self.boot, 1)
        for name in (*GIVEN_FILES, *given):
            give(self.log, self.root, name, time.monotonic_ns())
        harness.forget_system_wide_names()
        self.device.start()
        self.watcher = Watcher(self.device.database, self.ledger)
        self.end.callback(self.watcher.close)

    def _stop(self):
        self.watcher.close()
        self.device.kill()
        recording = Recording(self.log)
        differing = differences(newest(recording), self.root)
        if differing:
            raise AssertionError(f"the recording lacks something of {differing}")

    def _post(self, event_type, **data):
        name, message = self.ledger.event(event_type, (self.boot, 1), **data)
        self.device.post_raw(message)
        self.last = name

    def _wait_until_seen(self):
        """In the store, or, where the reader was too slow for that, in a record."""
        def is_seen():
            return self.last in self.ledger.seen or any(
                f'"{self.last}"'.encode() in record for record in self.cloud.records())
        harness.wait_until(is_seen, "the event in the store")


def newest(recording):
    """The files as the program saw them in the end."""
    return {name: content_of(file, recording.count())
            for name, file in apply_names(recording.names).items()}


class Openers:
    """Several openers, and where the states lie meanwhile."""

    def __init__(self, program_file):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="crashpoints.", dir="/dev/shm"))
        info, boot = self.folder / "GlobalInfo", self.folder / "BootInfo"
        info.write_text(json.dumps(harness.GLOBAL_INFO))
        boot.write_text(json.dumps(OPENING_CYCLE))
        command = [str(program_file), str(info), str(boot), KEY]
        self._processes = [subprocess.Popen(command, text=True, stdin=subprocess.PIPE,
                                            stdout=subprocess.PIPE) for _ in range(OPENERS)]
        self._count = 0

    def begin(self, contents):
        """Puts a state there and has it opened; what it returns is for `end`."""
        self._count += 1
        folder = self.folder / str(self._count)
        folder.mkdir()
        for name, content in contents.items():
            (folder / name).write_bytes(content)
        process = self._processes[self._count % OPENERS]
        process.stdin.write(f"{folder}\n")
        process.stdin.flush()
        return process, folder

    def end(self, begun):
        """(the opener's answer, {name: bytes} of the files after it)"""
        process, folder = begun
        line = process.stdout.readline()
        if not line:
            raise AssertionError(f"the opener is gone: {process.wait()}")
        after = {path.name: b"" if path.name.startswith("Db") else path.read_bytes()
                 for path in folder.iterdir()}
        shutil.rmtree(folder)
        os.unlink(f"{folder}.lines")
        return json.loads(line), after

    def stop(self):
        for process in self._processes:
            process.stdin.close()
            process.wait()
            process.stdout.close()
        shutil.rmtree(self.folder)


def program(name):
    """Of the build that is looked at, or of the usual one where that has none."""
    places = [harness.BUILD / "faults/crashpoints", base.ROOT / "build/release/faults/crashpoints"]
    for place in places:
        if (place / name).exists():
            return place / name
    raise AssertionError(f"no {name}: build with -DKIV_FAULTS=ON")


class CrashPoints(base.Experiment):
    name = "crashpoints"
    says = f"every disk state that a power cut may leave, {STATES_OF_A_TRIAL} a trial"
    trials = 400
    quick_trials = 10

    def __init__(self, seed):
        super().__init__(seed)
        kept = os.environ.get("KIV_CRASHPOINTS_RECORDING")
        for name in ("recording", "sightings.json") if kept else ():
            shutil.copy(pathlib.Path(kept) / name, self.folder)
        self.recording = None
        self.openers = None
        self.answers = {}  # digest of a state's files: (answer, files after)
        self.order = []
        self.failed = []  # (cut, choice, files) of the trial
        self.states = 0  # judged
        self.possible = 0
        self.facts = ""

    @staticmethod
    def forget(file, count):
        return False

    # --- before the first trial ---

    def prepare(self):
        ledger = self._record()
        self.recording = Recording(self.folder / "recording", self.forget)
        self.openers = Openers(program("crashpoints_opener"))
        cuts = range(self.recording.count() + 1)
        opened = dict(zip(cuts, (answer for _, answer, _ in self._open(
            (cut, SIMPLE[0]) for cut in cuts))))
        self.judge = Judge(self.recording, ledger, opened)
        self.order = self._order(self.seed)
        self.facts = (f"recorded: {self.recording.count()} operations, {len(self.recording.syncs)} "
                      f"of them syncs, {self.recording.count_of_reused_logs()} logs begun anew; "
                      f"{len(ledger.posted)} events: {len(ledger.seen)} seen committed, "
                      f"{len(ledger.gone)} seen deleted, {len(ledger.sent)} sent")

    def _record(self):
        """Makes a recording, unless there is one that a failed trial has left."""
        sightings = self.folder / "sightings.json"
        if sightings.exists():
            ledger = Sightings()
            ledger.load(sightings)
            return ledger
        place = self.folder / "run"
        shutil.rmtree(place, ignore_errors=True)  # of one that was broken off
        place.mkdir()
        script = Script(place, program("libcrashpoints_recorder.so"))
        script.run()
        script.log.rename(self.folder / "recording")
        script.ledger.save(sightings)
        return script.ledger

    def _order(self, seed):
        """All (cut, choice) in the order in which they are tried."""
        simple, others, self.possible = [], [], 0
        for number in range(self.recording.count() + 1):
            cut = Cut(self.recording, number)
            simple += [(number, choice) for choice in SIMPLE]
            others += [(number, choice) for choice in cut.choices()]
            self.possible += 1 << cut.possible()
        dice = random.Random(seed)
        dice.shuffle(simple)
        dice.shuffle(others)
        return simple + others

    # --- a bundle ---

    def trial(self, trial):
        if self.recording is None:
            self.prepare()
        self.failed = []
        first = (trial.number - 1) * STATES_OF_A_TRIAL
        for (number, choice), answer, (before, after) in self._open(
                self.order[first:first + STATES_OF_A_TRIAL]):
            self.states += 1
            findings, lost = self.judge.findings(number, before, answer, after)
            trial.lost += lost
            for finding in findings:
                trial.fail(f"cut {number}, {choice}: {finding}")
            if findings and len(self.failed) < KEPT_STATES:
                self.failed.append((number, choice, before))

    def _open(self, wanted):
        """Yields ((cut, choice), answer, (files before, files after)), in order."""
        waiting = []
        for number, choice in wanted:
            contents = Cut(self.recording, number).state(choice)
            key = self._digest(contents)
            begun = None
            if key not in self.answers:
                self.answers[key] = None
                begun = self.openers.begin(contents)
            waiting.append(((number, choice), key, begun, contents))
            if len(waiting) == STATES_AT_ONCE:
                yield self._close(waiting.pop(0))
        while waiting:
            yield self._close(waiting.pop(0))

    def _close(self, state):
        where, key, begun, contents = state
        if begun is not None:
            self.answers[key] = self.openers.end(begun)
        answer, after = self.answers[key]
        return where, answer, (contents, after)

    @staticmethod
    def _digest(contents):
        digest = hashlib.blake2b(digest_size=16)
        for name in sorted(contents):
            digest.update(f"{name} {len(contents[name])} ".encode())
            digest.update(contents[name])
        return digest.digest()

    # --- the end ---

    def keep(self, folder):
        """The recording, and the first states that failed, as they were before the start."""
        super().keep(folder)
        for place, (number, _, before) in enumerate(self.failed):
            state = folder / f"state-{place}.cut-{number}"
            state.mkdir()
            for name, content in before.items():
                (state / name).write_bytes(content)

    def stop(self):
        if self.openers is not None:
            self.openers.stop()
            self.openers = None
        self.recording = None

    def remarks(self):
        return [self.facts,
                f"{self.states} states judged, {len(self.answers)} different ones opened; of "
                f"{len(self.order)} that the bounds allow, of about "
                f"10^{len(str(self.possible)) - 1} ways to choose sectors and names"]


class CrashPointsForgetful(CrashPoints):
    name = "crashpoints-forgetful"
    says = "a control: the same with a disk that forgets every second sync of each file"
    trials = 20
    quick_trials = 5
    must_lose = True

    @staticmethod
    def forget(file, count):
        return count % 2 == 0
