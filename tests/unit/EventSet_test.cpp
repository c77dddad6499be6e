#include "EventSet.h"

#include <string>
#include <vector>

#include <dirent.h>
#include <unistd.h>

#include "support/StoreTest.h"

namespace {

const char* const kAllEvents =
    "SELECT ROWID,data FROM Events ORDER BY bootCount,standbyCount,kernelTime;";

/// Knows, as long as it lives, the connection that was opened last.
class LastConnection {
  public:
    LastConnection() {
        s_opened = nullptr;
        sqlite3_auto_extension(reinterpret_cast<void (*)()>(note));
    }
    ~LastConnection() { sqlite3_cancel_auto_extension(reinterpret_cast<void (*)()>(note)); }
    LastConnection(const LastConnection&) = delete;
    LastConnection& operator=(const LastConnection&) = delete;

    /// Borrowed from its owner; null when none was opened.
    sqlite3* opened() const { return s_opened; }

  private:
    static int note(sqlite3* connection, char**, const void*) {
        s_opened = connection;
        return SQLITE_OK;
    }

    static inline sqlite3* s_opened = nullptr;
};

class EventSetTest : public StoreTest {
  protected:
    void SetUp() override {
        StoreTest::SetUp();
        openStore();
    }

    /// How many descriptors of this process are open on the store's log: one for each connection.
    int openDescriptors() const {
        DIR* const all = ::opendir("/proc/self/fd");
        int count = 0;
        while (const dirent* entry = ::readdir(all)) {
            char target[512];
            const std::string link = std::string("/proc/self/fd/") + entry->d_name;
            const ssize_t length = ::readlink(link.c_str(), target, sizeof target);
            if (length > 0 &&
                std::string(target, static_cast<std::size_t>(length)) == path + "-wal") {
                ++count;
            }
        }
        ::closedir(all);
        return count;
    }
};

/// Events come in stored order, each row marked as it is handed out.
///
/// After the last one comes the empty text; the set is closed and keeps its marks.
TEST_F(EventSetTest, HandsOutTheEventsInStoredOrderAndMarksTheirRows) {
    db->addEvent(2, 0, 5, "t", "third");
    db->addEvent(1, 1, 9, "t", "second");
    db->addEvent(1, 0, 99, "t", "first");
    EventSet set(path, kAllEvents);
    EXPECT_TRUE(set.isOpen());
    EXPECT_TRUE(set.isActive());
    EXPECT_EQ(set.getNextAndMark(), "first");
    EXPECT_EQ(set.getNextAndMark(), "second");
    EXPECT_EQ(set.getNextAndMark(), "third");
    EXPECT_EQ(set.getReturnedRows(), (std::vector<long>{3, 2, 1}));
    EXPECT_TRUE(set.isActive());
    EXPECT_EQ(set.getNextAndMark(), "");
    EXPECT_FALSE(set.isActive());
    EXPECT_FALSE(set.isOpen());
    EXPECT_EQ(set.getReturnedRows(), (std::vector<long>{3, 2, 1}));
    EXPECT_EQ(set.getNextAndMark(), "");
}

/// After the last one comes the empty text; the set is closed and keeps its marks.
TEST_F(EventSetTest, ClosesItsConnectionAtTheEndOfTheRows) {
    db->addEvent(1, 1, 1, "t", "x");
    const int before = openDescriptors();
    EventSet set(path, kAllEvents);
    set.getNextAndMark();
    EXPECT_EQ(openDescriptors(), before + 1);
    set.getNextAndMark();
    EXPECT_EQ(openDescriptors(), before);
}

/// Its connection closes with the last copy or with `close`, which may be repeated.
TEST_F(EventSetTest, ClosesItsConnectionWithTheLastCopy) {
    db->addEvent(1, 1, 1, "t", "x");
    const int before = openDescriptors();
    {
        EventSet copy(path, kAllEvents);
        {
            EventSet set(copy);
            EXPECT_EQ(set.getNextAndMark(), "x");
        }
        EXPECT_EQ(openDescriptors(), before + 1);
    }
    EXPECT_EQ(openDescriptors(), before);
}

/// Its connection closes with the last copy or with `close`, which may be repeated.
TEST_F(EventSetTest, CloseEndsTheQueryAndLeavesTheMarks) {
    db->addEvent(1, 1, 1, "t", "x");
    db->addEvent(1, 1, 2, "t", "y");
    const int before = openDescriptors();
    EventSet set(path, kAllEvents);
    EXPECT_EQ(set.getNextAndMark(), "x");
    set.close();
    EXPECT_TRUE(set.isOpen());
    EXPECT_FALSE(set.isActive());
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_EQ(set.getNextAndMark(), "");
    EXPECT_EQ(set.getReturnedRows(), (std::vector<long>{1}));
    set.close();
    EXPECT_EQ(openDescriptors(), before);
}

/// Copies share the cursor and have marks of their own.
TEST_F(EventSetTest, CopiesShareTheCursorAndHaveMarksOfTheirOwn) {
    for (int i = 1; i <= 3; ++i) db->addEvent(1, 1, i, "t", "e" + std::to_string(i));
    EventSet one(path, kAllEvents);
    EXPECT_EQ(one.getNextAndMark(), "e1");
    EventSet other(one);
    EXPECT_EQ(other.getNextAndMark(), "e2");
    EXPECT_EQ(one.getNextAndMark(), "e3");
    EXPECT_EQ(one.getReturnedRows(), (std::vector<long>{1, 3}));
    EXPECT_EQ(other.getReturnedRows(), (std::vector<long>{1, 2}));
    one.close();
    EXPECT_FALSE(other.isActive());
}

/// An empty path or query opens nothing and yields nothing.
TEST_F(EventSetTest, AnEmptyPathOrQueryLeavesItInactiveAndOpensNothing) {
    const int before = openDescriptors();
    EventSet withoutQuery(path, "");
    EventSet withoutPath("", kAllEvents);
    EXPECT_EQ(openDescriptors(), before);
    for (EventSet* set : {&withoutQuery, &withoutPath}) {
        EXPECT_FALSE(set->isOpen());
        EXPECT_FALSE(set->isActive());
        EXPECT_EQ(set->getNextAndMark(), "");
        EXPECT_TRUE(set->getReturnedRows().empty());
        set->close();
    }
}

/// A file that cannot be opened leaves it not open.
TEST_F(EventSetTest, AFileThatCannotBeOpenedLeavesItNotOpen) {
    EventSet set(dir.file("no/such/Db"), kAllEvents);
    EXPECT_FALSE(set.isOpen());
    EXPECT_FALSE(set.isActive());
    EXPECT_EQ(set.getNextAndMark(), "");
}

/// A query that does not prepare, or without exactly two columns, leaves it open and inactive.
TEST_F(EventSetTest, AQueryThatDoesNotPrepareLeavesItOpenAndInactive) {
    EventSet set(path, "SELECT ROWID,data FROM Nowhere");
    EXPECT_TRUE(set.isOpen());
    EXPECT_FALSE(set.isActive());
    EXPECT_EQ(set.getNextAndMark(), "");
    set.close();
}

/// A query that does not prepare, or without exactly two columns, leaves it open and inactive.
TEST_F(EventSetTest, AQueryWithoutExactlyTwoColumnsLeavesItInactive) {
    for (const char* query : {"SELECT data FROM Events", "SELECT ROWID,data,type FROM Events"}) {
        EventSet set(path, query);
        EXPECT_TRUE(set.isOpen()) << query;
        EXPECT_FALSE(set.isActive()) << query;
    }
}

/// A busy database leaves it active: the call can be repeated.
TEST_F(EventSetTest, ABusyDatabaseLeavesItActiveSoThatTheCallCanBeRepeated) {
    useRollbackJournal();  // with a log nothing bars a reader
    db->addEvent(1, 1, 1, "t", "x");
    EventSet set(path, kAllEvents);
    {
        PlainDatabase locker(path);
        locker.run("BEGIN EXCLUSIVE");
        EXPECT_EQ(set.getNextAndMark(), "");
        EXPECT_TRUE(set.isActive());
        EXPECT_TRUE(set.getReturnedRows().empty());
        locker.run("COMMIT");
    }
    EXPECT_EQ(set.getNextAndMark(), "x");
    EXPECT_EQ(set.getReturnedRows(), (std::vector<long>{1}));
}

/// An SQL error ends it.
TEST_F(EventSetTest, AnSqlErrorWhileSteppingEndsIt) {
    db->addEvent(1, 1, 1, "t", "x");
    EventSet set(path, "SELECT ROWID, abs(-9223372036854775807 - 1) FROM Events");
    ASSERT_TRUE(set.isActive());
    EXPECT_EQ(set.getNextAndMark(), "");
    EXPECT_FALSE(set.isActive());
    EXPECT_FALSE(set.isOpen());
}

/// A row with an empty text is marked too.
TEST_F(EventSetTest, AnEmptyTextIsMarkedToo) {
    aside("INSERT INTO Events VALUES(1,1,1,'t',0,''),(1,1,2,'t',0,NULL),(1,1,3,'t',0,'x')");
    EventSet set(path, kAllEvents);
    EXPECT_EQ(set.getNextAndMark(), "");
    EXPECT_EQ(set.getNextAndMark(), "");
    EXPECT_EQ(set.getNextAndMark(), "x");
    EXPECT_EQ(set.getReturnedRows(), (std::vector<long>{1, 2, 3}));
}

/// `unmarkLast` takes back the last mark; without one it says "no event to remove" when
/// verbose.
TEST_F(EventSetTest, UnmarkLastTakesBackTheLastMarkOnly) {
    db->addEvent(1, 1, 1, "t", "x");
    db->addEvent(1, 1, 2, "t", "y");
    EventSet set(path, kAllEvents);
    set.getNextAndMark();
    set.getNextAndMark();
    set.unmarkLast();
    EXPECT_EQ(set.getReturnedRows(), (std::vector<long>{1}));
}

/// `unmarkLast` takes back the last mark; without one it says "no event to remove" when
/// verbose.
TEST_F(EventSetTest, UnmarkLastWithoutMarksChangesNothingAndSaysSoWhenVerbose) {
    EventSet set(path, kAllEvents);
    OutputCapture capture;
    set.unmarkLast();
    EXPECT_EQ(capture.err(), "");
    DB::setVerbose(true);
    set.unmarkLast();
    DB::setVerbose(false);
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(), "kivDB: no event to remove\n");
    EXPECT_TRUE(set.getReturnedRows().empty());
    EXPECT_TRUE(set.isActive());
}

/// Its connection cannot attach other files.
TEST_F(EventSetTest, CannotAttachOtherFiles) {
    const LastConnection last;
    const EventSet set(path, kAllEvents);
    ASSERT_NE(last.opened(), nullptr);
    char* text = nullptr;
    const std::string attach = "ATTACH '" + dir.file("other") + "' AS other";
    EXPECT_NE(sqlite3_exec(last.opened(), attach.c_str(), nullptr, nullptr, &text), SQLITE_OK);
    EXPECT_STREQ(text, "too many attached databases - max 0");
    sqlite3_free(text);
    EXPECT_FALSE(dir.has("other"));
}

}  // namespace
