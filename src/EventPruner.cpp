#include "EventPruner.h"

#include "EventType.h"
#include "SqlConnection.h"
#include "SqlStatement.h"
#include "TimeReference.h"

#include <algorithm>
#include <tuple>

#include <sqlite3.h>

bool EventPruner::Moment::operator<(const Moment& other) const {
    return std::tie(cycle, kernelTime) < std::tie(other.cycle, other.kernelTime);
}

EventPruner::EventPruner(const SqlConnection& connection, long total, long limit) {
    SqlStatement events = connection.prepare(
        "SELECT ROWID,length(data),bootCount,standbyCount,kernelTime FROM Events "
        "ORDER BY bootCount,standbyCount,kernelTime");
    while (total - m_freed > limit && events.step() == SQLITE_ROW) take(events);
    takeOverRanges(connection);
}

void EventPruner::take(const SqlStatement& event) {
    m_range.highest = {Cycle(event.columnInt64(2), event.columnInt64(3)), event.columnInt64(4)};
    if (m_rows.empty()) m_range.lowest = m_range.highest;
    m_rows.push_back(event.columnInt64(0));
    m_freed += static_cast<long>(event.columnInt64(1) + 1);
}

void EventPruner::takeOverRanges(const SqlConnection& connection) {
    if (m_rows.empty()) return;
    // There are few overflow events, and mostly far more rows are selected.
    SqlStatement events = connection.prepare("SELECT ROWID,data FROM Events WHERE type=?");
    events.bind(1, std::string(overflowType()));
    while (events.step() == SQLITE_ROW) {
        const std::int64_t row = events.columnInt64(0);
        if (std::find(m_rows.begin(), m_rows.end(), row) == m_rows.end()) continue;
        const JsonObject range = JsonObject::parse(events.columnText(1)).getObject("data");
        const Cycle cycle(range.optInteger("highest-boot-count", 0),
                          range.optInteger("highest-standby-count", 0));
        const Moment named = {cycle, range.optInteger("highest-kernel-time", 0)};
        m_range.highest = std::max(m_range.highest, named);
    }
}

JsonObject EventPruner::overflowEvent(const Range& range) {
    const Moment& lowest = range.lowest;
    const Moment& highest = range.highest;
    JsonObject data;
    data.Pack("{s:i, s:i, s:I, s:i, s:i, s:I}",                                  //
              "lowest-boot-count", int{lowest.cycle.bootCount},                  //
              "lowest-standby-count", int{lowest.cycle.standbyCount},            //
              "lowest-kernel-time", static_cast<json_int_t>(lowest.kernelTime),  //
              "highest-boot-count", int{highest.cycle.bootCount},                //
              "highest-standby-count", int{highest.cycle.standbyCount},          //
              "highest-kernel-time", static_cast<json_int_t>(highest.kernelTime));
    JsonObject event;
    event.Pack("{s:s, s:i, s:i, s:i, s:I, s:O}",                                //
               "event-type", overflowType(),                                    //
               "eventid", static_cast<int>(EventType(overflowType()).getId()),  //
               "boot-count", int{lowest.cycle.bootCount},                       //
               "standby-count", int{lowest.cycle.standbyCount},                 //
               "kernel-time", static_cast<json_int_t>(lowest.kernelTime),       //
               "data", data.get());
    return event;
}

std::vector<std::int64_t> EventPruner::rowsOfForgottenCycles(const SqlConnection& connection,
                                                             const std::string& table) {
    const Cycle newest = newestCycle(connection, table);
    const TimeReference now;
    // After the boot count was reset, other cycles of the table have higher counts than this one.
    const Cycle running(now.bootCount, now.standbyCount);
    std::vector<std::int64_t> rows;
    SqlStatement cycles = connection.prepare("SELECT ROWID, bootcount, standbycount FROM " + table);
    SqlStatement probe =
        connection.prepare("SELECT ROWID FROM Events WHERE bootCount=? AND standbyCount=? LIMIT 1");
    while (cycles.step() == SQLITE_ROW) {
        const Cycle cycle(cycles.columnInt64(1), cycles.columnInt64(2));
        if (cycle == newest || cycle == running) continue;
        probe.bind(1, std::int64_t{cycle.bootCount});
        probe.bind(2, std::int64_t{cycle.standbyCount});
        // Only a sure "none" counts: a probe that fails must not cost a cycle its start time.
        if (probe.step() == SQLITE_DONE) rows.push_back(cycles.columnInt64(0));
        probe.resetAndClear();
    }
    return rows;
}

Cycle EventPruner::newestCycle(const SqlConnection& connection, const std::string& table) {
    SqlStatement maxBoot = connection.prepare("SELECT MAX(bootcount) FROM " + table);
    const std::int64_t boot = maxBoot.step() == SQLITE_ROW ? maxBoot.columnInt64(0) : 0;
    SqlStatement maxStandby =
        connection.prepare("SELECT MAX(standbycount) FROM " + table + " WHERE bootcount=?");
    maxStandby.bind(1, boot);
    const std::int64_t standby = maxStandby.step() == SQLITE_ROW ? maxStandby.columnInt64(0) : 0;
    return {boot, standby};
}
