#pragma once

#include <string>
#include <vector>

#include <cstdint>

#include "Cycle.h"
#include "JsonObject.h"

class SqlConnection;
class SqlStatement;

/// Chooses what pruning removes from the event store and describes the "logging.overflow" event
/// that takes its place. It only reads; `EventTable` runs the transactions. A short-lived value,
/// used under the prune lock on the connection of its table.
class EventPruner {
  public:
    /// The stored order of events.
    struct Moment {
        Cycle cycle;
        std::int64_t kernelTime = 0;  ///< milliseconds
        bool operator<(const Moment& other) const;
    };

    /// From the lowest to the highest moment of lost events, both included.
    struct Range {
        Moment lowest;
        Moment highest;
    };

    /// Selects the oldest events, as many as bring `total` bytes to at most `limit`. Statements
    /// that fail select nothing, as on a connection that is not open.
    EventPruner(const SqlConnection& connection, long total, long limit);

    /// The ROWIDs of the selected events, oldest first.
    const std::vector<std::int64_t>& rows() const { return m_rows; }
    /// The bytes that deleting them frees.
    long freed() const { return m_freed; }
    /// The moment of the oldest one, which becomes that of the overflow event.
    const Moment& lowest() const { return m_range.lowest; }
    /// The event that names the range of the selected ones; ranges that pruned overflow events
    /// among them name are handed on.
    JsonObject overflowEvent() const { return overflowEvent(m_range); }

    /// The event that names `range` and stands at its lowest moment.
    static JsonObject overflowEvent(const Range& range);
    static const char* overflowType() { return "logging.overflow"; }

    /// The rows of a per-cycle table that belong to a cycle without stored events, except those
    /// of the table's newest and of the running cycle.
    static std::vector<std::int64_t> rowsOfForgottenCycles(const SqlConnection& connection,
                                                           const std::string& table);

  private:
    void take(const SqlStatement& event);
    void takeOverRanges(const SqlConnection& connection);
    static Cycle newestCycle(const SqlConnection& connection, const std::string& table);

    std::vector<std::int64_t> m_rows;
    long m_freed = 0;
    Range m_range;
};
