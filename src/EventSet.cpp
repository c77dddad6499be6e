#include "EventSet.h"

#include "SqlConnection.h"
#include "SqlStatement.h"

#include <algorithm>
#include <mutex>
#include <optional>
#include <set>

#include <sqlite3.h>

namespace {

constexpr const ClassLog& s_log = SqlConnection::m_log;

}  // namespace

struct EventSet::Cursor {
    SqlConnection connection;
    SqlStatement statement;  ///< after the connection, so that it is finalized before that closes
    bool open = false;
    bool active = false;
    std::set<std::int64_t> prunedRows;                    ///< guarded by Cursors::mutex
    std::optional<std::set<std::int64_t>> remainingRows;  ///< likewise; none: all remain

    bool stillHas(std::int64_t row) const {
        return prunedRows.count(row) == 0 && (!remainingRows || remainingRows->count(row) != 0);
    }
    void end() {
        statement = SqlStatement();
        connection.close();
        active = false;
    }
};

/// The cursors of all living sets.
struct EventSet::Cursors {
    std::mutex mutex;  ///< guards the list, and the two sets of every cursor; a leaf
    std::vector<std::weak_ptr<Cursor>> living;

    void add(const std::shared_ptr<Cursor>& cursor) {
        const std::lock_guard<std::mutex> lock(mutex);
        living.erase(std::remove_if(living.begin(), living.end(),
                                    [](const auto& known) { return known.expired(); }),
                     living.end());
        living.push_back(cursor);
    }
};

EventSet::Cursors& EventSet::cursors() {
    static Cursors all;
    return all;
}

EventSet::EventSet(const std::string& path, const std::string& query) {
    if (path.empty() || query.empty()) return;
    m_cursor = std::make_shared<Cursor>();
    cursors().add(m_cursor);
    open(path, query);
}

EventSet::~EventSet() = default;

void EventSet::open(const std::string& path, const std::string& query) {
    m_cursor->open =
        m_cursor->connection.open(path, SqlConnection::OnLock::Fail, SqlConnection::Purpose::Cursor)
            .empty();
    if (!m_cursor->open) return;
    m_cursor->statement = m_cursor->connection.prepare(query);
    m_cursor->active = m_cursor->statement.columnCount() == 2;
    if (!m_cursor->active) m_cursor->end();  // an open cursor keeps a damaged store in place
}

std::string EventSet::getNextAndMark() {
    std::string text;
    if (!isActive()) return text;
    const int result = m_cursor->statement.step();
    if (result == SQLITE_ROW) {
        mark(m_cursor->statement.columnInt64(0));
        text = m_cursor->statement.columnText(1);
    } else if (result == SQLITE_DONE || result == SQLITE_ERROR) {
        m_cursor->end();
        m_cursor->open = false;
    }
    return text;
}

void EventSet::mark(std::int64_t row) {
    m_marked.push_back(static_cast<long>(row));
    // Nothing can be deleted while the cursor reads: a deletion noted for this ROWID was that of
    // an earlier event, before the first step, and this row is a new one.
    const std::lock_guard<std::mutex> lock(cursors().mutex);
    m_cursor->prunedRows.erase(row);
}

void EventSet::unmarkLast() {
    if (!m_marked.empty()) {
        m_marked.pop_back();
    } else if (s_log.isVerbose()) {
        s_log.error("no event to remove");
    }
}

void EventSet::close() {
    if (isOpen()) m_cursor->end();
}

bool EventSet::isOpen() const {
    return m_cursor != nullptr && m_cursor->open;
}

bool EventSet::isActive() const {
    return m_cursor != nullptr && m_cursor->active;
}

void EventSet::rowsWerePruned(const std::vector<std::int64_t>& rows) {
    Cursors& all = cursors();
    const std::lock_guard<std::mutex> lock(all.mutex);
    for (const auto& living : all.living) {
        const std::shared_ptr<Cursor> cursor = living.lock();
        if (cursor != nullptr) cursor->prunedRows.insert(rows.begin(), rows.end());
    }
}

void EventSet::onlyTheseRowsRemain(const std::vector<std::int64_t>& rows) {
    Cursors& all = cursors();
    const std::lock_guard<std::mutex> lock(all.mutex);
    for (const auto& living : all.living) {
        const std::shared_ptr<Cursor> cursor = living.lock();
        if (cursor != nullptr) cursor->remainingRows.emplace(rows.begin(), rows.end());
    }
}

std::vector<long> EventSet::marksStillStored() const {
    std::vector<long> rows = m_marked;
    if (m_cursor == nullptr) return rows;
    const std::lock_guard<std::mutex> lock(cursors().mutex);
    rows.erase(std::remove_if(rows.begin(), rows.end(),
                              [this](long row) { return !m_cursor->stillHas(row); }),
               rows.end());
    return rows;
}
