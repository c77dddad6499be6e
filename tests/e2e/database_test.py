#!/usr/bin/python3
"""The database file: full, replaced by junk, of an older version."""
import contextlib
import os
import sqlite3
import subprocess
import time
import unittest

from harness import DEVICE, WholeProgramTest, wait_until

LISTED = "/3rd_rw"
MAX_PAGES = 768  # 3 MiB of 4096 bytes


class FullDatabaseTest(WholeProgramTest):
    def setUp(self):
        super().setUp()
        self.listing = b""
        if os.geteuid() == 0 and not os.path.exists(LISTED):
            os.mkdir(LISTED)
            self.addCleanup(os.rmdir, LISTED)
            if subprocess.run(["mount", "-t", "tmpfs", "tmpfs", LISTED]).returncode == 0:
                self.addCleanup(subprocess.run, ["umount", LISTED], check=True)
                self.fill_listed_directory()

    def fill_listed_directory(self):
        os.makedirs(f"{LISTED}/d/e")
        os.mkdir(f"{LISTED}/.hidden")
        for name, size in (("a", 10), ("d/b", 5), (".hidden/c", 7)):
            with open(f"{LISTED}/{name}", "wb") as file:
                file.write(b"x" * size)
        os.symlink("/nowhere", f"{LISTED}/d/e/link")
        self.listing = (f"{LISTED}/a\t10\ntotal dir {LISTED}\t10\n{LISTED}/d/b\t5\n"
                        f"total dir {LISTED}/d\t5\n{LISTED}/d/e/link\t\n"
                        f"total dir {LISTED}/d/e\t0\n").encode()

    def store(self):
        return contextlib.closing(sqlite3.connect(self.device.database, timeout=10))

    def fill(self):
        with self.store() as store:
            store.execute("CREATE TABLE Filler(x)")
            while store.execute("PRAGMA page_count").fetchone()[0] < MAX_PAGES - 2:
                store.execute("INSERT INTO Filler VALUES (zeroblob(3500))")
                store.commit()

    #: A full database is reported once by listing and event, and recovers without a restart.
    def test_full_database_is_reported_once_and_recovers_without_a_restart(self):
        self.start_with_consent()
        wait_until(lambda: self.device.query("SELECT COUNT(*) FROM TimeOffsets") == [(1,)]
                   and self.cloud.requests("tou"), "the end of the start-up")
        self.cloud.misbehave(firehose={"action": "refuse", "count": 1})
        self.device.send("usage.epg", {"number": -1, "text": "x" * 100})
        self.device.wait_for_error("kivUpload: Event upload failed")
        self.fill()
        for number in range(30):
            self.device.send("usage.epg", {"number": number, "text": "x" * 1000})
        self.device.wait_for_error(
            "kivDB: SQL error (insert event): database or disk is full")
        (bucket, key), content = wait_until(
            lambda: self.device.alive() and self.cloud.objects(), "the report").popitem()
        self.assertEqual(bucket, "norvane-ddump")
        date = time.strftime("%Y-%m-%d", time.gmtime())
        self.assertEqual(key, f"kiv-test/E2E/kivApp_databasefull_{DEVICE}_{date}.log")
        self.assertEqual(content, self.listing)

        self.device.send("usage.epg", {"number": 98, "text": "x" * 5000})
        error, = self.wait_for_events(1, "db.error")
        self.assertEqual((error["eventid"], error["error-msg"]), (215, "database or disk is full"))

        with self.store() as store:
            store.execute("DROP TABLE Filler")
            store.commit()
        self.device.send("usage.epg", {"number": 99, "text": "x" * 1000})
        wait_until(lambda: any(event.get("data", {}).get("number") == 99
                               for event in self.device.stored_events()), "the next event")
        self.assertEqual(len(self.cloud.objects()), 1)
        self.assertEqual(len(self.cloud.events("db.error")), 1)
        self.assertEqual(self.device.integrity(), "ok")
        stored = [event["data"]["number"] for event in self.device.stored_events()
                  if event["event-type"] == "usage.epg"]
        self.assertEqual(stored[0], -1)  # what was there before is there still
        self.restart(2, 1)
        wait_until(lambda: {event["number"] for event in self.cloud.events("usage.epg")}
                   == set(stored), "all that was stored")


class UnusableDatabaseTest(WholeProgramTest):
    def settle(self):
        """Everything into the one file, as after a clean end."""
        with contextlib.closing(sqlite3.connect(self.device.database)) as store:
            store.execute("PRAGMA wal_checkpoint(TRUNCATE)")

    #: A page of zeros costs the events that stood on it; the file is put aside and the rest stays.
    def test_damaged_page_costs_what_stood_on_it(self):
        self.start_with_consent()
        self.cloud.misbehave(firehose="refuse")
        for number in range(100):
            self.device.send("usage.epg", {"number": number, "text": "x" * 300}, sync=number == 99)
        wait_until(lambda: len(self.device.stored_events()) == 100, "all events")
        token = self.device.db_token()
        self.device.stop()
        self.settle()
        with open(self.device.database, "r+b") as file:
            file.seek(20 * 4096)
            file.write(bytes(4096))
        self.device.start()
        self.device.wait_for_error("kivDB: Damaged database replaced, carried over: ")
        self.device.send("usage.epg", {"number": 100})
        def numbers():
            return [event["data"]["number"] for event in self.device.stored_events()
                    if event["event-type"] == "usage.epg"]
        stored = wait_until(lambda: 100 in numbers() and numbers(), "the next event")
        self.assertGreater(len(stored), 80)
        self.assertEqual(self.device.integrity(), "ok")
        self.assertEqual(self.device.db_token(), token)
        self.assertTrue(self.device.database.with_name("Db.damaged").exists())

    #: Another process that reads for long delays nothing.
    def test_reader_delays_nothing(self):
        self.start_with_consent()
        self.device.send("usage.epg", {"number": 0, "text": "x" * 100})
        self.wait_for_events(1, "usage.epg")
        with contextlib.closing(sqlite3.connect(self.device.database)) as reader:
            reader.execute("BEGIN")
            reader.execute("SELECT COUNT(*) FROM Events").fetchall()
            for number in range(1, 4):
                self.device.send("usage.epg", {"number": number, "text": "x" * 100})
                self.wait_for_events(number + 1, "usage.epg")
        self.assertNotIn("database is locked", self.device.err())

    #: A writer that holds its lock for seconds costs no event.
    def test_writer_that_holds_its_lock_costs_no_event(self):
        self.start_with_consent()
        wait_until(lambda: self.device.query("SELECT COUNT(*) FROM TimeOffsets") == [(1,)],
                   "the end of the start-up")
        with contextlib.closing(sqlite3.connect(self.device.database, timeout=10)) as writer:
            writer.isolation_level = None
            writer.execute("BEGIN IMMEDIATE")
            for number in range(50):
                self.device.send("usage.epg", {"number": number}, sync=False)
            self.device.wait_for_error("kivDB: SQL error (begin transaction): database is locked")
            writer.execute("ROLLBACK")
        self.wait_for_events(50, "usage.epg")
        self.assertEqual([event["number"] for event in self.cloud.events("usage.epg")],
                         list(range(50)))

    #: A file that is not a database is made anew with a new identity.
    def test_file_that_is_no_database_is_made_anew_with_a_new_identity(self):
        self.start_with_consent()
        tokens = {self.device.db_token()}
        for boot, junk in enumerate((b"no database" * 1000, os.urandom(8192)), start=2):
            self.device.stop()
            self.settle()
            self.device.database.write_bytes(junk)
            self.restart(boot, 1)
            self.device.send("usage.epg", {"text": "x" * 100})
            self.wait_for_events(boot - 1, "usage.epg")
            self.device.wait_for_error("kivDB: SQL error (max_page_count): ")
            tokens.add(self.device.db_token())
        self.assertEqual(len(tokens), 3)
        self.assertEqual(self.device.query("PRAGMA user_version"), [(2,)])

    #: A database of version 1 keeps its rows and gains the column.
    def test_database_of_version_1_keeps_its_rows_and_gains_the_column(self):
        with contextlib.closing(sqlite3.connect(self.device.database)) as store:
            store.executescript(
                "CREATE TABLE Files(id TEXT PRIMARY KEY, url TEXT, status INT, retries INT, "
                "lastfail INT); CREATE TABLE Events(bootCount INT, standbyCount INT, "
                "kernelTime INT, type TEXT, status INT, data BLOB); PRAGMA user_version=1; "
                "INSERT INTO Events VALUES (1,1,5,'usage.epg',0,'{\"event-type\": \"usage.epg\", "
                "\"boot-count\": 1, \"standby-count\": 1, \"kernel-time\": 5, \"data\": {\"text\": "
                f"\"{'x' * 100}\"}}}}');")
        self.start_with_consent()
        self.device.send("usage.epg", {"text": "x" * 100})
        old, _ = self.wait_for_events(2, "usage.epg")
        self.assertEqual(old["ts"], 5)
        self.assertIn("info", [row[1] for row in self.device.query("PRAGMA table_info(Files)")])
        self.assertEqual(self.device.query("PRAGMA user_version"), [(2,)])

    #: Rows that are not events do not harm the daemon.
    def test_rows_that_are_no_events_do_not_harm_the_daemon(self):
        self.start_with_consent()
        self.device.stop()
        with contextlib.closing(sqlite3.connect(self.device.database)) as store:
            for data in ("not JSON", "[1]", "17", "{}", '{"boot-count": "x", "data": [1]}', None):
                store.execute("INSERT INTO Events VALUES (1,1,1,'junk',0,?)", (data,))
                store.execute("INSERT INTO Events VALUES ('a',NULL,1.5,x'00',NULL,?)", (data,))
            store.execute("INSERT INTO TimeOffsets VALUES (NULL,'x',9,'y',NULL)")
            store.execute("INSERT INTO OpTimes VALUES ('x',NULL,'y')")
            store.execute("INSERT INTO Location VALUES (1,'a','b',NULL,NULL,NULL,NULL)")
            store.commit()
        self.device.start()
        for _ in range(3):
            self.device.send("usage.epg", {"text": "x" * 100})
            self.device.alive()
        self.assertEqual(self.device.integrity(), "ok")


if __name__ == "__main__":
    unittest.main()
