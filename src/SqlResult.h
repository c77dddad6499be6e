#pragma once

/// What SQLite's result codes mean for what was to be done. Values only; extended codes count as
/// their primary ones.
class SqlResult {
  public:
    /// Whether the same statement may work later: the store fails at the moment (full, locked, not
    /// readable or writable, short of memory, damaged), not the statement.
    static bool mayPass(int code);
    /// Whether the file is damaged, or is not a database.
    static bool isDamage(int code);
    /// Whether the connection itself may be the cause, so that another one may do better: it was
    /// opened while the file could not be written, or lost its hold on the file.
    static bool asksForAnotherConnection(int code);
};
