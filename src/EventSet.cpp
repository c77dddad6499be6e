#include "EventSet.h"

#include "SqlConnection.h"
#include "SqlStatement.h"

#include <algorithm>
#include <mutex>
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
    std::set<std::int64_t> storedRows;  ///< handed out, and not gone since; Cursors::mutex
    void end() {
        statement = SqlStatement();
        connection.close();
        active = false;
    }
};

/// The cursors of all living sets.
struct EventSet::Cursors {
    std::mutex mutex;  ///< guards the list, and the rows of every cursor; a leaf
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
    const std::lock_guard<std::mutex> lock(cursors().mutex);
    m_cursor->storedRows.insert(row);
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
        if (cursor == nullptr) continue;
        for (const std::int64_t row : rows) cursor->storedRows.erase(row);
    }
}

void EventSet::onlyTheseRowsRemain(const std::vector<std::int64_t>& rows) {
    Cursors& all = cursors();
    const std::lock_guard<std::mutex> lock(all.mutex);
    for (const auto& living : all.living) {
        const std::shared_ptr<Cursor> cursor = living.lock();
        if (cursor == nullptr) continue;
        std::set<std::int64_t> remaining;
        for (const std::int64_t row : rows) {
            if (cursor->storedRows.count(row) != 0) remaining.insert(row);
        }
        cursor->storedRows.swap(remaining);
    }
}

std::vector<long> EventSet::marksStillStored() const {
    std::vector<long> rows = m_marked;
    if (m_cursor == nullptr) return rows;
    const std::lock_guard<std::mutex> lock(cursors().mutex);
    rows.erase(std::remove_if(rows.begin(), rows.end(),
                              [this](long row) { return m_cursor->storedRows.count(row) == 0; }),
               rows.end());
    return rows;
}
