#include "SqlStatement.h"

#include <cstdint>
#include <limits>
#include <memory>
#include <string>
#include <utility>

#include <gtest/gtest.h>
#include <sqlite3.h>

namespace {

struct Close {
    void operator()(sqlite3* connection) const { sqlite3_close(connection); }
};

class SqlStatementTest : public ::testing::Test {
  protected:
    SqlStatementTest() {
        sqlite3* opened = nullptr;
        EXPECT_EQ(sqlite3_open(":memory:", &opened), SQLITE_OK);
        connection.reset(opened);
        run("CREATE TABLE T(a, b)");
    }

    void run(const std::string& sql) {
        EXPECT_EQ(SqlStatement(connection.get(), sql).step(), SQLITE_DONE) << sql;
    }

    std::unique_ptr<sqlite3, Close> connection;
};

/// A value goes from one row into another statement as it is, with its type.
TEST_F(SqlStatementTest, CarriesAValueOverWithItsType) {
    run("INSERT INTO T VALUES(1, 'text'), (2.5, NULL), (x'00ff', '')");
    SqlStatement rows(connection.get(), "SELECT a, b FROM T ORDER BY ROWID");
    const int types[][2] = {
        {SQLITE_INTEGER, SQLITE_TEXT}, {SQLITE_FLOAT, SQLITE_NULL}, {SQLITE_BLOB, SQLITE_TEXT}};
    for (const auto& expected : types) {
        ASSERT_EQ(rows.step(), SQLITE_ROW);
        SqlStatement copy(connection.get(), "SELECT ?1, ?2");
        copy.bindColumn(1, rows, 0);
        copy.bindColumn(2, rows, 1);
        ASSERT_EQ(copy.step(), SQLITE_ROW);
        for (int column = 0; column < 2; ++column) {
            EXPECT_EQ(rows.columnType(column), expected[column]);
            EXPECT_EQ(copy.columnType(column), expected[column]);
            EXPECT_EQ(copy.columnText(column), rows.columnText(column));
        }
    }
}

/// A text that was bound without a copy is stored as one that was copied; an empty one is not NULL.
TEST_F(SqlStatementTest, StoresABorrowedText) {
    SqlStatement insert(connection.get(), "INSERT INTO T VALUES(?1, ?2)");
    const std::string texts[] = {"it's", std::string("a\0b", 3), "", "caf\xc3\xa9"};
    for (const std::string& text : texts) {
        insert.bindBorrowed(1, text);
        insert.bind(2, text);
        EXPECT_EQ(insert.step(), SQLITE_DONE);
        insert.resetAndClear();
    }
    SqlStatement rows(connection.get(), "SELECT a, b, a IS b, typeof(a) FROM T ORDER BY ROWID");
    for (const std::string& text : texts) {
        ASSERT_EQ(rows.step(), SQLITE_ROW);
        EXPECT_EQ(rows.columnText(0), text);
        EXPECT_EQ(rows.columnInt64(2), 1);
        EXPECT_EQ(rows.columnText(3), "text");
    }
    SqlStatement().bindBorrowed(1, "nothing happens");
}

/// Bound values come back unaltered, quotes and NUL characters included.
TEST_F(SqlStatementTest, ReturnsWhatWasBound) {
    SqlStatement insert(connection.get(), "INSERT INTO T VALUES(?1, ?2)");
    ASSERT_TRUE(insert.isPrepared());
    insert.bind(1, std::numeric_limits<std::int64_t>::min());
    insert.bind(2, std::string("it's; DROP TABLE T"));
    EXPECT_EQ(insert.step(), SQLITE_DONE);
    insert.resetAndClear();
    insert.bind(1, 4.25);
    insert.bindNull(2);
    EXPECT_EQ(insert.step(), SQLITE_DONE);

    SqlStatement select(connection.get(), "SELECT a, b FROM T ORDER BY ROWID");
    EXPECT_EQ(select.columnCount(), 2);
    ASSERT_EQ(select.step(), SQLITE_ROW);
    EXPECT_EQ(select.columnInt64(0), std::numeric_limits<std::int64_t>::min());
    EXPECT_EQ(select.columnText(1), "it's; DROP TABLE T");
    EXPECT_FALSE(select.columnIsNull(1));
    ASSERT_EQ(select.step(), SQLITE_ROW);
    EXPECT_EQ(select.columnDouble(0), 4.25);
    EXPECT_TRUE(select.columnIsNull(1));
    EXPECT_EQ(select.columnText(1), "");
    EXPECT_EQ(select.step(), SQLITE_DONE);
}

/// Bound values come back unaltered, quotes and NUL characters included.
TEST_F(SqlStatementTest, CopiesTheTextItBinds) {
    SqlStatement insert(connection.get(), "INSERT INTO T VALUES(?1, 0)");
    {
        std::string text = "a text too long for the string's own buffer";
        insert.bind(1, text);
        text.assign(text.size(), 'x');
    }
    EXPECT_EQ(insert.step(), SQLITE_DONE);
    SqlStatement select(connection.get(), "SELECT a FROM T");
    ASSERT_EQ(select.step(), SQLITE_ROW);
    EXPECT_EQ(select.columnText(0), "a text too long for the string's own buffer");
}

/// Bound values come back unaltered, quotes and NUL characters included.
TEST_F(SqlStatementTest, KeepsNulCharactersInTexts) {
    SqlStatement insert(connection.get(), "INSERT INTO T VALUES(?1, 0)");
    insert.bind(1, std::string("a\0b", 3));
    EXPECT_EQ(insert.step(), SQLITE_DONE);
    SqlStatement select(connection.get(), "SELECT a FROM T");
    ASSERT_EQ(select.step(), SQLITE_ROW);
    EXPECT_EQ(select.columnText(0), std::string("a\0b", 3));
}

/// A reset forgets the bindings.
TEST_F(SqlStatementTest, ResetForgetsTheBindings) {
    SqlStatement probe(connection.get(), "SELECT ?1");
    probe.bind(1, std::int64_t{7});
    ASSERT_EQ(probe.step(), SQLITE_ROW);
    EXPECT_EQ(probe.columnInt64(0), 7);
    probe.resetAndClear();
    ASSERT_EQ(probe.step(), SQLITE_ROW);
    EXPECT_TRUE(probe.columnIsNull(0));
}

/// A statement that does not prepare does nothing.
TEST_F(SqlStatementTest, AStatementThatDoesNotPrepareIsInert) {
    SqlStatement broken(connection.get(), "SELECT a FROM Nowhere");
    SqlStatement withoutConnection(nullptr, "SELECT 1");
    SqlStatement empty;
    for (SqlStatement* statement : {&broken, &withoutConnection, &empty}) {
        EXPECT_FALSE(statement->isPrepared());
        EXPECT_EQ(statement->columnCount(), 0);
        statement->bind(1, std::int64_t{1});
        statement->bind(1, 1.0);
        statement->bind(1, std::string("x"));
        statement->bindNull(1);
        EXPECT_EQ(statement->step(), SQLITE_MISUSE);
        statement->resetAndClear();
        EXPECT_EQ(statement->columnInt64(0), 0);
        EXPECT_EQ(statement->columnDouble(0), 0.0);
        EXPECT_EQ(statement->columnText(0), "");
        EXPECT_TRUE(statement->columnIsNull(0));
    }
    EXPECT_STREQ(sqlite3_errmsg(connection.get()), "no such table: Nowhere");
}

/// It is finalized with its owner, also after a move.
TEST_F(SqlStatementTest, FinalizesWithItsOwnerAlsoAfterAMove) {
    {
        SqlStatement first(connection.get(), "SELECT 1");
        SqlStatement second(std::move(first));
        first = SqlStatement(connection.get(), "SELECT 2");
        EXPECT_EQ(second.step(), SQLITE_ROW);
        EXPECT_EQ(second.columnInt64(0), 1);
        EXPECT_NE(sqlite3_next_stmt(connection.get(), nullptr), nullptr);
    }
    EXPECT_EQ(sqlite3_next_stmt(connection.get(), nullptr), nullptr);
}

/// Each result code of a connection's statements passes its `Results`, which keep what is damage.
TEST_F(SqlStatementTest, ResultsKeepWhatIsDamage) {
    SqlStatement::Results results;
    for (const int code : {SQLITE_OK, SQLITE_ROW, SQLITE_DONE, SQLITE_ERROR, SQLITE_BUSY,
                           SQLITE_FULL, SQLITE_IOERR}) {
        EXPECT_EQ(results.note(code), code);
    }
    EXPECT_FALSE(results.foundDamage());
    for (const int code : {SQLITE_CORRUPT, SQLITE_NOTADB, SQLITE_CORRUPT_VTAB}) {
        SqlStatement::Results damaged;
        EXPECT_EQ(damaged.note(code), code);
        damaged.note(SQLITE_OK);
        EXPECT_TRUE(damaged.foundDamage()) << code;
    }
}

}  // namespace
