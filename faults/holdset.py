#!/usr/bin/python3
"""One row of the table of holds: a set and a cloud of their own, in namespaces of their own.

    holdset.py TARGET/ACTION SECONDS [quick]

SECONDS is how long the set may take by itself to deliver everything once the misbehaviour has
ended; then it is restarted. "quick" ends before the minute after which events and files are tried
again, so that nobody has to wait for one more. What was measured goes to standard output as one
line of JSON.
"""
import bisect
import contextlib
import json
import os
import pathlib
import re
import shutil
import socket
import subprocess
import sys
import tempfile
import threading
import time
import traceback

HERE = pathlib.Path(__file__).resolve().parent
sys.path[:0] = [str(HERE), str(HERE.parent / "tests/e2e")]
import harness  # noqa: E402
from holdrows import SILENT_DNS, all_rows, state_of  # noqa: E402

PACE_S = 2.0  # between two events, each of which asks for an upload
MINUTE_S = 60.0
WATCH_BEYOND_S = 30.0  # the bound of a hold, where one request lasts longer
FIRST_REQUEST_S = 90.0  # until the target is asked at all
QUICK_WATCH_S = 50.0
AFTER_RESTART_S, QUICK_AFTER_RESTART_S = 80.0, 40.0
FIRST_USER = 61000  # where the rows' users begin; they need no entry anywhere
FLOOD = 120  # requests: enough to judge
PATHS = {"config": "/config/", "tou": "/tou", "time": "/time", "geo": "/json"}
LINE = re.compile(r"\[(\d+)\]\((\d+),(\d+)\) (.*)")
ASKED = re.compile(r"Request Server URL: (\S+?)\.\.\.")
TOOK = re.compile(r"Request Server URL (\S+) (?:took|extended to) (\d+)ms")
# What the cloud does not see as a request: no connection, or one that the client ends after the
# handshake without a word. Of such the daemon's own lines speak.
BY_LINES = (SILENT_DNS, "certificate-other-host")
LINES_AROUND = {
    "gateway": ("Request Server URL: https", ("Request Server URL https",)),
    "firehose": ("Try to send packet", ("Delete marked events", "Event upload failed")),
    "s3": ("Wait for child", ("Child returns",)),
}
BEGINS = ("Request Server URL: ", "Wait for child")  # lines that say that a request begins
CLIENT_END_S = 0.3
KEPT_BYTES = 2000000  # of each log of a row


class SilentDns:
    """A name server that takes every question and answers none."""

    def __init__(self, folder):
        self._socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self._socket.bind(("127.0.0.53", 53))
        resolv = pathlib.Path(folder) / "resolv.conf"
        resolv.write_text("nameserver 127.0.0.53\n")
        # In the mount namespace of this row alone.
        subprocess.run(["mount", "--bind", str(resolv), os.path.realpath("/etc/resolv.conf")],
                       check=True)


class Load:
    """Events at an even pace, from a thread of its own, each with a number."""

    def __init__(self, device):
        self._device = device
        self._stop = threading.Event()
        self._lock = threading.Lock()
        self._posted = []
        self._thread = threading.Thread(target=self._run, daemon=True)

    def start(self):
        self._thread.start()

    def stop(self):
        self._stop.set()
        if self._thread.is_alive():
            self._thread.join()

    def posted(self):
        with self._lock:
            return list(self._posted)

    def _run(self):
        number = 0
        while not self._stop.wait(PACE_S):
            data = {"hold-id": number, "text": "x" * 200}
            message = json.dumps({"event-type": "usage.epg", "data": data}).encode()
            with contextlib.suppress(OSError):  # between two runs there is no queue
                if self._device.post_now(message):
                    with self._lock:
                        self._posted.append(number)
                    number += 1


class ThreadSigns:
    """The lines of the upload thread with their moments (monotonic milliseconds)."""

    def __init__(self, *texts):
        lines = [match.groups() for text in texts for match in map(LINE.match, text.splitlines())
                 if match]
        thread = next(((pid, tid) for _, pid, tid, text in lines if "Got message " in text), None)
        own = sorted(((int(ms), text) for ms, pid, tid, text in lines if (pid, tid) == thread),
                     key=lambda line: line[0])
        self._moments = [ms for ms, _ in own]
        self.lines = own

    def next_after(self, arrived, duration):
        """Seconds of the first line after the request that the cloud saw to last so long; None:
        there is none. Lines have whole milliseconds, and the cloud sees a client's end late."""
        earliest = int((arrived + max(duration - CLIENT_END_S, 0.0)) * 1000)
        place = bisect.bisect_left(self._moments, earliest + (duration > CLIENT_END_S))
        while place < len(self.lines) and any(begin in self.lines[place][1] for begin in BEGINS):
            place += 1
        return self._moments[place] / 1000 if place < len(self.lines) else None


class HoldSet:
    def __init__(self, row, patience_s, quick, folder, end):
        self.watch_s = QUICK_WATCH_S if quick else MINUTE_S
        self.after_restart_s = QUICK_AFTER_RESTART_S if quick else AFTER_RESTART_S
        self.row, self.patience_s, self.folder = row, patience_s, pathlib.Path(folder)
        self.state = state_of(row)
        self.exchanges = {}  # number: the cloud's entry
        self._since = 0
        thresholds = {"min-size": 100, "max-delay": 3500, "max-size": 131072}
        self.members = {"expiry_tou": 86400, "upload_events": thresholds}
        self.cloud = harness.Cloud(self.folder / "cloud", {"config": {"*": self.members}})
        end.callback(self.cloud.stop)
        self.device = harness.Device(self.folder / "device", self.cloud)
        end.callback(self.device.kill)
        self.load = Load(self.device)
        end.callback(self.load.stop)

    def measure(self):
        self._prepare()
        if self.row.from_the_start:
            self._misbehave()
        self.begin = time.monotonic()
        self.device.start("-v")
        if not self.row.from_the_start:
            self._wait_until_it_works()
            self._misbehave()
            self.begin = time.monotonic()
        self.load.start()
        self._announce_files()
        self._watch()
        return self._results()

    # --- before ---

    def _prepare(self):
        commands = self.folder / "bin"
        commands.mkdir()
        script = f'#!/bin/sh\necho "eth0      Link encap:Ethernet  HWaddr {harness.MAC}  "\n'
        (commands / "ifconfig").write_text(script)
        # Not the one of the machine, which needs a right that the daemon's user has not.
        (commands / "ping").write_text('#!/bin/sh\necho "PING localhost (127.0.0.1)"\n')
        for name in ("ifconfig", "ping"):
            (commands / name).chmod(0o755)
        self.device.environment["PATH"] = f"{commands}:{os.environ['PATH']}"
        members = {**self.members, "expiry_tou": self.state.config_expiry_s}
        if self.row.action == SILENT_DNS:
            self.name_server = SilentDns(self.folder)  # kept, or its port would be closed
            members[f"{self.row.target}_endpoint"] = f"https://{self.row.target}.kiv.example:18443"
        elif self.row.is_handshake and self.row.target in ("firehose", "s3"):
            port = self.cloud.control({})["ports"][self.row.target]
            members[f"{self.row.target}_endpoint"] = f"https://localhost:{port}"
        self.device.write_config(self.state.config_age_s, **members)
        if os.geteuid() == 0 and "KIV_LAUNCHER" not in os.environ:
            self._use_a_user_of_its_own()

    def _use_a_user_of_its_own(self):
        """Queues are counted by user over all namespaces: one for all would be enough for few."""
        user = FIRST_USER + [row.name for row in all_rows()].index(self.row.name)
        self.device.launcher = ["setpriv", "--reuid", str(user), "--regid", str(user),
                                "--clear-groups"]
        self.folder.chmod(0o755)
        for path in (self.device.folder, *self.device.folder.iterdir()):
            os.chown(path, user, user)

    def _wait_until_it_works(self):
        self.device.send("usage.epg", {"text": "x" * 200}, sync=False)
        harness.wait_until(lambda: self.cloud.records(), "a first record", 60)

    def _misbehave(self):
        told = dict(self.state.others)
        if self.row.told:
            told[self.row.told_to] = self.row.told
        self.cloud.control({"misbehave": told})

    def _announce_files(self):
        self.files = {}
        for number in range(self.row.files):
            name, path = f"held-{number}", self.folder / f"device/held.{number}"
            path.write_bytes(b"content %d" % number)
            path.chmod(0o644)
            self.files[f"kiv-test/{name}"] = path.read_bytes()
            self.device.post_raw(json.dumps({
                "event-type": "usage.app", "oob-url": str(path),
                "data": {"oob-info": {"unique-id": name}}}).encode())

    # --- while it lasts ---

    def _look(self):
        self.device.alive()
        entries, self._since = self.cloud.exchanges(self._since)
        self.exchanges.update({entry["number"]: entry for entry in entries})

    def _concerns(self, entry):
        """Whether it was to the misbehaving target, and met the misbehaviour."""
        if entry["arrived"] < self.begin:
            return False
        if self.row.is_handshake:
            return entry["target"] == "https"
        return entry["target"] == self.row.target

    def _requests(self):
        """[(arrived, duration or None)] of those that met the misbehaviour."""
        if self.row.action in BY_LINES:
            return self._attempts_by_lines()
        return [(entry["arrived"], entry["duration"]) for _, entry in
                sorted(self.exchanges.items()) if self._concerns(entry)]

    def _attempts_by_lines(self):
        """The same of what never becomes a request: from the line before to the line after."""
        before, after = LINES_AROUND[self.row.target]
        found, begun = [], None
        for ms, text in self._signs().lines:
            if before in text and ms / 1000 >= self.begin:
                begun = ms / 1000
            elif begun and any(words in text for words in after):
                found.append((begun, ms / 1000 - begun))
                begun = None
        return found + ([(begun, None)] if begun else [])

    def _signs(self):
        return ThreadSigns(self.device.out(), self.device.err())

    def _watch(self):
        """Until the first request has ended and a minute has passed, or it has lasted too long."""
        nothing_after = time.monotonic() + FIRST_REQUEST_S
        while True:
            time.sleep(0.5)
            self._look()
            requests, now = self._requests(), time.monotonic()
            if not requests and now > nothing_after:
                break
            if len(requests) > FLOOD:
                break
            if not requests:
                continue
            arrived, duration = requests[0]
            longest = max((now - a for a, d in requests if d is None), default=0)
            if longest > self.row.longest_hold_s + WATCH_BEYOND_S:
                break
            # One under way then is no longer than the first was, or is watched further.
            if duration is not None and now > arrived + duration + self.watch_s \
                    and longest <= duration:
                break
        self.end = time.monotonic()
        self.met = self._requests()
        self.signs = self._signs()

    # --- after ---

    def _end_misbehaviour(self):
        self.accepted_before = self._copies()
        self.cloud.control({"misbehave": None})
        if self.row.action == SILENT_DNS:  # the name goes with it
            self._restart(lambda: self.device.change_config(
                **{f"{self.row.target}_endpoint": "https://localhost:18443"}))

    def _restart(self, meanwhile=lambda: None):
        """As the set's own restart: another boot cycle."""
        self.device.process.terminate()
        try:
            self.device.process.wait(10)
        except subprocess.TimeoutExpired:
            self.device.kill()
        meanwhile()
        self.device.write_boot(2, 1)
        self.restarted = True
        self.device.start("-v")

    def _copies(self):
        """{id: how many records hold it}"""
        copies = {}
        for event in self.cloud.events("usage.epg"):
            number = event.get("hold-id")  # the members of "data" are the event's in a record
            if number is not None:
                copies[number] = copies.get(number, 0) + 1
        return copies

    def _missing(self, wanted):
        there = self._copies()
        objects = {key: content for (_, key), content in self.cloud.objects().items()}
        return [f"event {number}" for number in wanted if number not in there] + \
            [key for key, content in self.files.items() if objects.get(key) != content]

    def _wait_for_all(self, wanted, limit_s):
        end = time.monotonic() + limit_s
        missing = self._missing(wanted)
        while missing and time.monotonic() < end and self.device.process.poll() is None:
            time.sleep(0.5)
            missing = self._missing(wanted)
        return missing

    def _results(self):
        wanted = self.load.posted()
        self.restarted = False
        behaves = time.monotonic()
        self._end_misbehaviour()
        missing = late = self._wait_for_all(wanted, self.patience_s)
        if missing and not self.restarted:
            self._restart()
            missing = self._wait_for_all(wanted, self.after_restart_s)
        arrived_s = time.monotonic() - behaves
        self.load.stop()
        time.sleep(1)  # for a copy that is under way
        status = self.device.process.poll()
        return {**self._holds(), **self._rates(), "missing": missing, "late": late,
                "posted": len(wanted),
                "arrived_s": arrived_s, "restarted": self.restarted, **self._twice(),
                "ended": "" if status is None else f"kivApp ended with {status}",
                "seconds": time.monotonic() - self.begin}

    def _holds(self):
        holds = {}  # how long: whether it had not ended
        for arrived, duration in self.met:
            sign = None
            if duration is not None:
                sign = self.signs.next_after(arrived, duration)
            # The thread waits for the request: it was held no shorter than that lasted.
            hold = max((sign or self.end) - arrived, duration or 0.0)
            holds[hold] = holds.get(hold, False) or sign is None
        cloud = [self.end - a if d is None else d for a, d in self.met]
        own = [int(match.group(2)) / 1000 for _, text in self.signs.lines
               for match in [TOOK.search(text)] if match and self._is_target(match.group(1))]
        longest = max([*holds, *own], default=0.0)
        return {"asked": len(self.met), "hold_s": longest, "held_on": holds.get(longest, False),
                "cloud_s": max(cloud, default=0.0),
                "own_s": max(own) if own else None}

    def _is_target(self, url):
        if self.row.target == "gateway":
            return url.startswith("https:")
        return self.row.target in PATHS and PATHS[self.row.target] in url

    def _rates(self):
        """The daemon's own lines tell apart what shares a handshake."""
        moments = [arrived for arrived, _ in self.met]
        lists = [moments]
        if self.row.target in PATHS or self.row.target == "gateway":
            lists = [[ms / 1000 for ms, text in self.signs.lines
                      for match in [ASKED.search(text)] if match and path in match.group(1)]
                     for target, path in PATHS.items()
                     if self.row.target in (target, "gateway") and target != "geo"
                     or self.row.target == target]
            lists += [] if self.row.target == "gateway" else [moments]
        followed = 0
        if self.met:
            arrived, duration = self.met[0]
            after = arrived + (duration or 0)
            followed = max(sum(after < moment <= after + MINUTE_S for moment in moments[1:])
                           for moments in lists)
        return {"followed": followed, "rate": max(map(_most_in_a_minute, lists), default=0),
                "watched_s": self.end - (self.met[0][0] if self.met else self.begin)}

    def _twice(self):
        copies = self._copies()
        excused = {number: count for number, count in self.accepted_before.items()
                   if self.row.may_repeat and self.row.target == "firehose"}
        twice = [number for number, count in copies.items()
                 if count - excused.get(number, 0) > 1]
        repeated = [number for number, count in copies.items()
                    if count > 1 and number not in twice]
        puts = {}
        for entry in self.cloud.requests("s3"):
            whole = entry["verdict"] == "accepted"
            puts[entry["path"]] = puts.get(entry["path"], 0) + whole
        twice += [path for path, count in puts.items() if count > 1]
        return {"twice": twice, "repeated": len(repeated)}

    def keep(self, folder):
        """The logs of a row, for who wants to know why."""
        shutil.rmtree(folder, ignore_errors=True)
        folder.mkdir(parents=True)
        for path in [*self.device.folder.glob("out.*"), *self.device.folder.glob("err.*"),
                     *self.cloud.state.glob("*.jsonl"), *self.cloud.state.glob("*.log")]:
            with open(path, "rb") as source, open(folder / path.name, "wb") as copy:
                copy.write(source.read(KEPT_BYTES))


def _most_in_a_minute(moments):
    moments = sorted(moments)
    return max((bisect.bisect_left(moments, moment + MINUTE_S) - place
                for place, moment in enumerate(moments)), default=0)


def main():
    name, patience_s, quick = sys.argv[1], float(sys.argv[2]), sys.argv[3:] == ["quick"]
    row = next(row for row in all_rows() if row.name == name)
    folder = tempfile.mkdtemp(prefix="hold.")
    with contextlib.ExitStack() as end:
        end.callback(shutil.rmtree, folder, ignore_errors=True)
        hold = HoldSet(row, patience_s, quick, folder, end)
        try:
            result = hold.measure()
        except Exception:
            result = {"broken": traceback.format_exc()}
        hold.keep(harness.ROOT / "build/faults/holds" / name.replace("/", "."))
        print(json.dumps(result), flush=True)


if __name__ == "__main__":
    main()
