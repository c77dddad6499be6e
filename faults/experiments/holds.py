#!/usr/bin/python3
"""How long each target can hold the upload thread, how often it is asked meanwhile, and whether
everything arrives afterwards: one row for each target and each way to misbehave.

    faults/run holds [--quick]
    faults/experiments/holds.py [--quick] [--only TARGET[/ACTION] ...] [--jobs N] [--write]
"""
import argparse
import concurrent.futures
import json
import os
import pathlib
import resource
import subprocess
import sys
import threading
import time

HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent))
import base  # noqa: E402
from holdrows import QUICK, all_rows  # noqa: E402

HIGHEST_RATE = 6  # requests a minute
SLACK_S = 2.0  # of a busy machine, on the longest hold
PATIENCE_S = 230.0  # beyond every stated pause but the ten minutes of the configuration
SPARED_S = 15.0
PAUSE_SLACK_S = 25.0
QUICK_PATIENCE_S = 15.0
JOBS = 40  # they mostly wait
QUEUE_BYTES = 120000  # what one daemon's queue takes of its user's share
STAGGER_S = 0.5  # between two starts of sets
WORST_S = 900.0  # for one row
SET = base.ROOT / "faults/holdset.py"
ISOLATE = base.ROOT / "tests/e2e/isolate.sh"
README = base.ROOT / "faults/README.md"
BEGIN, END = "<!-- holds: begin -->\n", "<!-- holds: end -->\n"
HEAD = ("| target | action | held | answer took | own figure | in the next minute "
        "| most in a minute | all arrived after | twice (repeated) | verdict |\n"
        "|---|---|---|---|---|---|---|---|---|---|\n")


class Starts:
    """Lets the sets begin one after the other."""

    def __init__(self):
        self._lock = threading.Lock()

    def wait(self):
        with self._lock:
            time.sleep(STAGGER_S)


def measure(row, patience_s, quick, starts):
    """The row's measurements, from a process in namespaces of its own."""
    starts.wait()
    command = [str(ISOLATE), str(base.ROOT), "/usr/bin/python3", str(SET), row.name,
               str(patience_of(row, patience_s)), *(["quick"] if quick else [])]
    if os.geteuid() == 0:  # whatever a row leaves behind ends with it
        command = ["setpriv", "--pdeathsig", "KILL", "unshare", "--pid", "--fork",
                   "--kill-child", "--mount-proc", *command]
    try:
        done = subprocess.run(command, capture_output=True, text=True, timeout=WORST_S,
                              env={**os.environ, "KIV_BUILD": str(programs())})
        return json.loads(done.stdout.splitlines()[-1])
    except subprocess.TimeoutExpired:
        return {"broken": f"no end within {WORST_S:.0f} s"}
    except (IndexError, ValueError):
        return {"broken": (done.stdout + done.stderr)[-2000:]}


def patience_of(row, patience_s):
    """Where a pause is longer than the patience there is no use in waiting long."""
    if patience_s <= row.longest_pause_s:
        return min(patience_s, SPARED_S)
    return min(patience_s, row.longest_pause_s + PAUSE_SLACK_S)


def most_jobs():
    """The queues of all namespaces count together for one user; root gives each row its own."""
    limit, _ = resource.getrlimit(resource.RLIMIT_MSGQUEUE)
    if os.geteuid() == 0 or limit == resource.RLIM_INFINITY:
        return JOBS
    return max(1, min(JOBS, limit // QUEUE_BYTES))


def programs():
    return pathlib.Path(os.environ.get("KIV_BUILD", base.ROOT / "build/release")).resolve()


def findings(row, result, patience_s):
    """What breaks a bound, in words."""
    if "broken" in result:
        yield "BROKEN OFF"
        return
    if result["ended"]:
        yield result["ended"]
    if result["asked"] == 0:
        yield "never asked"
    if result["hold_s"] > row.longest_hold_s + SLACK_S:
        yield f"held {seconds(result)}"
    if result["rate"] > HIGHEST_RATE and not row.is_served:
        yield f"{result['rate']} requests a minute"
    if result["missing"]:
        yield "missing " + base.some(result["missing"])
    elif result["restarted"] and result["late"] and patience_s > row.longest_pause_s:
        yield "only after a restart " + base.some(result["late"])
    if result["twice"]:
        yield "twice " + base.some(result["twice"])


def seconds(result):
    return ("> " if result["held_on"] else "") + f"{result['hold_s']:.1f} s"


def line(row, result, patience_s):
    verdict = "; ".join(findings(row, result, patience_s))
    verdict = f"**{verdict}**" if verdict else "held"
    if "broken" in result:
        return f"| {row.target} | `{row.action}` |" + " |" * 7 + f" {verdict} |\n"
    own = "" if result["own_s"] is None else f"{result['own_s']:.1f} s"
    served = " (served)" if row.is_served else ""
    arrived = f"{result['arrived_s']:.0f} s" + (", restarted" if result["restarted"] else "")
    if result["missing"]:
        arrived = "never"
    twice = f"{len(result['twice'])} ({result['repeated']})"
    return (f"| {row.target} | `{row.action}` | {seconds(result)} | {result['cloud_s']:.1f} s "
            f"| {own} | {result['followed']} | {result['rate']}{served} | {arrived} | {twice} "
            f"| {verdict} |\n")


def run(rows, patience_s, quick, jobs):
    """{row name: measurements}; says what breaks a bound as it is found."""
    results, starts = {}, Starts()
    order = sorted(rows, key=lambda row: not row.is_long)
    with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
        futures = {pool.submit(measure, row, patience_s, quick, starts): row for row in order}
        for future in concurrent.futures.as_completed(futures):
            row = futures[future]
            results[row.name] = future.result()
            for finding in findings(row, results[row.name], patience_s):
                print(f"{row.name}: {finding}", file=sys.stderr, flush=True)
            if "broken" in results[row.name]:
                print(results[row.name]["broken"].rstrip().splitlines()[-1], file=sys.stderr)
    return results


def table(rows, results, patience_s):
    return HEAD + "".join(line(row, results[row.name], patience_s) for row in rows)


def summary(rows, results, patience_s, taken_s):
    failed = [row.name for row in rows if any(findings(row, results[row.name], patience_s))]
    restarted = sum(bool(result.get("restarted")) for result in results.values())
    return (f"{len(rows)} rows in {taken_s:.0f} s, {len(failed)} break a bound, {restarted} had "
            f"everything only after a restart. {time.strftime('%Y-%m-%d')}, {base.machine()}.\n")


def write(text):
    readme = README.read_text()
    before, _, rest = readme.partition(BEGIN)
    _, found, after = rest.partition(END)
    if not found:
        sys.exit(f"{README} has no place for the table")
    README.write_text(before + BEGIN + text + END + after)


class Holds(base.Experiment):
    """Trial 1 is the quick rows, trial 2 all others."""

    name = "holds"
    says = "every target misbehaves in every way: bounds of holds and rates, and all arrives"
    trials = 2
    quick_trials = 1

    def __init__(self, seed):
        super().__init__(seed)
        self.sums, self.tables = [], []  # texts, one of each trial

    def trial(self, trial):
        quick = trial.number == 1
        rows = [row for row in all_rows() if (row.name in QUICK) == quick]
        patience_s = QUICK_PATIENCE_S if quick else PATIENCE_S
        begin = time.monotonic()
        results = run(rows, patience_s, quick, most_jobs())
        self.sums.append(summary(rows, results, patience_s, time.monotonic() - begin))
        self.tables.append(table(rows, results, patience_s))
        for row in rows:
            self._judge(trial, row, results[row.name], patience_s)

    @staticmethod
    def _judge(trial, row, result, patience_s):
        for finding in findings(row, result, patience_s):
            trial.fail(f"{row.name}: {finding}")
        trial.broken |= "broken" in result
        trial.lost += len(result.get("missing", ()))
        trial.sent_twice += len(result.get("twice", ()))
        trial.repeated += result.get("repeated", 0)
        trial.standstill_s = max(trial.standstill_s, result.get("hold_s", 0.0))

    def remarks(self):
        return [line for pair in zip(self.sums, self.tables) for text in pair
                for line in text.splitlines()]


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--quick", action="store_true", help="a dozen short rows, two minutes")
    parser.add_argument("--only", metavar="TARGET[/ACTION]", action="append", default=[])
    parser.add_argument("--jobs", type=int, default=most_jobs(), help="sets side by side")
    parser.add_argument("--patience", type=float, metavar="SECONDS",
                        help="before a set that has not delivered all is restarted "
                        f"({PATIENCE_S:.0f}; with --quick {QUICK_PATIENCE_S:.0f})")
    parser.add_argument("--write", action="store_true", help="the table into faults/README.md")
    parser.add_argument("--list", action="store_true", help="the names of the rows, and no more")
    options = parser.parse_args()
    rows = [row for row in all_rows() if not options.quick or row.name in QUICK]
    if options.only:
        rows = [row for row in rows if {row.name, row.target} & set(options.only)]
    if not rows:
        parser.error("no such row")
    if options.patience is None:
        options.patience = QUICK_PATIENCE_S if options.quick else PATIENCE_S
    return options, rows


def main():
    options, rows = parse_arguments()
    if options.list:
        print(*(row.name for row in rows), sep="\n")
        return 0
    begin = time.monotonic()
    results = run(rows, options.patience, options.quick, options.jobs)
    text = summary(rows, results, options.patience, time.monotonic() - begin) + "\n" + \
        table(rows, results, options.patience)
    print(text, end="")
    if options.write:
        write(text)
    return 1 if any(any(findings(row, results[row.name], options.patience)) for row in rows) else 0


if __name__ == "__main__":
    sys.exit(main())
