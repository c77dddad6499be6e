"""The system clock of one daemon, moved from outside while it runs."""
import calendar
import mmap
import os
import pathlib
import struct
import time

import rig

YEARS = {year: calendar.timegm((year, 1, 2, 3, 4, 5)) for year in (1970, 2001, 2037, 2038, 2110)}
YEAR_S = 365 * 86400
STEPS_S = (1, 7, 59, 61, 600, 3600, 86400, 30 * 86400, YEAR_S, 12 * YEAR_S)


class Clock:
    def __init__(self, folder):
        path = pathlib.Path(folder) / "clock"
        path.write_bytes(bytes(8))
        path.chmod(0o644)
        with open(path, "r+b") as file:
            self._map = mmap.mmap(file.fileno(), 8)
        self._path = path
        self.ahead = 0

    def use(self, device, folder):
        """For every daemon that this device starts from now on."""
        device.environment.update({"LD_PRELOAD": str(rig.preloaded("jumpclock", folder)),
                                   "KIV_CLOCK_FILE": str(self._path)})

    def set(self, ahead):
        self.ahead = ahead
        self._map[:] = struct.pack("=q", ahead)

    def jump(self, dice):
        """To a year, by a step, or back to the truth."""
        kind = dice.random()
        if kind < 0.4:
            self.set(dice.choice(sorted(YEARS.values())) - int(time.time()))
        elif kind < 0.9:
            self.set(self.ahead + dice.choice((-1, 1)) * dice.choice(STEPS_S))
        else:
            self.set(0)


def why_not_possible():
    return "" if not os.environ.get("KIV_LAUNCHER") else "an emulated daemon takes no library"
