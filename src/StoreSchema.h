#pragma once

#include <functional>
#include <optional>
#include <string>

#include <cstdint>

#include "SqlConnection.h"

/// The tables of the store and their version (`user_version` 2), on one connection: makes what is
/// missing and brings older files up to date. It keeps no rows and does not open the connection,
/// which must outlive it. A short-lived value, used under the lock of the connection's owner.
/// Failures are results and error lines.
class StoreSchema {
  public:
    static constexpr int kVersion = 2;

    explicit StoreSchema(SqlConnection& connection) : m_connection(connection) {}

    /// Sets the page limit: `maxBytes` in pages, rounded up.
    void limitPages(std::int32_t maxBytes);
    /// Looks through the whole file. @return what is wrong with it; "" when nothing is, and when it
    /// could not be read for another reason
    std::string findDamage();
    /// Makes the tables and sets the version. One transaction does both in a new or old file, so
    /// that of two who open a new file one makes it.
    /// @param onNewFile called in that transaction where the version was read and is 0
    /// @return false when it failed for a reason that may pass, or the file's tables lack columns
    /// and it is noted as damaged
    bool bringUpToDate(const std::function<void()>& onNewFile);
    /// Makes the tables of a file that nobody else uses, and sets the version.
    bool make();

  private:
    bool isReadOnlyByItsHeader() const;
    std::optional<int> readVersion();
    bool createTables();
    bool hasItsColumns();
    void migrate(int version, const std::function<void()>& onNewFile);
    void setVersion();

    SqlConnection& m_connection;
};
