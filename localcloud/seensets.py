"""The sets that have asked for a configuration or sent a record: who they are, how much came."""

import urllib.parse

MOST_SETS = 100
LONGEST = 120  # characters of one fact
ASKED = {"X-CTN": "ctn", "X-swversion": "software", "X-platform": "platform",
         "X-serial": "serial", "X-mac": "mac", "X-kivversion": "kivApp", "X-pimversion": "pim",
         "X-currentTou": "terms", "Accept-Language": "language"}
SENT = {"ctn": "ctn", "component": "component", "ufversion": "software", "country": "country",
        "boot-count": "boot", "standby-count": "standby", "client": "client",
        "pimclient": "pimclient", "db-token": "store"}


class SeenSets:
    """Guarded by its owner."""

    def __init__(self, told_config):
        self._told_config = told_config
        self._sets = {}  # device id: row
        self._given = {}  # device id: what its configuration was told to be when it was given

    def _seen(self, device, now, change):
        device = str(device)[:LONGEST]
        row = self._sets.get(device)
        if row is None:
            if len(self._sets) >= MOST_SETS:
                oldest = min(self._sets, key=lambda name: self._sets[name]["last"])
                del self._sets[oldest]
                self._given.pop(oldest, None)
            row = {"device": device, "first": now, "facts": {}, "records": 0, "events": 0,
                   "bytes": 0, "asked": 0, "given": None, "environment": "", "last-record": None}
            self._sets[device] = row
        row.update({"last": now, "change": change})
        return row

    def asked(self, entry, now, change):
        """A request of the log; those for a configuration name the set."""
        if entry["target"] != "config":
            return
        device = urllib.parse.unquote(entry["path"].rpartition("/")[2])
        if not device or entry["verdict"].startswith("refused"):
            return
        row = self._seen(device, now, change)
        row["asked"] += 1
        row["environment"] = entry.get("environment", "")
        headers = {name.lower(): value for name, value in entry.get("headers", {}).items()}
        for header, fact in ASKED.items():
            if headers.get(header.lower()):
                row["facts"][fact] = headers[header.lower()][:LONGEST]
        if entry["verdict"] == "accepted":
            row["given"] = now
            self._given[row["device"]] = self._told_config(row["device"])

    def sent(self, header, events, record, change):
        """A session block of a record."""
        device = header.get("deviceid")
        if not isinstance(device, str):
            return
        row = self._seen(device, record["arrived"], change)
        row["events"] += events
        if row["last-record"] != record["number"]:
            row["last-record"] = record["number"]
            row["records"] += 1
            row["bytes"] += record["bytes"]
        for name, fact in SENT.items():
            if name in header:
                row["facts"][fact] = str(header[name])[:LONGEST]

    def since(self, change):
        """Copies of the rows that changed, each with whether its set has the configuration as it
        is told now."""
        return [{**row, "facts": dict(row["facts"]), "current": self._is_current(row["device"])}
                for row in self._sets.values() if row["change"] > change]

    def _is_current(self, device):
        given = self._given.get(device)
        return given is not None and given == self._told_config(device)
