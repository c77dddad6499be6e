"""What must hold of a disk state once the daemon's start-up code has opened it."""
import bisect
import json

import base
from diskstates import content_of
from ledger import range_of
from recording import apply_names, last

CONFIGURATION, TOKEN, VERSION = "Config", "dbuuid.json", "pimversion.json"
CONSENT, SERVERS_TERMS, SHOWN_TERMS = ("current_tou.txt", "tou_server_answer.txt",
                                       "show_new_tou.txt")
KEPT_WHOLE = (CONFIGURATION, TOKEN, VERSION, CONSENT, SERVERS_TERMS, SHOWN_TERMS)
MEMBERS = ("kiv_tou", "expiry_tou", "event-filter", "file-filter", "upload_events",
           "firehose_endpoint", "firehose_stream")


class Judge:
    """Of one recording. `opened[cut]` is the opener's answer to the state in which everything that
    was done before the cut is there: with it the contents that were ever committed are known."""

    def __init__(self, recording, ledger, opened):
        self._recording = recording
        self._ledger = ledger
        self._opened = opened
        self._texts = {name: [(0, None)] for name in KEPT_WHOLE}  # name: [(from cut, text)]
        for cut in range(1, recording.count() + 1):
            self._note_texts(cut)

    def _note_texts(self, cut):
        """The files' texts change with an operation on a name, or on their data."""
        operation = self._recording.operations[cut - 1]
        if operation.file is None:
            return
        if not hasattr(self, "_names") or operation in self._recording.names:
            self._names = apply_names([name for name in self._recording.names
                                       if name.number <= cut])
        for name in KEPT_WHOLE:
            file = self._names.get(name)
            text = content_of(file, cut) if file is not None else None
            if text != self._texts[name][-1][1]:
                self._texts[name].append((cut, text))

    def _texts_between(self, name, first, cut):
        """What the file held at any moment from the one cut to the other."""
        changes = self._texts[name]
        begin = bisect.bisect_right([change[0] for change in changes], first) - 1
        return [text for number, text in changes[begin:] if number <= cut]

    # --- one state ---

    def findings(self, cut, before, answer, after):
        """Texts. `before` and `after` are the state's files {name: bytes} around the opening."""
        if "ended" in answer:
            return [f"the start ended with status {answer['ended']}"], 0
        found = [*self._of_the_opening(answer, after), *self._of_the_content(cut, answer),
                 *self._of_the_files(cut, before, answer, after)]
        lost = self.lost(cut, answer)
        if lost:
            found.append(f"seen committed and lost: {base.some(lost)}")
        back = {name for name, moment in self._ledger.gone.items()
                if moment < self._recording.moment_after(cut)} & set(answer["events"])
        if back:
            found.append(f"seen deleted and stored again: {base.some(back)}")
        return found, len(lost)

    @staticmethod
    def _of_the_opening(answer, after):
        if answer["integrity"] != "ok":
            yield f"integrity: {answer['integrity']!r}"
        if answer["problem"]:
            yield f"the store cannot be read: {answer['problem']}"
        if (answer["works"], answer["writable"]) != ("yes", "1"):
            yield "the store takes no rows"
        aside = [name for name in after if name.startswith("Db.")]
        if aside:
            yield f"taken for damaged: {', '.join(sorted(aside))}"

    def _of_the_content(self, cut, answer):
        """The rows are those of a moment between the store's last sync and the cut."""
        digests = {self._opened[moment].get("digest")
                   for moment in range(last(self._recording.store_syncs, cut), cut + 1)}
        if answer["digest"] not in digests:
            ever = [moment for moment, opened in self._opened.items()
                    if moment <= cut and opened.get("digest") == answer["digest"]]
            yield "rows of no moment" if not ever else \
                f"rows as of the cut {ever[-1]}, which is before the store's last sync"

    def lost(self, cut, answer):
        """Ids of events that another process had read in the store before the cut, and that are
        neither there now nor sent nor named."""
        end = self._recording.moment_after(cut)
        stored = set(answer["events"])
        missing = [name for name, moment in self._ledger.seen.items()
                   if moment < end and name not in stored
                   and self._ledger.sent.get(name, end) >= end]
        if not missing:
            return set()
        ranges = [range_of(overflow) for overflow in answer["overflows"]]
        ranges += [named for moment, named in self._ledger.sent_ranges if moment < end]
        return {name for name in missing
                if not any(low <= self._ledger.posted[name] <= high for low, high in ranges)}

    def _of_the_files(self, cut, before, answer, after):
        since = last(self._recording.folder_syncs, cut)
        for name in KEPT_WHOLE:
            if before.get(name) not in self._texts_between(name, since, cut):
                yield f"{name} is neither old nor new: {before.get(name)!r}"
            elif before.get(name) is not None and not _is_whole(name, before[name]):
                yield f"{name} is not whole: {before[name]!r}"
            elif before.get(name) not in (None, after.get(name)) \
                    and name not in (TOKEN, SERVERS_TERMS):
                yield f"the start changed {name}: {after.get(name)!r}"
        yield from self._of_what_was_loaded(cut, before, answer, after)

    def _of_what_was_loaded(self, cut, before, answer, after):
        document = _parsed(after.get(CONFIGURATION))
        loaded = {name: answer["config"][name] for name in ("UTC-Time", "kiv_tou")}
        if loaded != {name: document.get(name) for name in loaded}:
            yield f"the configuration was loaded as {loaded}"
        version = _parsed(before.get(VERSION)).get("pim-version", "")
        if answer["version"] != version:
            yield f"the version {version!r} was loaded as {answer['version']!r}"
        token = _parsed(before.get(TOKEN)).get("db-uuid", "")
        if answer["token"] != token and not self._may_be_new(cut):
            yield f"the token {token!r} became {answer['token']!r}"
        words = (before.get(CONSENT) or b"").decode().split()
        accepted = (len(words) > 2 and words[2] == "TRUE" and
                    int(words[1]) >= _parsed(before.get(SERVERS_TERMS)).get("version", 0))
        if answer["consent"]["accepted"] != accepted:
            yield f"the consent {words} was loaded as {answer['consent']}"

    def _may_be_new(self, cut):
        """Whether the store may have been one without an identity of its own."""
        for moment in range(last(self._recording.store_syncs, cut), cut + 1):
            names = self._texts_between(TOKEN, moment, moment)
            if self._opened[moment].get("token") != _parsed(names[-1]).get("db-uuid", ""):
                return True
        return False


def _parsed(text):
    try:
        document = json.loads(text or "{}")
    except ValueError:
        return {}
    return document if isinstance(document, dict) else {}


def _is_whole(name, text):
    """Beyond being one of the texts that the file has had: those could be pieces themselves."""
    if name == CONFIGURATION:
        return all(member in _parsed(text) for member in MEMBERS)
    if name == TOKEN:
        return len(_parsed(text).get("db-uuid", "")) == 36
    if name == VERSION:
        return "pim-version" in _parsed(text) and "pim-builddate" in _parsed(text)
    if name == SERVERS_TERMS:
        return "version" in _parsed(text)
    return text != b""
