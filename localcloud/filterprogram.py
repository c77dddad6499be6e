"""A filter tried by the daemon's own code: tools/kivfilter, a program of the build."""

import json
import os
import subprocess
import tempfile

LIMIT_S = 20
MOST_LINES = 5  # of what it reports
# What the daemon adds to an event on its way; the rest of a received event is what was posted.
ADDED = ("event-type", "eventid", "time", "ts", "utc-src", "oob-id")


class FilterError(ValueError):
    """The program could not be used; the text says why."""


def missing(program):
    """Why no filter can be tried, in words; None when one can."""
    if not program:
        return ("The program kivfilter was not named. Start the cloud with ./run, or with "
                "--filter-program BUILD/tools/kivfilter.")
    if not os.access(program, os.X_OK):
        return "The program %s is not there. Build it: ninja -C BUILD kivfilter." % program
    return None


def as_posted(event):
    """The text of a received event in the form in which it was posted, as far as that can be
    known: the members beside the daemon's own go back under "data"."""
    posted = {"event-type": event.get("event-type"), "data": {
        name: value for name, value in event.items() if name not in ADDED}}
    if isinstance(event.get("ts"), int) and event["ts"] > 0:
        posted["kernel-time"] = event["ts"]
    try:
        return json.dumps(posted, ensure_ascii=False).encode(errors="replace").decode()
    except RecursionError:
        return '"nested too deeply to be tried"'


def judge(program, document, events):
    """([a verdict for each event's text], the first lines that it reports)"""
    why = missing(program)
    if why:
        raise FilterError(why)
    with tempfile.NamedTemporaryFile("w", suffix=".json") as file:
        json.dump(document, file)
        file.flush()
        try:
            result = subprocess.run(
                [program, file.name], input="".join(event + "\n" for event in events).encode(),
                capture_output=True, timeout=LIMIT_S, check=False)
        except subprocess.TimeoutExpired:
            raise FilterError("the filter takes longer than %d s on these events" % LIMIT_S)
    lines = [line.replace(file.name, "the filter") for line in result.stderr.decode(errors="replace").splitlines()]
    verdicts = [json.loads(line) for line in result.stdout.splitlines()]
    if result.returncode != 0 or len(verdicts) != len(events):
        raise FilterError("; ".join(lines[:MOST_LINES]) or "kivfilter ended with status %d"
                          % result.returncode)
    return verdicts, lines[:MOST_LINES]
