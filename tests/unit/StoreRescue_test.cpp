#include "StoreRescue.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <cerrno>

#include <sys/stat.h>
#include <unistd.h>

#include "support/AppSetup.h"
#include "support/DiskFaults.h"
#include "support/StoreRescuePeer.h"
#include "support/StoreTest.h"

namespace {

constexpr std::int32_t kMaxBytes = 3145728;
constexpr int kCut = 77;  ///< exit status

class StoreRescueTest : public StoreTest {
  protected:
    void SetUp() override {
        StoreTest::SetUp();
        openStore();
        for (int i = 0; i < 100; ++i) db->addEvent(1, 1, i, "t", eventText());
        db.reset();
    }
    static std::string eventText() { return "{\"text\": \"" + std::string(300, 'x') + "\"}"; }
    StoreRescue::Result rescue(std::int32_t maxBytes = kMaxBytes) {
        return StoreRescue(path, maxBytes).run();
    }
    void damagePage(std::size_t page) {
        std::string text = dir.read("Db");
        text.replace(page * 4096, 4096, std::string(4096, '\0'));
        dir.write("Db", text);
    }
    Texts names() {
        Texts found;
        for (const auto& entry : std::filesystem::directory_iterator(dir.path())) {
            found.push_back(entry.path().filename().string());
        }
        std::sort(found.begin(), found.end());
        return found;
    }
};

/// The old file is kept under one name, the new one takes its place, and nothing else is left.
TEST_F(StoreRescueTest, KeepsTheOldFileAndLeavesNothingElse) {
    const std::string old = dir.read("Db");
    for (const char* name : {"Db-wal", "Db-journal", "Db.new", "Db.new-journal", "Db.damaged"}) {
        dir.write(name, "left by somebody");
    }
    const auto result = rescue();
    EXPECT_EQ(result.problem, "");
    EXPECT_EQ(result.eventRows.size(), 100u);
    EXPECT_FALSE(result.isEmpty());
    EXPECT_EQ(names(), (Texts{"Db", "Db.damaged"}));
    EXPECT_EQ(dir.read("Db.damaged"), old);
    EXPECT_EQ(value("PRAGMA integrity_check"), "ok");
}

/// Rows before and after a damaged leaf are carried over.
TEST_F(StoreRescueTest, CarriesOverWhatStandsBeforeAndAfterADamagedLeaf) {
    damagePage(14);
    const auto result = rescue();
    EXPECT_EQ(result.problem, "");
    EXPECT_GE(result.eventRows.size(), 85u);
    EXPECT_LT(result.eventRows.size(), 100u);
    EXPECT_EQ(result.eventRows.front(), 1);
    EXPECT_EQ(result.eventRows.back(), 100);
}

/// The new file has the mode of the old one.
TEST_F(StoreRescueTest, TheNewFileHasTheModeOfTheOld) {
    ::chmod(path.c_str(), 0600);
    rescue();
    struct stat facts {};
    ASSERT_EQ(::stat(path.c_str(), &facts), 0);
    EXPECT_EQ(facts.st_mode & 0777, 0600U);
}

/// The new file and its name are on the disk before anything of the old one goes, and its place
/// after that.
TEST_F(StoreRescueTest, TheNewFileIsOnTheDiskBeforeItTakesThePlace) {
    DiskWatch disk;
    rescue();
    EXPECT_EQ(disk.calls, (std::vector<std::string>{"sync file", "rename", "sync directory",
                                                    "rename", "rename", "sync directory"}));
}

/// More than the new file may hold is not carried over, and what it holds is sound.
TEST_F(StoreRescueTest, CarriesOverNoMoreThanTheNewFileMayHold) {
    const auto result = rescue(15 * 4096);
    EXPECT_EQ(result.problem, "");
    EXPECT_GT(result.eventRows.size(), 10u);
    EXPECT_LT(result.eventRows.size(), 100u);
    EXPECT_EQ(value("PRAGMA integrity_check"), "ok");
    EXPECT_EQ(value("SELECT COUNT(*) FROM Events"), std::to_string(result.eventRows.size()));
}

/// Trouble with the files leaves the old one and names itself.
TEST_F(StoreRescueTest, TroubleLeavesTheOldFile) {
    const std::string old = dir.read("Db");
    DiskWatch disk;
    disk.renameError = EIO;
    EXPECT_EQ(rescue().problem, "cannot name the new file: Input/output error");
    EXPECT_EQ(names(), Texts{"Db"});
    disk.renameError = 0;
    disk.fileSyncError = ENOSPC;
    EXPECT_EQ(rescue().problem, "cannot sync the new file: No space left on device");
    EXPECT_EQ(names(), Texts{"Db"});
    EXPECT_EQ(dir.read("Db"), old);
}

/// Wherever the exchange is cut off, the next start has every row, those too that only the old log
/// had.
TEST_F(StoreRescueTest, ACutAtAnyCallLosesNoRow) {
    std::string file;
    std::string log;
    {
        PlainDatabase writer(path);  // its open connection keeps the log
        writer.run("PRAGMA journal_mode=WAL; PRAGMA wal_checkpoint(TRUNCATE)");
        writer.run("INSERT INTO Events VALUES(9,9,9,'late',0,'{}')");
        file = dir.read("Db");
        log = dir.read("Db-wal");
    }
    ASSERT_GT(log.size(), 4096u);
    int cuts = 0;
    for (int status = kCut; status == kCut; ++cuts) {
        ASSERT_LT(cuts, 60);
        for (const char* name : {"Db-shm", "Db.new", "Db.damaged", "Db.rescued"})
            ::unlink(dir.file(name).c_str());
        dir.write("Db", file);
        dir.write("Db-wal", log);
        damagePage(14);
        StoreRescuePeer::forgetAttempts();
        Child child([&] {
            DiskWatch disk;
            disk.endAt = cuts + 1;
            disk.endStatus = kCut;
            const auto result = StoreRescue(path, kMaxBytes).run();
            ::_exit(result.problem.empty() ? 0 : 1);
        });
        status = child.exitStatus();
        ASSERT_TRUE(status == kCut || status == 0) << status;
        StoreRescuePeer::forgetAttempts();
        {
            const OutputCapture quiet;
            DB next;
            next.open(path, true);
        }
        ASSERT_EQ(value("PRAGMA integrity_check"), "ok") << "cut " << cuts;
        ASSERT_EQ(value("SELECT COUNT(*) FROM Events WHERE type='late'"), "1") << "cut " << cuts;
        ASSERT_GE(std::stoi(value("SELECT COUNT(*) FROM Events")), 86) << "cut " << cuts;
        ASSERT_FALSE(dir.has("Db.rescued")) << "cut " << cuts;
    }
    EXPECT_GE(cuts, 8);
}

/// Where the new file cannot take the place yet, the next opening puts it there: with links, and
/// without.
TEST_F(StoreRescueTest, ANewFileThatCannotTakeThePlaceTakesItAtTheNextOpening) {
    for (const int linkError : {0, EPERM}) {
        {
            DiskWatch disk;
            disk.linkError = linkError;
            disk.renameError = EIO;
            disk.failingRename = 3;
            StoreRescuePeer::forgetAttempts();
            EXPECT_EQ(rescue().problem, "cannot put the new file in its place: Input/output error");
        }
        StoreRescuePeer::forgetAttempts();
        {
            const OutputCapture quiet;
            DB next;
            next.open(path, true);
        }
        EXPECT_EQ(value("SELECT COUNT(*) FROM Events"), "100") << linkError;
        for (const char* left : {"Db.new", "Db.rescued", "Db.damaged.new"})
            EXPECT_FALSE(dir.has(left)) << left;
    }
}

/// Where the file system has no second names the old file is kept all the same.
TEST_F(StoreRescueTest, WithoutLinksTheOldFileIsKeptAllTheSame) {
    const std::string old = dir.read("Db");
    DiskWatch disk;
    disk.linkError = EPERM;
    const auto result = rescue();
    EXPECT_EQ(result.problem, "");
    EXPECT_EQ(result.eventRows.size(), 100u);
    EXPECT_EQ(names(), (Texts{"Db", "Db.damaged"}));
    EXPECT_EQ(dir.read("Db.damaged"), old);
}

/// A power cut between the two renames leaves one file with two names; the next attempt leaves
/// nothing of that behind.
TEST_F(StoreRescueTest, ACutBetweenTheRenamesLeavesNothingBehind) {
    const std::string old = dir.read("Db");
    std::filesystem::create_hard_link(path, dir.file("Db.damaged"));
    EXPECT_EQ(rescue().problem, "");
    EXPECT_EQ(names(), (Texts{"Db", "Db.damaged"}));
    EXPECT_EQ(dir.read("Db.damaged"), old);
    EXPECT_EQ(std::filesystem::hard_link_count(path), 1u);
}

/// The next attempt is due 5 s after the last one.
TEST_F(StoreRescueTest, TheNextAttemptIsDueAfterFiveSeconds) {
    EXPECT_TRUE(StoreRescue::isDue(path));
    rescue();
    EXPECT_FALSE(StoreRescue::isDue(path));
    EXPECT_TRUE(StoreRescue::isDue(dir.file("Other")));
    StoreRescuePeer::letTimePass(std::chrono::seconds(5));
    EXPECT_TRUE(StoreRescue::isDue(path));
}

/// A file that was replaced a moment ago is replaced by an empty one.
TEST_F(StoreRescueTest, ASecondTimeWithinAMinuteNothingIsCarriedOver) {
    EXPECT_EQ(rescue().eventRows.size(), 100u);
    EXPECT_TRUE(rescue().isEmpty());
    EXPECT_EQ(dir.read("Db"), "");
}

/// A file that is gone is replaced by nothing.
TEST_F(StoreRescueTest, AFileThatIsGoneIsAProblem) {
    ::unlink(path.c_str());
    EXPECT_NE(rescue().problem, "");
    EXPECT_EQ(names(), Texts{});
}

}  // namespace
