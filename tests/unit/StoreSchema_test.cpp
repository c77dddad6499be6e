#include "StoreSchema.h"

#include <algorithm>
#include <string>

#include "support/StoreTest.h"

namespace {

class StoreSchemaTest : public StoreTest {
  protected:
    void SetUp() override {
        StoreTest::SetUp();
        open(connection);
    }
    void open(SqlConnection& which) {
        ASSERT_EQ(which.open(path, SqlConnection::OnLock::Fail), "");
    }
    bool bringUpToDate(SqlConnection& which) {
        return StoreSchema(which).bringUpToDate([this] { ++newFiles; });
    }

    SqlConnection connection;
    int newFiles = 0;
};

/// A new file is told of once, and has all tables and the version together.
TEST_F(StoreSchemaTest, ANewFileIsToldOfOnce) {
    SqlConnection other;
    open(other);
    EXPECT_TRUE(bringUpToDate(connection));
    EXPECT_TRUE(bringUpToDate(other));
    EXPECT_EQ(newFiles, 1);
    EXPECT_EQ(value("SELECT COUNT(*) FROM sqlite_master WHERE type='table'"), "5");
    EXPECT_EQ(value("PRAGMA user_version"), "2");
}

/// Of two who make the file at the same time one makes it; the other tries again.
TEST_F(StoreSchemaTest, OfTwoWhoMakeTheFileOneDoes) {
    PlainDatabase other(path);
    other.run("BEGIN IMMEDIATE");
    OutputCapture capture;
    EXPECT_FALSE(bringUpToDate(connection));
    capture.stop();
    EXPECT_EQ(newFiles, 0);
    EXPECT_EQ(capture.errWithoutPrefixes(),
              "kivDB: SQL error (begin transaction): database is locked\n");
    EXPECT_FALSE(DB::m_dbError) << "a failure at the opening is only told";
    other.run("PRAGMA user_version=2; COMMIT");
    EXPECT_TRUE(bringUpToDate(connection));
    EXPECT_EQ(newFiles, 0);
    EXPECT_EQ(value("SELECT COUNT(*) FROM sqlite_master WHERE type='table'"), "5");
}

/// A version that cannot be read changes nothing.
TEST_F(StoreSchemaTest, AVersionThatCannotBeReadChangesNothing) {
    connection.close();
    OutputCapture capture;
    EXPECT_FALSE(bringUpToDate(connection));
    capture.stop();
    EXPECT_EQ(newFiles, 0);
    EXPECT_NE(capture.errWithoutPrefixes().find("kivDB: SQL error (user_version): "),
              std::string::npos);
}

/// Where the making of a table fails for a reason that may pass, nothing of it stays.
TEST_F(StoreSchemaTest, AFullFileKeepsNothingOfIt) {
    connection.execute("PRAGMA max_page_count=4", "");
    OutputCapture capture;
    EXPECT_FALSE(bringUpToDate(connection));
    capture.stop();
    EXPECT_EQ(value("SELECT COUNT(*) FROM sqlite_master"), "0");
    EXPECT_EQ(value("PRAGMA user_version"), "0");
    connection.execute("PRAGMA max_page_count=768", "");
    EXPECT_TRUE(bringUpToDate(connection));
    EXPECT_EQ(value("PRAGMA user_version"), "2");
}

/// A sound file has no damage; one with a page of zeros has.
TEST_F(StoreSchemaTest, FindsDamageAnywhere) {
    bringUpToDate(connection);
    EXPECT_EQ(StoreSchema(connection).findDamage(), "");
    connection.close();
    std::string text = dir.read("Db");
    std::fill(text.begin() + 2 * 4096, text.begin() + 3 * 4096, '\0');
    dir.write("Db", text);
    open(connection);
    EXPECT_NE(StoreSchema(connection).findDamage(), "");
}

/// A header that forbids writing counts as damage; a file that may not be written does not.
TEST_F(StoreSchemaTest, AHeaderThatForbidsWritingIsDamage) {
    bringUpToDate(connection);
    connection.close();
    std::string text = dir.read("Db");
    text[18] = 3;
    dir.write("Db", text);
    open(connection);
    EXPECT_EQ(StoreSchema(connection).findDamage(), "its header forbids writing");
}

}  // namespace
