"""The state directory: what was accepted.

    records/<stream>/000001.json ...  the records of a stream, decoded, in order
    records/<stream>/index.jsonl      one line for each record
    objects/<bucket>/<key>            the objects
    objects/index.jsonl               one line for each object put

Every file is written whole beside its place and then renamed, so that a reader never
meets a part of one; an index as well, after what its new line speaks of. All is there
before the answer goes out.
"""

import datetime
import hashlib
import json
import os
import re
import threading
import urllib.parse
import uuid


class Store:
    def __init__(self, state):
        self._state = state
        self._lock = threading.Lock()  # guards the files and what follows
        os.makedirs(state, exist_ok=True)
        self._incoming = self._path("incoming")
        self._last_record = {}  # directory: number of its newest record
        self._indexes = {}  # path: the bytes of the index
        self._objects = {}  # (bucket, key): index entry
        for line in self._index(self._path("objects", "index.jsonl")).splitlines():
            entry = json.loads(line)
            self._objects[entry["bucket"], entry["key"]] = entry

    def _path(self, *parts):
        return os.path.join(self._state, *parts)

    # --- records ---

    def add_record(self, stream, data):
        """Keeps a record's bytes as the stream's next file; returns the record id."""
        record_id = uuid.uuid4().hex
        with self._lock:
            directory = self._path("records", _file_name(stream))
            os.makedirs(directory, exist_ok=True)
            if directory not in self._last_record:
                self._last_record[directory] = self._last_number(directory)
            self._last_record[directory] += 1
            number = self._last_record[directory]
            name = "%06d.json" % number
            self._write(os.path.join(directory, name), data)
            line = {"number": number, "time": _timestamp(), "file": name,
                    "bytes": len(data), "record-id": record_id}
            self._add_to_index(os.path.join(directory, "index.jsonl"), line)
        return record_id

    @staticmethod
    def _last_number(directory):
        found = (re.fullmatch(r"(\d+)\.json", name) for name in os.listdir(directory))
        return max((int(match[1]) for match in found if match), default=0)

    # --- objects ---

    def put_object(self, bucket, key, data, content_type):
        entry = {"time": _timestamp(), "bucket": bucket, "key": key, "bytes": len(data),
                 "content-type": content_type, "md5": hashlib.md5(data).hexdigest()}
        with self._lock:
            entry["file"] = self._write_object(bucket, key, data)
            self._add_to_index(self._path("objects", "index.jsonl"), entry)
            self._objects[bucket, key] = entry

    def _write_object(self, bucket, key, data):
        """Writes the object and returns its file's path below objects/."""
        segments = [_file_name(segment) for segment in [bucket] + key.split("/")]
        path = os.path.join(*segments)
        try:
            os.makedirs(os.path.dirname(self._path("objects", path)), exist_ok=True)
            self._write(self._path("objects", path), data)
        except (FileExistsError, NotADirectoryError, IsADirectoryError):
            # Keys may stand where others have their directory ("a" and "a/b"); files may not.
            path = os.path.join(segments[0], "%" + hashlib.sha256(key.encode()).hexdigest())
            self._write(self._path("objects", path), data)
        return path

    def get_object(self, bucket, key):
        """(index entry, bytes), None when there is no such object."""
        with self._lock:
            entry = self._objects.get((bucket, key))
            if entry is None:
                return None
            with open(self._path("objects", entry["file"]), "rb") as file:
                return entry, file.read()

    def counts(self):
        """What is there: records of each stream, objects."""
        with self._lock:
            records = {}
            root = self._path("records")
            for stream in sorted(os.listdir(root)) if os.path.isdir(root) else []:
                lines = self._index(os.path.join(root, stream, "index.jsonl")).count(b"\n")
                records[urllib.parse.unquote(stream)] = lines
            return {"records": records, "objects": len(self._objects)}

    # --- whole files ---

    def _write(self, path, data):
        with open(self._incoming, "wb") as file:
            file.write(data)
        os.replace(self._incoming, path)

    def _index(self, path):
        """The lines of an index as they are on file."""
        if path not in self._indexes:
            try:
                with open(path, "rb") as file:
                    self._indexes[path] = bytearray(file.read())
            except FileNotFoundError:
                self._indexes[path] = bytearray()
        return self._indexes[path]

    def _add_to_index(self, path, entry):
        lines = self._index(path)
        lines += json.dumps(entry).encode() + b"\n"
        self._write(path, lines)


def _timestamp():
    now = datetime.datetime.now(datetime.timezone.utc)
    return now.strftime("%Y-%m-%dT%H:%M:%S.") + "%03dZ" % (now.microsecond // 1000)


def _file_name(segment):
    """A name of the stream, bucket or key as one that is safe as a file's."""
    name = urllib.parse.quote(segment, safe=" +,=@()&$!';:")
    if name in ("", ".", "..", "index.jsonl"):
        return name.replace(".", "%2E") or "%"
    if len(name) > 200:
        return "%" + hashlib.sha256(segment.encode()).hexdigest()
    return name
