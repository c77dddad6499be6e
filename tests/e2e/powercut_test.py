#!/usr/bin/python3
"""The switch on the wall: power cuts of a disk of the test's own. See faults/README.md."""
import pathlib
import sys
import unittest

FAULTS = pathlib.Path(__file__).resolve().parent.parent.parent / "faults"
sys.path[:0] = [str(FAULTS), str(FAULTS / "experiments")]

import base  # noqa: E402 (of the campaign)
from bareloop import BareLoopFull  # noqa: E402
from powercut import PowerCut  # noqa: E402

SEED = 20190307


class PowerCutTest(unittest.TestCase):
    maxDiff = None

    def results_of(self, experiment, trials):
        result = base.run(experiment, trials)
        if result.not_possible:
            print(f"not possible here: {result.not_possible}")
            self.skipTest(f"not possible here: {result.not_possible}")
        print(f"{result.trials} cuts in {result.seconds:.1f} s: {result.verdict()}",
              *result.remarks, sep="\n")
        self.assertEqual(result.trials, trials)
        return result

    #: A power cut at any moment loses no event that was seen in the store and brings none back
    #: that was seen to be deleted; the store is sound, configuration, token, version and
    #: terms-of-use files are whole, and the next start is up and drained within two seconds.
    def test_power_cuts_lose_no_committed_event_and_send_none_again(self):
        result = self.results_of(PowerCut(SEED), 30)
        self.assertEqual((result.lost, result.sent_twice, result.findings), (0, 0, []))

    #: The cuts are real: a bare loop on a rollback journal that is not synced away loses rows.
    def test_power_cuts_find_the_loss_where_there_is_one(self):
        self.assertGreater(self.results_of(BareLoopFull(SEED), 20).lost, 0)


if __name__ == "__main__":
    unittest.main()
