#include "FilesTable.h"

#include "SqlConnection.h"
#include "SqlResult.h"
#include "SqlStatement.h"
#include "TimeReference.h"

#include <cstdio>

#include <sqlite3.h>

namespace {

constexpr const ClassLog& s_log = SqlConnection::m_log;

bool hasRow(const SqlConnection& connection, SqlStatement& query) {
    const int result = query.step();
    if (result != SQLITE_ROW && result != SQLITE_DONE) {
        s_log.error("Can't read from table Files: ", connection.lastError());
    }
    return result == SQLITE_ROW;
}

}  // namespace

int FilesTable::count() const {
    SqlStatement count = m_connection.prepare("SELECT COUNT(*) FROM Files");
    return hasRow(m_connection, count) ? static_cast<int>(count.columnInt64(0)) : 0;
}

std::unique_ptr<FilesTable::PendingUpload> FilesTable::first() const {
    SqlStatement first = m_connection.prepare(
        "SELECT id,url,status,retries,lastfail,info FROM Files "
        "ORDER BY lastfail LIMIT 1");
    if (!hasRow(m_connection, first)) return nullptr;
    auto upload = std::make_unique<PendingUpload>();
    upload->id = first.columnText(0);
    upload->url = first.columnText(1);
    upload->status = static_cast<int>(first.columnInt64(2));
    upload->retries = static_cast<int>(first.columnInt64(3));
    upload->lastfail = first.columnInt64(4);
    upload->info = first.columnText(5);
    return upload;
}

bool FilesTable::remove(const std::string& id) {
    SqlStatement removal = m_connection.prepare("DELETE FROM Files WHERE id=?");
    removal.bind(1, id);
    if (removal.step() == SQLITE_DONE) return true;
    s_log.error(" Can't delete from table Files : ", ClassLog::foreign(m_connection.lastError()));
    return false;
}

bool FilesTable::accepts(const Announcement& file) {
    if (file.info.size() > kLongestInfo) {
        s_log.error("File refused, its info has ", file.info.size(),
                    " bytes: ", ClassLog::foreign(file.id));
        return false;
    }
    if (file.bytes() > kMostBytes) {
        s_log.error("File refused, it takes ", file.bytes(),
                    " bytes: ", ClassLog::foreign(file.id));
        return false;
    }
    return true;
}

FilesTable::Outcome FilesTable::add(const Announcement& file) {
    if (!accepts(file)) return Outcome::Refused;
    // One that is known already fails by itself, and must not push out another.
    if (!isRoomFor(file.bytes()) && !has(file.id)) return exchange(file);
    const Outcome outcome = insert(file);
    return outcome == Outcome::Refused && has(file.id) ? Outcome::Registered : outcome;
}

/// Puts it in the place of the oldest ones.
FilesTable::Outcome FilesTable::exchange(const Announcement& file) {
    std::vector<std::string> dropped;
    SqlConnection::Transaction exchange(m_connection, "BEGIN IMMEDIATE TRANSACTION");
    if (!exchange.hasBegun() || !makeRoom(file.bytes(), dropped)) return outcomeOfFailure();
    const Outcome inserted = insert(file);
    if (inserted != Outcome::Registered) return inserted;
    if (!exchange.commit()) return outcomeOfFailure();
    for (const std::string& id : dropped) {
        s_log.error("Too many announced files: dropped ", ClassLog::foreign(id));
    }
    return Outcome::Registered;
}

FilesTable::Outcome FilesTable::outcomeOfFailure() const {
    const bool mayPass = !m_connection.isOpen() || SqlResult::mayPass(m_connection.lastErrorCode());
    return mayPass ? Outcome::NotNow : Outcome::Refused;
}

FilesTable::Outcome FilesTable::insert(const Announcement& file) {
    SqlStatement insert = m_connection.prepare(
        "INSERT INTO Files (id, url, status, retries, lastfail, info) "
        "VALUES (?1, ?2, ?3, ?3, ?4, ?5)");
    insert.bind(1, file.id);
    insert.bind(2, file.url);
    insert.bind(3, std::int64_t{0});
    insert.bind(4, std::int64_t{0});
    if (file.info.empty()) {
        insert.bindNull(5);
    } else {
        insert.bind(5, file.info);
    }
    if (insert.step() == SQLITE_DONE) return Outcome::Registered;
    const Outcome outcome = outcomeOfFailure();
    if (outcome == Outcome::Refused && isMissing()) return Outcome::NotNow;
    if (outcome == Outcome::Refused) {
        std::fprintf(stderr, "%s Can't Insert into table Files\n", s_log.tag());
    }
    return outcome;
}

/// Whether the table itself is not there; the next opening makes it.
bool FilesTable::isMissing() {
    if (m_connection.prepare("SELECT ROWID FROM Files").isPrepared()) return false;
    m_connection.askForAnother();
    return true;
}

bool FilesTable::isGone(const std::string& id) const {
    SqlStatement same = m_connection.prepare("SELECT 1 FROM Files WHERE id=?");
    same.bind(1, id);
    return same.step() == SQLITE_DONE;
}

bool FilesTable::has(const std::string& id) const {
    SqlStatement same = m_connection.prepare("SELECT 1 FROM Files WHERE id=?");
    same.bind(1, id);
    return same.step() == SQLITE_ROW;
}

bool FilesTable::makeRoom(std::size_t bytes, std::vector<std::string>& dropped) {
    while (!isRoomFor(bytes)) {
        if (!dropOldest(dropped)) return false;
    }
    return true;
}

/// Also where that cannot be read: the insert will tell why.
bool FilesTable::isRoomFor(std::size_t bytes) const {
    SqlStatement sums = m_connection.prepare(
        "SELECT COUNT(*), SUM(LENGTH(CAST(id AS BLOB)) + LENGTH(CAST(url AS BLOB)) + "
        "IFNULL(LENGTH(CAST(info AS BLOB)), 0)) FROM Files");
    if (sums.step() != SQLITE_ROW) return true;
    return sums.columnInt64(0) < static_cast<std::int64_t>(kMostRows) &&
           sums.columnInt64(1) + static_cast<std::int64_t>(bytes) <=
               static_cast<std::int64_t>(kMostBytes);
}

/// ROWIDs grow with each announcement: the lowest is that of the first one.
bool FilesTable::dropOldest(std::vector<std::string>& dropped) {
    SqlStatement oldest = m_connection.prepare("SELECT ROWID,id FROM Files ORDER BY ROWID LIMIT 1");
    if (oldest.step() != SQLITE_ROW) return false;
    const std::int64_t row = oldest.columnInt64(0);
    const std::string id = oldest.columnText(1);
    oldest = SqlStatement();
    SqlStatement removal = m_connection.prepare("DELETE FROM Files WHERE ROWID=?");
    removal.bind(1, row);
    if (removal.step() != SQLITE_DONE) {
        s_log.error(" Can't delete from table Files : ",
                    ClassLog::foreign(m_connection.lastError()));
        return false;
    }
    dropped.push_back(id);
    return true;
}

void FilesTable::countFailure(const std::string& id) {
    const TimeReference now;
    SqlStatement update =
        m_connection.prepare("UPDATE Files SET retries=retries+1, lastfail=?1 WHERE id=?2");
    update.bind(1, std::int64_t{now.kernelTime});
    update.bind(2, id);
    if (update.step() == SQLITE_DONE) return;
    s_log.error(" Can't update table Files : ", ClassLog::foreign(m_connection.lastError()));
}
