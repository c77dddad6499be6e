#pragma once

#include <chrono>
#include <cstdint>

#include "DB.h"

/// What tests see of, and do to, one `DB`.
struct DBPeer {
    /// Borrowed; null when nothing is open.
    static sqlite3* connection(DB& db) { return db.m_connection.get(); }
    static void setMaxDatabaseSize(DB& db, std::int32_t bytes) { db.m_maxDatabaseSize = bytes; }
    static void setPruneSizes(DB& db, std::int32_t threshold, std::int32_t target) {
        db.m_pruneThreshold = threshold;
        db.m_pruneTarget = target;
    }
    /// When another process's lock began to hold batches up.
    static void setBusySince(DB& db, std::chrono::steady_clock::time_point since) {
        db.m_busySince = since;
    }
    static void waitForPruners(DB& db) { db.m_pruners.waitForAll(); }
    static void callback(const char* prefix, int columns, char** values, char** names) {
        DB::execCallback(const_cast<char*>(prefix), columns, values, names);
    }
};
