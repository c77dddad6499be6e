"""A set with its cloud and its ledger, for experiments in hostile surroundings.

Everything is outside the namespaces of others already (`run` sees to that). The set begins with a
stored configuration and consent; what the experiment does to it, it undoes before it asks
`settle` whether every event has arrived.
"""
import bisect
import contextlib
import hashlib
import json
import os
import pathlib
import shutil
import sqlite3
import subprocess
import time

import base
from ledger import Ledger, ids_of

import harness

CONFIGURATION = {"expiry_tou": 86400,
                 "upload_events": {"min-size": 1, "max-delay": 3500, "max-size": 131072}}
YOUNG_MS = 1000  # an event so young at a kill may not be stored yet: 200 ms, and a busy machine
MOST_YOUNG = 256 + 512  # and so many
STARTS = 4
NO_QUEUE = "mq_open failed : Too many open files"
LONGEST_LINE = 2048
LONGEST_END_S = 10.0  # of a daemon that is asked to end
KEPT_BYTES = 20 << 20  # of a file


class Rig:
    def __init__(self, folder, name, configuration=None, launcher=()):
        self.folder = pathlib.Path(folder)
        self.folder.mkdir(parents=True)
        self.ledger = Ledger(name)
        self.members = {**CONFIGURATION, **(configuration or {})}
        self.cycle = (1, 1)
        self.young = 0  # events that a kill took from memory, most in one
        self._kills = {}  # id: kills that cut off the answer to its record
        self.files = {}  # object key: (MD5, kernel time) of an announced file
        self.ends = 0  # of the daemon
        self._asked = 0
        self.end = contextlib.ExitStack()
        try:
            self.cloud = harness.Cloud(self.folder / "cloud", {"config": {"*": self.members}})
            self.end.callback(self.cloud.stop)
            self.device = harness.Device(self.folder / "device", self.cloud)
            self.device.launcher = [*self.device.launcher, *launcher]
            self.end.callback(self.device.kill)
            self._make_commands()
            self.device.write_config(**self.members)
        except BaseException:
            self.end.close()
            raise

    def _make_commands(self):
        commands = self.folder / "bin"
        commands.mkdir()
        for name, says in (("ping", "PING localhost (127.0.0.1)"),
                           ("ifconfig", f"eth0      Link encap:Ethernet  HWaddr {harness.MAC}  ")):
            (commands / name).write_text(f'#!/bin/sh\necho "{says}"\n')
            (commands / name).chmod(0o755)
        self.device.environment["PATH"] = f"{commands}:{os.environ['PATH']}"

    def close(self):
        self.end.close()

    # --- the daemon ---

    def start(self, *options, cycle=None):
        if cycle is not None:
            self.cycle = cycle
        self.device.write_boot(*self.cycle)
        for left in reversed(range(STARTS)):
            try:
                self.device.start(*options)
                return
            except AssertionError:
                # Others of this user have queues, too, in namespaces of their own.
                if left == 0 or NO_QUEUE not in self.device.err():
                    raise
                self.device.kill()

    def next_cycle(self):
        return self.cycle[0] + 1, 1

    def restart(self, *options, cycle=None, kill=False, meanwhile=lambda: None):
        """In another boot cycle, which shortens every pause."""
        if kill:
            self.kill()
        else:
            self.stop_daemon()
        harness.forget_system_wide_names()
        if not kill:  # the first to open a store that was cut off is the daemon
            self.make_file_failures_old()
        meanwhile()
        self.start(*options, cycle=cycle or self.next_cycle())

    def stop_daemon(self):
        """As the system ends it; what was accepted is known, but for an answer under way."""
        def stop():
            self.device.process.terminate()
            self.device.process.wait(LONGEST_END_S)
        self._end(stop)

    def kill(self):
        self._end(self.device.kill)

    def _end(self, how):
        self.device.alive()
        at = harness.kernel_ms()
        how()
        self.ends += 1
        stored = self.look_at_store()
        for name in self.ledger.accepted.keys() & stored:
            # Accepted and still stored: it knows nothing of the answer, and sends it again.
            self._kills[name] = self._kills.get(name, 0) + 1
        self._forget_young(stored, at)

    def _forget_young(self, stored, at):
        young = {name for name in self.ledger.unaccounted(stored)
                 if self.ledger.posted[name][2] >= at - YOUNG_MS}
        self.young = max(self.young, len(young))
        for name in sorted(young)[:MOST_YOUNG]:
            self.ledger.forget(name)
        for key in self.missing_files():
            if self.files[key][1] >= at - YOUNG_MS:
                del self.files[key]

    def make_file_failures_old(self):
        """The minute after a file's failure is waited for over a restart, too: as if it had
        passed."""
        with contextlib.closing(sqlite3.connect(self.device.database)) as store:
            with contextlib.suppress(sqlite3.Error):
                store.execute("UPDATE Files SET lastfail = lastfail - 60000")
                store.commit()

    def look_at_store(self):
        """Ids in the store of the ended daemon, from a copy: it is to be the first to open it."""
        harness.wait_until(lambda: not self._is_cloud_busy(), "the end of the cloud's answers")
        self.ledger.read_cloud(self.cloud, harness.STREAM)
        copy = self.folder / "copy"
        shutil.rmtree(copy, ignore_errors=True)
        copy.mkdir()
        for path in self.device.folder.glob("Db*"):
            shutil.copy(path, copy)
        with contextlib.closing(sqlite3.connect(copy / "Db")) as store:
            texts = [row[0] for row in store.execute("SELECT data FROM Events")]
        self.ledger.see_overflows(texts)
        return ids_of(texts)

    def _is_cloud_busy(self):
        entries, self._asked = self.cloud.exchanges(self._asked)
        return any(entry["target"] == "firehose" and entry["duration"] is None
                   for entry in entries)

    # --- events ---

    def post(self, event_type="usage.epg", limit_s=10.0, syncsem=None, **data):
        """The id of a new event on the queue; None when there was no room until the limit."""
        name, message = self.ledger.event(event_type, self.cycle, **data)
        if syncsem is not None:
            message = json.dumps({**json.loads(message), "syncsem": syncsem}).encode()
        if self.put(message, limit_s):
            return name
        self.ledger.forget(name)
        return None

    def put(self, message, limit_s=10.0):
        """Any bytes on the queue; False when there was no room until the limit."""
        end = time.monotonic() + limit_s
        pause = 0.0002
        while True:
            with contextlib.suppress(OSError):  # between two runs there is no queue
                if self.device.post_now(message):
                    return True
            if time.monotonic() > end:
                return False
            self.device.alive()
            time.sleep(pause)
            pause = min(2 * pause, 0.01)

    def announce(self, name, content):
        """A file that travels under its own name and is deleted afterwards."""
        path = self.device.folder / name
        path.write_bytes(content)
        message = json.dumps({"event-type": "usage.app", "oob-url": str(path),
                              "data": {"oob-info": {"unique-id": name}}}).encode()
        if self.put(message):
            digest = hashlib.md5(content).hexdigest()
            self.files[f"kiv-test/{name}"] = digest, harness.kernel_ms()

    def missing_files(self):
        """Keys of announced files that are not there as they were."""
        index = self.cloud.state / "objects/index.jsonl"
        lines = index.read_text().splitlines() if self.files and index.exists() else []
        there = {(entry["key"], entry["md5"]) for entry in map(json.loads, lines)}
        return {key for key, (digest, _) in self.files.items() if (key, digest) not in there}

    def missing(self):
        self.ledger.read_cloud(self.cloud, harness.STREAM)
        return self.ledger.unaccounted()

    def wait_for_all(self, limit_s, nudge=True):
        """Whether everything posted arrives within so many seconds. An event a second asks for
        an upload, as from a set in use."""
        end = time.monotonic() + limit_s
        nudged = time.monotonic()
        while self.missing() or self.missing_files():
            self.device.alive()
            if time.monotonic() > end:
                return False
            if nudge and time.monotonic() > nudged + 1:
                self.post(limit_s=0.1, text="nudge")
                nudged = time.monotonic()
            time.sleep(0.03)
        return True

    def settle(self, trial, bound_s, restart=True, since=None):
        """Everybody behaves again (since then): all must arrive within the bound, after a restart
        where a stated pause would be waited for. Counts into the trial."""
        begin = time.monotonic() if since is None else since
        if restart and not self.wait_for_all(1.0):
            self.restart()
        if not self.wait_for_all(bound_s - (time.monotonic() - begin)):
            missing = self.missing() | self.missing_files()
            trial.lost += len(missing)
            trial.fail(f"not there {bound_s:.0f} s after the end: {base.some(missing)} of "
                       f"{len(self.ledger.posted)}; of "
                     f"{sorted(filter(None, map(self.ledger.posted.get, missing)))[:3]}")
            for name in missing:  # told once
                if self.files.pop(name, None) is None:
                    self.ledger.forget(name)
        trial.standstill_s = max(trial.standstill_s, time.monotonic() - begin)
        self.count_copies(trial)
        self.look_at_lines(trial)

    def count_copies(self, trial):
        lost = self._records_without_answer()
        for name, numbers in self.ledger.accepted.items():
            excused = len(lost.intersection(numbers)) + self._kills.get(name, 0)
            if excused:
                self.ledger.allowed[name] = 1 + excused
        puts = {}
        for entry in self.cloud.requests("s3", "accepted"):
            puts[entry["path"]] = puts.get(entry["path"], 0) + 1
        known = len(self.ledger.repeated)
        twice = self.ledger.sent_twice()
        twice |= {path for path, count in puts.items() if count > 1 + self.ends}
        trial.repeated += len(self.ledger.repeated) - known
        trial.sent_twice += len(twice)
        if twice:
            trial.fail(f"sent twice: {base.some(twice)}")

    def _records_without_answer(self):
        """Numbers of the records that were kept, and whose answer was changed or held back: the
        last request that had arrived by then tells. A wrong date alone is an answer."""
        requests = [(entry["time"], entry) for entry in self.cloud.requests("firehose")]
        times = [moment for moment, _ in requests]
        index = self.cloud.state / "records" / harness.STREAM / "index.jsonl"
        found = set()
        for line in index.read_text().splitlines() if index.exists() else []:
            record = json.loads(line)
            place = bisect.bisect_right(times, record["time"]) - 1
            told = requests[place][1].get("misbehaviour", {}).get("action", "date")
            if told != "date":
                found.add(record["number"])
        return found

    # --- bounds ---

    def look_at_lines(self, trial):
        for path in [*self.device.folder.glob("err.*")]:
            longest = max(map(len, path.read_bytes().split(b"\n")))
            if longest > LONGEST_LINE:
                trial.fail(f"{path.name}: a line of {longest} bytes")

    def footprint(self):
        """Descriptors, threads, KiB of memory."""
        process = pathlib.Path(f"/proc/{self.device.process.pid}")
        memory = next(line for line in (process / "status").read_text().splitlines()
                      if line.startswith("VmRSS:"))
        return len(self.device.descriptors()), self.device.tasks(), int(memory.split()[1])

    def no_child_is_left(self, trial):
        try:
            harness.wait_until(lambda: not self.device.children(), "the end of the children", 10)
        except AssertionError as error:
            trial.fail(f"{error}: {self.device.children()}")


class RigExperiment(base.Experiment):
    """One set for so many trials; a failed one ends it."""

    trials_of_a_rig = 10
    configuration = None

    def __init__(self, seed):
        super().__init__(seed)
        self.rig = None
        self.rigs = 0
        self.events = 0
        self.young = 0

    def why_not_possible(self):
        return "" if "KIV_ISOLATED" in os.environ else "no namespaces of its own"

    def new_rig(self, **options):
        self.stop()
        self.rigs += 1
        self.rig = Rig(self.folder / f"rig.{self.rigs}", f"{self.seed}.{self.rigs}",
                       self.configuration, **options)
        self.used = 0
        harness.forget_system_wide_names()
        return self.rig

    def rig_of_the_trial(self):
        """The running one, or a new one that has just started."""
        if self.rig is None or self.used == self.trials_of_a_rig:
            self.new_rig().start()
            self.rig.device.wait_for_config()
        self.used += 1
        return self.rig

    def stop(self):
        if self.rig is not None:
            self.events += len(self.rig.ledger.posted)
            self.young = max(self.young, self.rig.young)
            self.rig.close()
            shutil.rmtree(self.rig.folder, ignore_errors=True)
            self.rig = None

    def keep(self, folder):
        """Logs, store and what the cloud kept, long ones in part."""
        if self.rig is None:
            return
        for path in self.rig.folder.rglob("*"):
            if path.is_file() and not path.is_symlink():
                target = folder / path.relative_to(self.rig.folder)
                target.parent.mkdir(parents=True, exist_ok=True)
                with contextlib.suppress(OSError), open(path, "rb") as source:
                    target.write_bytes(source.read(KEPT_BYTES))
        contents = self.rig.ledger.contents()
        (folder / "ledger.json").write_text(json.dumps(contents, indent=1))

    def remarks(self):
        return [f"{self.events} events with ids; a kill took at most {self.young} from memory"]


def preloaded(source, folder):
    """The library made of that C++ file beside this one."""
    library = pathlib.Path(folder) / (source + ".so")
    if not library.exists():
        subprocess.run(["g++", "-std=c++17", "-O1", "-shared", "-fPIC", "-o", str(library),
                        str(base.ROOT / "faults" / (source + ".cpp")), "-ldl"], check=True)
    return library
