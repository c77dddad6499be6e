#pragma once

#include <chrono>
#include <mutex>

#include <cstdint>

#include <sqlite3.h>

#include "DB.h"
#include "support/EventTablePeer.h"
#include "support/SqlConnectionPeer.h"

/// What tests see of, and do to, one `DB`.
struct DBPeer {
    static SqlConnection& sql(DB& db) { return db.m_connection; }
    /// Borrowed; null when nothing is open.
    static sqlite3* connection(DB& db) { return SqlConnectionPeer::handle(db.m_connection); }
    static void setMaxDatabaseSize(DB& db, std::int32_t bytes) { db.m_maxDatabaseSize = bytes; }
    static void setPruneSizes(DB& db, std::int32_t threshold, std::int32_t target) {
        EventTablePeer::setPruneSizes(db.m_events, threshold, target);
    }
    /// As if the last opening, or the last attempt at it, lay that long ago.
    static void letTimePassSinceOpening(DB& db, std::chrono::steady_clock::duration time) {
        const std::lock_guard<std::recursive_mutex> lock(DB::m_PruneLock);
        db.m_openedLast -= time;
    }
    static void forgetDamage() {
        DB::m_damageUnreported = false;
        DB::m_hasUncommittedIdentity = false;
    }
    /// Lets triggers run, which the store's own settings forbid.
    static void allowTriggers(DB& db) {
        sqlite3_db_config(connection(db), SQLITE_DBCONFIG_ENABLE_TRIGGER, 1, nullptr);
    }
    static void waitForPruners(DB& db) { db.m_events.waitForPruners(); }
};
