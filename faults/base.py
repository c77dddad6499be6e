"""The base of the experiments: trials by seed, what they found, and what is kept of a failed one.

An experiment is a class in a file of its own in `experiments/`, derived from Experiment. It runs in
namespaces of its own (`run` sees to that): the queue, the pipe, ports, /tmp and /dev/shm are
private to it.
"""
import contextlib
import os
import pathlib
import platform
import random
import resource
import shutil
import subprocess
import sys
import tempfile
import time
import traceback

ROOT = pathlib.Path(__file__).resolve().parent.parent
sys.path.insert(0, str(ROOT / "tests/e2e"))

KEPT_TRIALS = 5  # of an experiment; the first ones say the most
MOST_BROKEN_TRIALS = 3  # in a row: then the experiment itself does not work


def some(names):
    """A few of them, for a line."""
    names = sorted(names)
    return f"{len(names)}: " + ", ".join(map(str, names[:12])) + (" ..." if len(names) > 12 else "")


class Trial:
    """One trial and its findings."""

    def __init__(self, number, seed):
        self.number = number
        self.dice = random.Random(f"{seed}-{number}")
        self.lost = 0  # events
        self.sent_twice = 0  # events
        self.repeated = 0  # events whose copy no client can avoid
        self.standstill_s = 0.0
        self.failures = []
        self.broken = False  # by an exception: it says nothing about the daemon, or too much

    def fail(self, text):
        self.failures.append(text)


class Experiment:
    """`says` is the line of the table, `how` tells how the fault is made. A control has
    `must_lose`: it shows that a loss is found."""

    name = ""
    says = ""
    how = ""  # default: the first words of its file
    trials = 100  # of a whole campaign
    quick_trials = 10
    must_lose = False

    def __init__(self, seed):
        self.seed = seed
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix=f"{self.name}."))

    def why_not_possible(self):
        """Why this machine cannot run it, in words; empty where it can."""
        return ""

    def trial(self, trial):
        raise NotImplementedError

    def finish(self, trial):
        """After the last trial: what can only be said now, into that trial."""

    def stop(self):
        """Ends every process, whatever happened; a further trial begins anew."""

    def keep(self, folder):
        """Copies what it takes to look into the trial that just failed."""
        with contextlib.suppress(shutil.Error):  # what vanished meanwhile
            shutil.copytree(self.folder, folder, dirs_exist_ok=True, symlinks=True)

    def remarks(self):
        """More lines for the reader of the results."""
        return []


class Result:
    """The sums over an experiment's trials: one row of the table."""

    def __init__(self, experiment):
        self.experiment = experiment
        self.trials = self.failed = self.broken = self.with_losses = self.with_copies = 0
        self.lost = self.sent_twice = self.repeated = 0
        self.standstill_s = self.seconds = 0.0
        self.not_possible = ""
        self.findings = []  # texts, all trials
        self.remarks = []

    def add(self, trial):
        self.trials += 1
        self.lost += trial.lost
        self.sent_twice += trial.sent_twice
        self.repeated += trial.repeated
        self.with_losses += trial.lost > 0
        self.with_copies += trial.sent_twice > 0
        self.failed += bool(trial.failures)
        self.broken += trial.broken
        self.findings += [f"trial {trial.number}: {text}" for text in trial.failures]
        self.standstill_s = max(self.standstill_s, trial.standstill_s)

    def held(self):
        if self.not_possible:
            return True
        if self.experiment.must_lose:
            return self.with_losses > 0 and self.broken == 0
        return self.failed == 0

    def verdict(self):
        if self.not_possible:
            return f"not possible here: {self.not_possible}"
        if self.broken:
            return f"BROKEN OFF {self.broken} of {self.failed} that failed"
        if self.experiment.must_lose:
            return "loses, as it must" if self.held() else "LOSES NOTHING, BUT MUST"
        return "held" if self.held() else f"FAILED {self.failed}"

    HEAD = ("| experiment | trials | lost: trials (events) | sent twice: trials (events) "
            "| repeated | longest stand-still | verdict | date | machine |\n"
            "|---|---|---|---|---|---|---|---|---|\n")

    def row(self):
        return (f"| `{self.experiment.name}`: {self.experiment.says} | {self.trials} "
                f"| {self.with_losses} ({self.lost}) | {self.with_copies} ({self.sent_twice}) "
                f"| {self.repeated} | {self.standstill_s:.2f} s | {self.verdict()} "
                f"| {time.strftime('%Y-%m-%d')} | {machine()} |\n")


def machine():
    return f"{os.cpu_count()} x {platform.machine()}, Linux {platform.release()}"


def kept_folder(experiment):
    return ROOT / "build/faults" / f"{experiment.name}-{experiment.seed}"


def run(experiment, trials, first=1):
    """Runs the trials of one experiment and returns its result."""
    result = Result(experiment)
    result.not_possible = experiment.why_not_possible()
    if result.not_possible:
        return result
    kept = kept_folder(experiment)
    shutil.rmtree(kept, ignore_errors=True)
    begin = time.monotonic()
    broken = 0
    try:
        for number in range(first, first + trials):
            trial = Trial(number, experiment.seed)
            _attempt(experiment, trial, trial.number == first + trials - 1)
            result.add(trial)
            wanted = experiment.must_lose and not trial.broken
            if trial.failures and result.failed <= KEPT_TRIALS and not wanted:
                _keep(experiment, trial, kept / f"trial-{number}")
            broken = broken + 1 if trial.broken else 0
            if trial.broken:
                experiment.stop()
            if broken == MOST_BROKEN_TRIALS:
                break
    finally:
        experiment.stop()
        result.seconds = time.monotonic() - begin
        result.remarks = experiment.remarks()
        if result.findings and not experiment.must_lose:
            kept.mkdir(parents=True, exist_ok=True)
            (kept / "findings.txt").write_text("\n".join([*result.findings, ""]))
        shutil.rmtree(experiment.folder, ignore_errors=True)
    return result


def _attempt(experiment, trial, last):
    try:
        experiment.trial(trial)
        if last:
            experiment.finish(trial)
    except Exception:
        trial.fail(traceback.format_exc())
        trial.broken = True


def _keep(experiment, trial, folder):
    folder.mkdir(parents=True)
    again = (f"faults/run {experiment.name} --seed {experiment.seed} --first {trial.number} "
             "--trials 1")
    (folder / "findings.txt").write_text("\n".join([f"again: {again}", *trial.failures, ""]))
    print(f"{experiment.name}: trial {trial.number} failed, see {folder}", flush=True)
    experiment.keep(folder)


def settle_in():
    """What an experiment needs of the machine, beyond tests/e2e/isolate.sh."""
    with contextlib.suppress(OSError, subprocess.CalledProcessError):
        subprocess.run(["mount", "-t", "tmpfs", "tmpfs", "/dev/shm"], check=True,
                       capture_output=True)
    with contextlib.suppress(OSError, ValueError):
        # The queues of all namespaces count together for one user.
        unlimited = (resource.RLIM_INFINITY, resource.RLIM_INFINITY)
        resource.setrlimit(resource.RLIMIT_MSGQUEUE, unlimited)
