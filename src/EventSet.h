#pragma once

#include <memory>
#include <string>
#include <vector>

#include <cstdint>

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

    /// Whether the connection was opened and the rows have not run out; `close` leaves it set.
    bool isOpen() const;
    /// Whether rows may still be read.
    bool isActive() const;

  private:
    friend class DB;
    friend class EventTable;

    struct Cursor;
    struct Cursors;

    static Cursors& cursors();
    /// Tells every living set that pruning deleted `rows`. Marks of these no longer count: SQLite
    /// may give their ROWIDs to new events. A set remembers only rows that it handed out.
    static void rowsWerePruned(const std::vector<std::int64_t>& rows);
    /// Tells every living set that the store was replaced by one that has only these rows of it.
    static void onlyTheseRowsRemain(const std::vector<std::int64_t>& rows);
    /// The marked rows without those that pruning, or damage, took since they were handed out.
    std::vector<long> marksStillStored() const;
    void open(const std::string& path, const std::string& query);
    void mark(std::int64_t row);

    std::vector<long> m_marked;
    std::shared_ptr<Cursor> m_cursor;  ///< null for an empty path or query
};
