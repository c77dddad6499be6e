#pragma once

#include <chrono>

#include <cstdint>

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
    /// When another process's lock began to hold batches up.
    static void setBusySince(DB& db, std::chrono::steady_clock::time_point since) {
        EventTablePeer::setBusySince(db.m_events, since);
    }
    static void waitForPruners(DB& db) { db.m_events.waitForPruners(); }
};
