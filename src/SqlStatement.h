#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>

struct sqlite3;
struct sqlite3_stmt;

/// One prepared SQLite statement, finalized with its owner. Not thread safe: used under the lock
/// of the connection's owner. Parameters and columns are numbered as SQLite does: parameters from
/// 1, columns from 0.
class SqlStatement {
  public:
    /// What the result codes of one connection's statements have told. Each code passes here.
    /// Threads as for the connection.
    class Results {
      public:
        Results() = default;
        /// @param file what `SqlFiles` learns of damage under; "": nothing
        explicit Results(std::string file) : m_file(std::move(file)) {}

        /// @return `code`
        int note(int code);
        /// Whether a statement found that the file is damaged or is not a database.
        bool foundDamage() const { return m_damage; }
        /// Whether a statement failed that may work on another connection to the same file.
        bool askForAnotherConnection() const { return m_stuck; }
        void askForAnother() { m_stuck = true; }

      private:
        std::string m_file;
        bool m_damage = false;
        bool m_stuck = false;
    };

    SqlStatement() = default;  ///< not prepared
    /// Prepares `sql` on `connection` (which may be null: then it is not prepared).
    /// @param results learns SQLite's result codes; null or outliving the statement
    SqlStatement(sqlite3* connection, const std::string& sql, Results* results = nullptr);

    bool isPrepared() const { return m_statement != nullptr; }
    int columnCount() const;

    void bind(int parameter, std::int64_t value);
    void bind(int parameter, double value);
    void bind(int parameter, const std::string& text);  ///< copied
    /// Not copied: it must stay as it is until `resetAndClear`.
    void bindBorrowed(int parameter, const std::string& text);
    void bindNull(int parameter);
    /// Binds the value of a column of `row`, of whatever type.
    void bindColumn(int parameter, const SqlStatement& row, int column);

    /// SQLite's result code: SQLITE_ROW, SQLITE_DONE or an error (SQLITE_MISUSE when not prepared).
    int step();
    void resetAndClear();  ///< ready for new bindings

    std::int64_t columnInt64(int column) const;
    double columnDouble(int column) const;
    std::string columnText(int column) const;  ///< "" for NULL
    int columnType(int column) const;          ///< SQLITE_INTEGER and so on, as stored
    bool columnIsNull(int column) const;

  private:
    struct Finalize {
        void operator()(sqlite3_stmt* statement) const;
    };

    int noted(int code) const;

    std::unique_ptr<sqlite3_stmt, Finalize> m_statement;
    Results* m_results = nullptr;  ///< borrowed from the connection
};
