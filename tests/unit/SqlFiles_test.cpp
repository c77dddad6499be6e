#include "SqlFiles.h"

#include <memory>
#include <string>

#include <unistd.h>

#include "SqlConnection.h"
#include "SqlStatement.h"
#include "support/StoreTest.h"

namespace {

class SqlFilesTest : public KivTest {
  protected:
    void SetUp() override {
        KivTest::SetUp();
        open(one);
        open(other);
    }
    void open(SqlConnection& connection,
              SqlConnection::Purpose purpose = SqlConnection::Purpose::Store) {
        ASSERT_EQ(connection.open(path, SqlConnection::OnLock::Fail, purpose), "");
    }

    TempDir dir;
    std::string path = dir.file("Db");
    SqlConnection one;
    SqlConnection other;
};

/// All connections on a file are closed together, and know that others did it; those on other
/// files stay.
TEST_F(SqlFilesTest, ClosesAllConnectionsOnAFile) {
    SqlConnection elsewhere;
    ASSERT_EQ(elsewhere.open(dir.file("Other"), SqlConnection::OnLock::Fail), "");
    EXPECT_TRUE(SqlFiles::closeAll(one.file()));
    EXPECT_FALSE(one.isOpen());
    EXPECT_FALSE(other.isOpen());
    EXPECT_TRUE(one.wasClosedByOthers());
    EXPECT_TRUE(elsewhere.isOpen());
    EXPECT_FALSE(elsewhere.wasClosedByOthers());
    open(one);
    EXPECT_FALSE(one.wasClosedByOthers());
    one.close();
    EXPECT_FALSE(one.wasClosedByOthers());
}

/// A link to the file is the same file.
TEST_F(SqlFilesTest, KnowsAFileByWhicheverName) {
    ASSERT_EQ(::symlink("Db", dir.file("Link").c_str()), 0);
    SqlConnection linked;
    ASSERT_EQ(linked.open(dir.file("Link"), SqlConnection::OnLock::Fail), "");
    EXPECT_EQ(linked.file(), one.file());
    EXPECT_TRUE(SqlFiles::closeAll(one.file()));
    EXPECT_FALSE(linked.isOpen());
}

/// While one of them has a statement or a transaction, none is closed.
TEST_F(SqlFilesTest, ClosesNoneWhileOneIsInUse) {
    {
        const SqlStatement statement = other.prepare("SELECT 1");
        EXPECT_FALSE(SqlFiles::closeAll(one.file()));
    }
    EXPECT_TRUE(one.isOpen());
    {
        const SqlConnection::Transaction transaction(other, "BEGIN IMMEDIATE");
        EXPECT_FALSE(SqlFiles::closeAll(one.file()));
    }
    EXPECT_TRUE(SqlFiles::closeAll(one.file()));
}

/// A cursor's connection is closed by nobody else, even when it rests.
TEST_F(SqlFilesTest, ACursorIsClosedByNobodyElse) {
    SqlConnection cursor;
    open(cursor, SqlConnection::Purpose::Cursor);
    EXPECT_FALSE(SqlFiles::closeAll(one.file()));
    cursor.close();
    EXPECT_TRUE(SqlFiles::closeAll(one.file()));
}

/// A connection that is gone is forgotten.
TEST_F(SqlFilesTest, AConnectionThatIsGoneIsForgotten) {
    {
        SqlConnection cursor;
        open(cursor, SqlConnection::Purpose::Cursor);
    }
    EXPECT_TRUE(SqlFiles::closeAll(one.file()));
}

/// Damage is noted for a file until it is forgotten, and for no other.
TEST_F(SqlFilesTest, DamageIsNotedByFile) {
    EXPECT_FALSE(SqlFiles::isDamaged(path));
    SqlFiles::noteDamage(path);
    EXPECT_TRUE(SqlFiles::isDamaged(path));
    EXPECT_FALSE(SqlFiles::isDamaged(dir.file("Other")));
    SqlFiles::noteDamage(dir.file("Other"));
    SqlFiles::forgetDamage(path);
    EXPECT_FALSE(SqlFiles::isDamaged(path));
    EXPECT_TRUE(SqlFiles::isDamaged(dir.file("Other")));
    SqlFiles::forgetAll();
    EXPECT_FALSE(SqlFiles::isDamaged(dir.file("Other")));
}

/// A file that cannot have a log is not asked to have one again.
TEST_F(SqlFilesTest, ARefusedLogIsRemembered) {
    one.execute("CREATE TABLE T(a)", "");
    EXPECT_TRUE(SqlFiles::closeAll(one.file()));
    PlainDatabase(path).run("PRAGMA journal_mode=DELETE");
    SqlFiles::noteThatWalIsRefused(path);
    EXPECT_TRUE(SqlFiles::refusesWal(path));
    open(one);
    EXPECT_EQ(PlainDatabase(path).value("PRAGMA journal_mode"), "delete");
    SqlFiles::forgetAll();
    open(one);
    EXPECT_EQ(PlainDatabase(path).value("PRAGMA journal_mode"), "wal");
}

}  // namespace
