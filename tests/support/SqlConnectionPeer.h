#pragma once

#include "SqlConnection.h"

/// What tests see of one `SqlConnection`.
struct SqlConnectionPeer {
    /// Borrowed; null when nothing is open.
    static sqlite3* handle(const SqlConnection& connection) { return connection.m_handle.get(); }
};
