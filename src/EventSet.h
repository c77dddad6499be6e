#pragma once

#include <memory>
#include <string>
#include <vector>

#include "SqlStatement.h"

struct sqlite3;

/// A cursor over stored events, oldest first, on a database connection of its own; reached as
/// `DB::EventSet`. It remembers the ROWID of every event it handed out. Copies share the cursor
/// and have marks of their own; the connection closes with `close`, at the end of the rows, or
/// with the last copy. For one thread at a time.
class EventSet {
  public:
    /// Opens `path` and prepares `query`, which must yield ROWID and data. Anything that fails,
    /// also an empty path or query, leaves the set inactive.
    EventSet(const std::string& path, const std::string& query);
    ~EventSet();
    EventSet(const EventSet&) = default;
    EventSet& operator=(const EventSet&) = default;

    /// The next event's text, after marking its row; "" when there is none, or when the step met
    /// a busy database (then the set stays active and the call may be repeated).
    std::string getNextAndMark();
    /// Takes back the last mark.
    void unmarkLast();
    /// Ends the query.
    void close();
    /// The marked rows, in the order handed out.
    std::vector<long>& getReturnedRows() { return m_marked; }

    bool isOpen() const { return m_open; }
    bool isActive() const { return m_active; }

  private:
    void end();

    std::vector<long> m_marked;
    std::shared_ptr<sqlite3> m_connection;
    std::shared_ptr<SqlStatement>
        m_statement;  ///< declared behind, so finalized before, the connection
    int m_openResult = 0;
    bool m_open = false;
    bool m_active = false;
};
