#!/usr/bin/python3
"""The table of docs/faults.md, and the account that experiments in hostile surroundings keep."""
import json
import pathlib
import sys
import tempfile
import unittest

FAULTS = pathlib.Path(__file__).resolve().parent.parent.parent / "faults"
sys.path[:0] = [str(FAULTS), str(FAULTS / "experiments")]

import base  # noqa: E402 (of the campaign)
import results  # noqa: E402
from files import Announced  # noqa: E402
from ledger import Ledger  # noqa: E402
from mutations import MOST, mutated, mutated_time  # noqa: E402
from soak import MOST_GROWTH, Samples  # noqa: E402

DOCUMENT = "words\n" + results.BEGIN + results.END + "more words\n"


class Tried(base.Experiment):
    name, says, how = "tried", "a fault | of some kind", "by hand"


class TableTest(unittest.TestCase):
    def setUp(self):
        self.experiment = Tried(7)
        self.addCleanup(self.experiment.folder.rmdir)
        self.result = base.Result(self.experiment)

    def add(self, lost):
        trial = base.Trial(1, 7)
        trial.lost, trial.standstill_s = lost, 1.25
        self.result.add(trial)

    #: An experiment's row says what was found, and takes the place of its older one; the rows of
    #: others and the words around the table stay.
    def test_row_takes_the_place_of_its_older_one_and_others_stay(self):
        other = "| `other` | kept | as it was |\n"
        text = results.merged(DOCUMENT, {"other": other})
        self.add(lost=2)
        text = results.merged(text, {"tried": results.row(self.result)})
        self.add(lost=0)
        text = results.merged(text, {"tried": results.row(self.result)})
        lines = text.splitlines(keepends=True)
        self.assertEqual(lines[:2] + lines[-2:], ["words\n", results.BEGIN, results.END,
                                                  "more words\n"])
        self.assertEqual(lines[4], other)
        self.assertTrue(lines[5].startswith(
            "| `tried` | a fault / of some kind | by hand | 2 | 1 (2) | 0 (0) | 1.2 s | held | "))
        self.assertEqual(len(lines), 8)

    #: The document has its place for the table.
    def test_document_has_its_place_for_the_table(self):
        text = results.DOCUMENT.read_text()
        self.assertEqual((text.count(results.BEGIN), text.count(results.END)), (1, 1))


class AccountTest(unittest.TestCase):
    #: An overflow event that names no range, as anybody may post it, accounts for nothing.
    def test_overflow_event_without_a_range_accounts_for_nothing(self):
        ledger = Ledger("l")
        name, _ = ledger.event("usage.epg", (1, 1))
        ledger.see_overflows(['{"event-type": "logging.overflow", "data": 7}',
                              '{"event-type": "logging.overflow", "data": '
                              '{"lowest-boot-count": 1}}'])
        self.assertEqual(ledger.unaccounted(), {name})
        whole = {f"{end}-{part}": value for end, value in (("lowest", 0), ("highest", 10**12))
                 for part in ("boot-count", "standby-count", "kernel-time")}
        ledger.see_overflows([json.dumps({"event-type": "logging.overflow", "data": whole})])
        self.assertEqual(ledger.unaccounted(), set())

    #: A file holds what it had at a moment: a whole content, or a beginning of its longest one
    #: where it grew or shrank; nothing else, and no shorter beginning.
    def test_file_holds_what_it_had_at_a_moment(self):
        with tempfile.TemporaryDirectory() as folder:
            file = Announced(pathlib.Path(folder) / "a", b"abcdef")
            file.contents.append(b"abcd")
            for content in (b"abcdef", b"abcde", b"abcd"):
                self.assertTrue(file.holds(content), content)
            for content in (b"abc", b"", b"abcdx", b"abcdefg", b"CUL-TOU 1 TRUE"):
                self.assertFalse(file.holds(content), content)

    #: What grows steadily within a life is found; one high sample, and what only the start had,
    #: is not growth.
    def test_steady_growth_is_found_and_a_peak_is_not(self):
        samples = Samples(None)
        samples.taken = [(900, 90, 90000)] + [(20, 8, 9000)] * 98 + [(900, 90, 90000)]
        self.assertEqual(set(samples.growth().values()), {0})
        samples.taken = [(20 + n // 4, 8, 9000 + 100 * n) for n in range(100)]
        growth = samples.growth()
        self.assertGreater(growth["descriptors"], MOST_GROWTH["descriptors"])
        self.assertGreater(growth["KiB of memory"], MOST_GROWTH["KiB of memory"])
        self.assertEqual(growth["threads"], 0)

    #: Mutated messages fit the queue, and neither they nor mutated times are all alike.
    def test_mutated_texts_fit_and_differ(self):
        dice = base.Trial(1, 7).dice
        messages = [mutated(dice) for _ in range(2000)]
        self.assertLessEqual(max(map(len, messages)), MOST)
        self.assertGreater(len(set(messages)), 1500)
        self.assertGreater(len({mutated_time(dice, 1795300936497) for _ in range(500)}), 200)


if __name__ == "__main__":
    unittest.main()
