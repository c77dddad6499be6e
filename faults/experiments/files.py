"""Announced files that vanish, grow, shrink, or turn into something else while they wait and while
they are sent over a slow road."""
import contextlib
import json
import os
import re
import time

import rig
from slowroad import SlowRoad

BOUND_S = 30.0  # from the last change until each is delivered or dropped, one restart included
FILES = 12
SIZE = 300000
RATE = 2000000  # bytes a second of the slow road
CHANGES = ("nothing", "vanish", "grow", "shrink", "replace", "fifo", "directory", "link-own",
           "link-other", "unreadable-place", "emptied")
FLOOD = 400
INFO_BYTES = 7000  # of a message of the flood
OWN = ("Config", "Db", "dbuuid.json", "current_tou.txt")
REMOVED = re.compile(r'is invalid, removing (\S+) from DB')
DROPPED = re.compile(r"Too many announced files: dropped (\S+)")
REFUSED = re.compile(r"File refused, (?:its info has|it takes) \d+ bytes: (\S+)")
NOT_REGISTERED = re.compile(r"File could not be registered: (\S+)")


class Announced:
    """A file, and every content that it had since it was announced."""

    def __init__(self, path, content):
        self.path = path
        self.contents = [content]
        path.write_bytes(content)

    def change(self, kind, dice):
        getattr(self, "_" + kind.replace("-", "_"))(dice)

    def holds(self, content):
        """Whether it had that content at a moment: one that grows or shrinks in place is read as
        a beginning of its longest."""
        if content in self.contents:
            return True
        shortest = min(map(len, self.contents))
        return any(shortest <= len(content) and whole.startswith(content)
                   for whole in self.contents)

    def _gone(self):
        if self.path.is_dir() and not self.path.is_symlink():
            self.path.rmdir()
        else:
            self.path.unlink(missing_ok=True)

    def _nothing(self, dice):
        pass

    def _vanish(self, dice):
        self._gone()

    def _grow(self, dice):
        more = dice.randbytes(20000)
        for _ in range(5):
            with contextlib.suppress(FileNotFoundError), open(self.path, "r+b") as file:
                file.seek(0, os.SEEK_END)
                self.contents.append(self.contents[-1] + more)
                file.write(more)
            time.sleep(0.01)

    def _shrink(self, dice):
        size = dice.randrange(1, len(self.contents[0]))
        self.contents.append(self.contents[0][:size])
        with contextlib.suppress(FileNotFoundError):
            os.truncate(self.path, size)

    def _emptied(self, dice):
        self.contents.append(b"")
        with contextlib.suppress(FileNotFoundError):
            os.truncate(self.path, 0)

    def _replace(self, dice):
        other = self.path.with_name(self.path.name + ".new")
        other.write_bytes(dice.randbytes(SIZE // 2))
        self.contents.append(other.read_bytes())
        other.rename(self.path)

    def _fifo(self, dice):
        self._gone()
        os.mkfifo(self.path)

    def _directory(self, dice):
        self._gone()
        self.path.mkdir()

    def _link_own(self, dice):
        self._gone()
        self.path.symlink_to(self.path.parent / dice.choice(OWN))

    def _link_other(self, dice):
        other = self.path.with_name(self.path.name + ".other")
        other.write_bytes(dice.randbytes(1000))
        self.contents.append(other.read_bytes())
        self._gone()
        self.path.symlink_to(other)

    def _unreadable_place(self, dice):
        """A link to itself."""
        self._gone()
        self.path.symlink_to(self.path.name)


class Files(rig.RigExperiment):
    name = "files"
    says = "announced files that vanish, grow, shrink, turn into something else while they are sent"
    how = ("a slow road to the object service; 12 files at once changed by dice; every fourth "
           "trial 400 announcements of 7 kB, or of up to 4 kB")
    trials = 40
    quick_trials = 2
    trials_of_a_rig = 8

    def __init__(self, seed):
        super().__init__(seed)
        self.road = None
        self.ends = {}  # how: how many files

    def rig_of_the_trial(self):
        if self.rig is None or self.used == self.trials_of_a_rig:
            rig = self.new_rig()
            self.road = SlowRoad(18443, RATE)
            rig.end.callback(self.road.close)
            rig.members["s3_endpoint"] = f"https://localhost:{self.road.port}"
            rig.cloud.control({"config": {"*": rig.members}})
            rig.device.write_config(**rig.members)
            rig.start("-v")
        self.used += 1
        return self.rig

    def trial(self, trial):
        rig, dice = self.rig_of_the_trial(), trial.dice
        flood = trial.number % 4 == 2
        first_run = rig.device.runs
        files = self._flood(trial, rig, dice) if flood else self._change_while_sent(rig, dice)
        self._wait(trial, rig, files, first_run)
        for name, file in files.items():
            self._judge(trial, name, file)
        rig.no_child_is_left(trial)
        rig.settle(trial, BOUND_S, restart=False)
        for name in OWN:
            if not (rig.device.folder / name).exists():
                trial.fail(f"{name} of the daemon is gone")
        for file in files.values():
            file._gone()

    def _announce(self, rig, name, path, **info):
        message = {"event-type": "usage.app", "oob-url": str(path),
                   "data": {"oob-info": {"unique-id": name, **info}}}
        if not rig.put(json.dumps(message).encode()):
            raise AssertionError("no room on the queue for 10 s")

    def _change_while_sent(self, rig, dice):
        files = {}
        self.road.rate = dice.choice((RATE, RATE, 10 * RATE))
        for number in range(FILES):
            name = f"t{rig.device.runs}.{self.used}.{number}"
            files[name] = Announced(rig.device.folder / name,
                                    dice.randbytes(dice.choice((100, SIZE, SIZE))))
            self._announce(rig, name, files[name].path)
        for file in dice.sample(sorted(files.values(), key=lambda file: file.path), FILES):
            time.sleep(dice.uniform(0, 0.25))
            file.change(dice.choice(CHANGES), dice)
            rig.post(text="x" * 20)
            rig.device.alive()
        self.road.rate = 100 * RATE
        return files

    def _flood(self, trial, rig, dice):
        """Many announcements of what nobody can take, while the object service refuses."""
        files = {}
        long = trial.number % 8 == 2
        rig.cloud.misbehave(s3="refuse")
        for number in range(FLOOD):
            name = f"f{rig.device.runs}.{self.used}.{number}"
            files[name] = Announced(rig.device.folder / name, b"%d" % number)
            size = INFO_BYTES if long else dice.randrange(100, 4000)
            self._announce(rig, name, files[name].path, text="x" * size)
            if number % 20 == 0:
                rig.post(text="x" * 20)
        rig.cloud.misbehave(s3=None)
        return files

    def _wait(self, trial, rig, files, first_run):
        """Until each is delivered or named by a line."""
        begin = time.monotonic()
        restarted = False
        while True:
            self.objects = {key.removeprefix("kiv-test/"): content
                            for (_, key), content in rig.cloud.objects().items()}
            self.named = self._names_in_lines(rig, first_run)
            left = files.keys() - self.objects.keys() - self.named
            seconds = time.monotonic() - begin
            if not left or seconds > BOUND_S:
                break
            if seconds > 1.5 and not restarted and not self._is_sending(rig):
                rig.restart("-v")  # a failed one waits a minute
                restarted = True
            time.sleep(0.1)
        trial.standstill_s = max(trial.standstill_s, seconds)

    @staticmethod
    def _is_sending(rig):
        return bool(rig.device.children())

    @staticmethod
    def _names_in_lines(rig, first_run):
        found = set()
        for run in range(first_run, rig.device.runs + 1):
            for kind in ("out", "err"):
                text = (rig.device.folder / f"{kind}.{run}").read_text(errors="replace")
                for pattern in (REMOVED, DROPPED, REFUSED, NOT_REGISTERED):
                    found |= {os.path.basename(name) for name in pattern.findall(text)}
        return found

    def _judge(self, trial, name, file):
        content = self.objects.get(name)
        end = "delivered" if content is not None else "named" if name in self.named else "lost"
        self.ends[end] = self.ends.get(end, 0) + 1
        if end == "lost":
            trial.lost += 1
            trial.fail(f"neither delivered nor dropped with a line: {name}")
        elif end == "delivered" and not file.holds(content):
            trial.fail(f"{name} came with contents that it never had: {content[:60]!r}")

    def remarks(self):
        ends = ", ".join(f"{count} {end}" for end, count in sorted(self.ends.items()))
        return [*super().remarks(), f"announced files: {ends}"]
