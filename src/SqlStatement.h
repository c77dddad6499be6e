#pragma once

#include <cstdint>
#include <memory>
#include <string>

struct sqlite3;
struct sqlite3_stmt;

/// One prepared SQLite statement, finalized with its owner. Not thread safe: used under the lock
/// of the connection's owner. Parameters and columns are numbered as SQLite does: parameters from
/// 1, columns from 0.
class SqlStatement {
  public:
    SqlStatement() = default;  ///< not prepared
    /// Prepares `sql` on `connection` (which may be null: then it is not prepared).
    SqlStatement(sqlite3* connection, const std::string& sql);

    bool isPrepared() const { return m_statement != nullptr; }
    int columnCount() const;

    void bind(int parameter, std::int64_t value);
    void bind(int parameter, double value);
    void bind(int parameter, const std::string& text);  ///< copied
    void bindNull(int parameter);

    /// SQLite's result code: SQLITE_ROW, SQLITE_DONE or an error (SQLITE_MISUSE when not prepared).
    int step();
    void resetAndClear();  ///< ready for new bindings

    std::int64_t columnInt64(int column) const;
    double columnDouble(int column) const;
    std::string columnText(int column) const;  ///< "" for NULL
    bool columnIsNull(int column) const;

  private:
    struct Finalize {
        void operator()(sqlite3_stmt* statement) const;
    };
    std::unique_ptr<sqlite3_stmt, Finalize> m_statement;
};
