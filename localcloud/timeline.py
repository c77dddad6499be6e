"""Events counted by second and type, for a drawing; bounded in seconds and in types."""

MOST_TYPES = 40
LONGEST_TYPE = 80  # characters
OTHER_TYPES = "(other types)"


class Timeline:
    """The owner guards it. What it counts at a change is marked with the change's number, so that
    a reader asks only for what is new."""

    def __init__(self, seconds):
        self._seconds = seconds  # so many different seconds are kept
        self._bins = {}  # second: [number of its latest change, {type: count}]
        self.totals = {}  # type: count since the start

    def named(self, event_type):
        """The name under which a type is counted."""
        name = str(event_type)[:LONGEST_TYPE]
        return name if name in self.totals or len(self.totals) < MOST_TYPES else OTHER_TYPES

    def add(self, second, event_type, change):
        name = self.named(event_type)
        self.totals[name] = self.totals.get(name, 0) + 1
        if second not in self._bins and len(self._bins) >= self._seconds:
            oldest = min(self._bins)
            if second < oldest:
                return
            del self._bins[oldest]
        place = self._bins.setdefault(second, [change, {}])
        place[0] = change
        place[1][name] = place[1].get(name, 0) + 1

    def since(self, change, second):
        """[[second, {type: count}], ...] from a second on that changed after this number."""
        return [[at, dict(counts)] for at, (changed, counts) in sorted(self._bins.items())
                if changed > change and at >= second]
