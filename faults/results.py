"""The table of docs/faults.md: a row for each experiment, made anew by the runs with `--write`."""
import re
import sys
import time

import base

DOCUMENT = base.ROOT / "docs/faults.md"
BEGIN, END = "<!-- table: begin -->\n", "<!-- table: end -->\n"
HEAD = ("| experiment | fault | how it is made | trials | lost: trials (events) "
        "| sent twice (repeated) | longest stand-still | verdict | date, machine |\n"
        "|---|---|---|---|---|---|---|---|---|\n")
NAME = re.compile(r"\| `([^`]+)` ")


def _how(experiment):
    """In its own words, or the first words of its file."""
    if getattr(experiment, "how", ""):
        return experiment.how
    text = sys.modules[type(experiment).__module__].__doc__ or ""
    return " ".join(text.split("\n\n")[0].split()).rstrip(".")


def row(result):
    experiment = result.experiment
    cells = (f"`{experiment.name}`", experiment.says, _how(experiment), result.trials,
             f"{result.with_losses} ({result.lost})", f"{result.sent_twice} ({result.repeated})",
             f"{result.standstill_s:.1f} s", result.verdict(),
             f"{time.strftime('%Y-%m-%d')}, {base.machine()}")
    return "| " + " | ".join(str(cell).replace("|", "/") for cell in cells) + " |\n"


def merged(text, rows):
    """The document with these rows, {name: row}, beside those of other experiments."""
    before, rest = text.split(BEGIN)
    table, after = rest.split(END)
    known = {match.group(1): line for line in table.splitlines(keepends=True)
             for match in [NAME.match(line)] if match}
    known.update(rows)
    lines = "".join(known[name] for name in sorted(known))
    return before + BEGIN + HEAD + lines + END + after


def write(results):
    """What was not possible on this machine leaves the row of another one."""
    rows = {result.experiment.name: row(result) for result in results if not result.not_possible}
    DOCUMENT.write_text(merged(DOCUMENT.read_text(), rows))
