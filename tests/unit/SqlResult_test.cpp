#include "SqlResult.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

namespace {

/// A store that fails now may work later: full, locked, unreadable, unwritable, damaged.
TEST(SqlResult, WhatTheStoreFailsForMayPass) {
    for (const int code :
         {SQLITE_FULL, SQLITE_BUSY, SQLITE_LOCKED, SQLITE_IOERR, SQLITE_READONLY, SQLITE_CANTOPEN,
          SQLITE_NOMEM, SQLITE_CORRUPT, SQLITE_NOTADB, SQLITE_PERM, SQLITE_PROTOCOL,
          SQLITE_IOERR_WRITE, SQLITE_IOERR_SHMMAP, SQLITE_BUSY_SNAPSHOT, SQLITE_READONLY_DBMOVED,
          SQLITE_CANTOPEN_SYMLINK, SQLITE_CORRUPT_INDEX}) {
        EXPECT_TRUE(SqlResult::mayPass(code)) << code;
    }
}

/// What is wrong with the statement itself fails again.
TEST(SqlResult, WhatTheStatementFailsForDoesNotPass) {
    for (const int code :
         {SQLITE_OK, SQLITE_ERROR, SQLITE_INTERNAL, SQLITE_ABORT, SQLITE_INTERRUPT, SQLITE_NOTFOUND,
          SQLITE_EMPTY, SQLITE_SCHEMA, SQLITE_TOOBIG, SQLITE_CONSTRAINT, SQLITE_MISMATCH,
          SQLITE_MISUSE, SQLITE_NOLFS, SQLITE_AUTH, SQLITE_FORMAT, SQLITE_RANGE, SQLITE_ROW,
          SQLITE_DONE, SQLITE_CONSTRAINT_UNIQUE}) {
        EXPECT_FALSE(SqlResult::mayPass(code)) << code;
    }
}

/// Only a malformed file, and one that is not a database, are damaged.
TEST(SqlResult, KnowsDamage) {
    for (int code = 0; code <= SQLITE_DONE; ++code) {
        const bool damage = code == SQLITE_CORRUPT || code == SQLITE_NOTADB;
        EXPECT_EQ(SqlResult::isDamage(code), damage) << code;
    }
    EXPECT_TRUE(SqlResult::isDamage(SQLITE_CORRUPT_SEQUENCE));
}

/// Another connection may do better where this one lost its hold on the file, not where the store
/// is full or somebody holds a lock.
TEST(SqlResult, KnowsWhenAnotherConnectionMayDoBetter) {
    for (const int code : {SQLITE_IOERR, SQLITE_READONLY, SQLITE_CANTOPEN, SQLITE_PERM,
                           SQLITE_PROTOCOL, SQLITE_IOERR_FSYNC}) {
        EXPECT_TRUE(SqlResult::asksForAnotherConnection(code)) << code;
    }
    for (const int code : {SQLITE_OK, SQLITE_FULL, SQLITE_BUSY, SQLITE_LOCKED, SQLITE_NOMEM,
                           SQLITE_CORRUPT, SQLITE_NOTADB, SQLITE_ERROR, SQLITE_DONE}) {
        EXPECT_FALSE(SqlResult::asksForAnotherConnection(code)) << code;
    }
}

}  // namespace
