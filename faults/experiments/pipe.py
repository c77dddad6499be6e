"""Texts on the time pipe that are no time, from two writers, while events are posted and sent."""
import errno
import os
import threading
import time

import rig
from mutations import mutated_time

import harness

TEXTS = 6500
REPEATED = 100
JUNK = b"the same junk"
BOUND_S = 20.0
LINE = "TimeMgr: Invalid MW time : "
LINES_IN_10_S = 10  # however many texts


class Pipe(rig.RigExperiment):
    name = "pipe"
    says = "texts on the time pipe that are no time, at full speed"
    how = "numbers beyond every width, bytes changed, binary, long, by two writers at once"
    trials = 20
    quick_trials = 2

    def trial(self, trial):
        rig = self.rig_of_the_trial()
        # While the time of the web is known, nobody reads the pipe.
        rig.cloud.misbehave(time={"action": "date", "kind": "missing"}, config="reset")
        rig.restart()
        rig.device.wait_for_error("kivwebtime: No time received")
        harness.wait_until(lambda: os.path.exists(harness.PIPE), "the pipe")
        self._repeat(trial, rig)
        begin, before = time.monotonic(), rig.device.errors_beginning(LINE)
        sent = self._flood(trial, rig)
        if sum(sent) < TEXTS // 2:
            trial.fail(f"the pipe was read too seldom: {sent}")
        lines = rig.device.errors_beginning(LINE) - before
        if lines > LINES_IN_10_S * (2 + (time.monotonic() - begin) / 10):
            trial.fail(f"{lines} lines for {sum(sent)} texts")
        self._tell_the_time(trial, rig)
        rig.cloud.control({"misbehave": None})
        rig.settle(trial, BOUND_S)
        self._look_at_time(trial)

    def _flood(self, trial, rig):
        """How many texts each writer has written."""
        sent = [0, 0]
        texts = [[mutated_time(trial.dice, time.time_ns() // 10**6) for _ in range(TEXTS // 2)]
                 for _ in sent]
        writers = [threading.Thread(target=self._write, args=(own, sent, place))
                   for place, own in enumerate(texts)]
        for writer in writers:
            writer.start()
        while any(writer.is_alive() for writer in writers):
            rig.post(text="x" * 50)
            time.sleep(0.02)
        return sent

    def _repeat(self, trial, rig):
        """The same junk again and again gets a line in 10 s."""
        begin = time.monotonic()
        for _ in range(REPEATED):
            self._write([JUNK], [0], 0)
            time.sleep(0.002)
        lines = sum(line.partition(" (")[0] == LINE + JUNK.decode()
                    for line in rig.device.err_lines())
        most = 2 + (time.monotonic() - begin) / 10
        if not 1 <= lines <= most:
            trial.fail(f"{lines} lines for the same junk, not 1 ... {most:.0f}")

    def _tell_the_time(self, trial, rig):
        """A right one after all that is believed within the bound."""
        begin = time.monotonic()
        start = None
        while time.monotonic() < begin + BOUND_S:
            now = time.time_ns() // 10**6
            self._write([str(now).encode()], [0], 0)
            time.sleep(0.05)
            start = self._starts(rig).get((*rig.cycle, 0))
            if start is not None and abs(start - (now - harness.kernel_ms())) < 5000:
                trial.standstill_s = max(trial.standstill_s, time.monotonic() - begin)
                return
        trial.fail(f"a right time is not believed after {BOUND_S:.0f} s: {start}")

    @staticmethod
    def _starts(rig):
        """{(boot, standby, source): UTC milliseconds of kernel time 0}"""
        return {row[:3]: row[3] for row in rig.device.query(
            "SELECT bootCount,standbyCount,source,startTime FROM TimeOffsets")}

    @staticmethod
    def _write(texts, sent, place):
        end = time.monotonic() + 20
        for number, text in enumerate(texts):
            if number % 10 == 0:  # the next ones are read alone
                time.sleep(0.001)
            while time.monotonic() < end:
                try:
                    pipe = os.open(harness.PIPE, os.O_WRONLY | os.O_NONBLOCK)
                except OSError as error:
                    if error.errno not in (errno.ENXIO, errno.ENOENT):
                        raise
                    time.sleep(0.001)
                    continue
                try:
                    os.write(pipe, text)
                    sent[place] += 1
                except (BrokenPipeError, BlockingIOError):
                    pass  # the reader is between two opens, or behind
                finally:
                    os.close(pipe)
                break

    def _look_at_time(self, trial):
        """The web's time is not touched by it."""
        now = time.time_ns() // 10**6 - harness.kernel_ms()
        for (boot, standby, source), start in self._starts(self.rig).items():
            if source == 1 and abs(start - now) > 5000:
                trial.fail(f"web time of {boot}/{standby} is off by {start - now} ms")
