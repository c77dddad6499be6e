#!/usr/bin/python3
"""storeloop.py DATABASE JOURNAL SYNCHRONOUS SEED: the least that any store does.

Inserts and deletes rows in transactions, without end, and prints each transaction once its COMMIT
has returned: "+N" for a row inserted, "-N" when row N and all before it are deleted.
"""
import contextlib
import random
import sqlite3
import sys
import time

ROWS = 40  # in the store; what is older is deleted
TEXT = "x" * 300


def loop(database, journal, synchronous, seed):
    dice = random.Random(seed)
    with contextlib.closing(sqlite3.connect(database, isolation_level=None)) as store:
        store.execute(f"PRAGMA journal_mode={journal}").fetchall()
        store.execute(f"PRAGMA synchronous={synchronous}")
        store.execute("CREATE TABLE IF NOT EXISTS Events(number INTEGER PRIMARY KEY, data TEXT)")
        number = int(seed) * 10**6  # never one that was there before
        while True:
            store.execute("BEGIN IMMEDIATE")
            first = number + 1
            for number in range(first, first + dice.randrange(1, 8)):
                store.execute("INSERT INTO Events VALUES(?, ?)", (number, TEXT))
            store.execute("COMMIT")
            print(*(f"+{new}" for new in range(first, number + 1)), flush=True)
            if dice.random() < 0.3:
                store.execute("DELETE FROM Events WHERE number <= ?", (number - ROWS,))
                print(f"-{number - ROWS}", flush=True)
            time.sleep(dice.uniform(0, 0.01))


def committed(lines):
    """(numbers inserted, greatest number deleted) that the loop has reported."""
    inserted, deleted = set(), 0
    for word in lines.split():
        if word[0] == "+":
            inserted.add(int(word))
        else:
            deleted = max(deleted, -int(word))
    return inserted, deleted


if __name__ == "__main__":
    loop(*sys.argv[1:])
