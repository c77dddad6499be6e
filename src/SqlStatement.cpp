#include "SqlStatement.h"

#include "SqlFiles.h"
#include "SqlResult.h"

#include <cstddef>

#include <sqlite3.h>

void SqlStatement::Finalize::operator()(sqlite3_stmt* statement) const {
    sqlite3_finalize(statement);
}

int SqlStatement::Results::note(int code) {
    if (SqlResult::asksForAnotherConnection(code)) m_stuck = true;
    if (SqlResult::isDamage(code)) {
        m_damage = true;
        if (!m_file.empty()) SqlFiles::noteDamage(m_file);
    }
    return code;
}

SqlStatement::SqlStatement(sqlite3* connection, const std::string& sql, Results* results)
    : m_results(results) {
    if (connection == nullptr) return;
    sqlite3_stmt* statement = nullptr;
    noted(sqlite3_prepare_v2(connection, sql.c_str(), -1, &statement, nullptr));
    m_statement.reset(statement);
}

int SqlStatement::noted(int code) const {
    return m_results != nullptr ? m_results->note(code) : code;
}

int SqlStatement::columnCount() const {
    return isPrepared() ? sqlite3_column_count(m_statement.get()) : 0;
}

void SqlStatement::bind(int parameter, std::int64_t value) {
    if (isPrepared()) sqlite3_bind_int64(m_statement.get(), parameter, value);
}

void SqlStatement::bind(int parameter, double value) {
    if (isPrepared()) sqlite3_bind_double(m_statement.get(), parameter, value);
}

void SqlStatement::bind(int parameter, const std::string& text) {
    if (!isPrepared()) return;
    sqlite3_bind_text64(m_statement.get(), parameter, text.data(), text.size(), SQLITE_TRANSIENT,
                        SQLITE_UTF8);
}

void SqlStatement::bindBorrowed(int parameter, const std::string& text) {
    if (!isPrepared()) return;
    sqlite3_bind_text64(m_statement.get(), parameter, text.data(), text.size(), SQLITE_STATIC,
                        SQLITE_UTF8);
}

void SqlStatement::bindNull(int parameter) {
    if (isPrepared()) sqlite3_bind_null(m_statement.get(), parameter);
}

void SqlStatement::bindColumn(int parameter, const SqlStatement& row, int column) {
    if (!isPrepared() || !row.isPrepared()) return;
    sqlite3_bind_value(m_statement.get(), parameter,
                       sqlite3_column_value(row.m_statement.get(), column));
}

int SqlStatement::step() {
    return isPrepared() ? noted(sqlite3_step(m_statement.get())) : SQLITE_MISUSE;
}

void SqlStatement::resetAndClear() {
    if (!isPrepared()) return;
    sqlite3_reset(m_statement.get());
    sqlite3_clear_bindings(m_statement.get());
}

std::int64_t SqlStatement::columnInt64(int column) const {
    return isPrepared() ? sqlite3_column_int64(m_statement.get(), column) : 0;
}

double SqlStatement::columnDouble(int column) const {
    return isPrepared() ? sqlite3_column_double(m_statement.get(), column) : 0.0;
}

std::string SqlStatement::columnText(int column) const {
    if (!isPrepared()) return "";
    const unsigned char* text = sqlite3_column_text(m_statement.get(), column);
    if (text == nullptr) return "";
    const auto bytes = static_cast<std::size_t>(sqlite3_column_bytes(m_statement.get(), column));
    return std::string(reinterpret_cast<const char*>(text), bytes);
}

int SqlStatement::columnType(int column) const {
    return isPrepared() ? sqlite3_column_type(m_statement.get(), column) : SQLITE_NULL;
}

bool SqlStatement::columnIsNull(int column) const {
    return !isPrepared() || sqlite3_column_type(m_statement.get(), column) == SQLITE_NULL;
}
