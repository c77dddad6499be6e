#include "DBToken.h"

#include <atomic>
#include <regex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <errno.h>

#include "support/DBTokenPeer.h"
#include "support/DiskFaults.h"
#include "support/KivTest.h"
#include "support/OutputCapture.h"
#include "support/TaggedLines.h"
#include "support/TempDir.h"

namespace {

const std::string kValid = "3f0e8f6a-2a53-4c52-9d9b-0b2f5d7a9c11";

class DBTokenTest : public KivTest {
  protected:
    void SetUp() override {
        KivTest::SetUp();
        DBToken::setDBUUIDPath(dir.path());
    }

    std::string file() { return dir.read("dbuuid.json"); }
    static std::string fileOf(const std::string& token) {
        return "{\"db-uuid\": \"" + token + "\"}";
    }

    TempDir dir;
};

bool isUuid(const std::string& text) {
    static const std::regex form("[0-9a-f]{8}(-[0-9a-f]{4}){3}-[0-9a-f]{12}");
    return std::regex_match(text, form);
}

/// Setting the path names "/dbuuid.json" and reads nothing.
TEST_F(DBTokenTest, SettingThePathNamesTheFileAndReadsNothing) {
    dir.write("dbuuid.json", fileOf(kValid));
    DBToken::setDBUUIDPath(dir.path());
    EXPECT_EQ(DBTokenPeer::fileName(), dir.path() + "/dbuuid.json");
    EXPECT_TRUE(DBTokenPeer::holdsNothing());
}

/// Without a file a fresh token is made and written.
TEST_F(DBTokenTest, MakesAndWritesATokenWhenThereIsNoFile) {
    DBToken::loadDBUUIDFile(false);
    const std::string token = DBToken::current();
    EXPECT_TRUE(isUuid(token)) << token;
    EXPECT_EQ(file(), fileOf(token));
}

/// A valid token of the file stays, and the file untouched.
TEST_F(DBTokenTest, KeepsAValidTokenOfTheFile) {
    const std::string text = "{ \"db-uuid\":\"" + kValid + "\" }\n";
    dir.write("dbuuid.json", text);
    DBToken::loadDBUUIDFile(false);
    EXPECT_EQ(DBToken::current(), kValid);
    EXPECT_EQ(file(), text);
}

/// A token that is not a UUID, or a file that is not a JSON object, is replaced.
TEST_F(DBTokenTest, ReplacesATokenThatIsNoUuid) {
    for (const char* text :
         {"{\"db-uuid\":\"not-a-uuid\"}", "{\"db-uuid\":\"\"}", "{\"db-uuid\":17}", "{}",
          "{\"db-uuid\":\"3f0e8f6a-2a53-4c52-9d9b-0b2f5d7a9c1\"}"}) {
        dir.write("dbuuid.json", text);
        DBToken::loadDBUUIDFile(false);
        EXPECT_TRUE(isUuid(DBToken::current())) << text;
        EXPECT_EQ(file(), fileOf(DBToken::current())) << text;
    }
}

/// A token that is not a UUID, or a file that is not a JSON object, is replaced.
TEST_F(DBTokenTest, ReplacesAFileThatIsNoJsonObject) {
    for (const char* text : {"", "{\"db-uuid\":", "[1,2]", "\"text\"", "\x01\xff"}) {
        dir.write("dbuuid.json", text);
        DBToken::loadDBUUIDFile(false);
        EXPECT_TRUE(isUuid(DBToken::current())) << text;
        EXPECT_EQ(file(), fileOf(DBToken::current())) << text;
    }
}

/// A forced load always makes a new token.
TEST_F(DBTokenTest, ForcedLoadReplacesAValidTokenToo) {
    dir.write("dbuuid.json", fileOf(kValid));
    DBToken::loadDBUUIDFile(true);
    const std::string first = DBToken::current();
    EXPECT_TRUE(isUuid(first));
    EXPECT_NE(first, kValid);
    EXPECT_EQ(file(), fileOf(first));
    DBToken::loadDBUUIDFile(true);
    EXPECT_NE(DBToken::current(), first);
}

/// Other members of the file are kept.
TEST_F(DBTokenTest, KeepsOtherMembersOfTheFile) {
    dir.write("dbuuid.json", "{\"made-by\": \"factory\", \"db-uuid\": \"bad\"}");
    DBToken::loadDBUUIDFile(false);
    EXPECT_EQ(file(), "{\"made-by\": \"factory\", \"db-uuid\": \"" + DBToken::current() + "\"}");
}

/// `updateDBUUID` writes another token and leaves the file untouched for the one held.
TEST_F(DBTokenTest, UpdateStoresAndWritesAnotherToken) {
    dir.write("dbuuid.json", fileOf(kValid));
    DBToken::loadDBUUIDFile(false);
    DBToken::updateDBUUID("00000000-0000-4000-8000-000000000001");
    EXPECT_EQ(DBToken::current(), "00000000-0000-4000-8000-000000000001");
    EXPECT_EQ(file(), fileOf("00000000-0000-4000-8000-000000000001"));
}

/// `updateDBUUID` writes another token and leaves the file untouched for the one held.
TEST_F(DBTokenTest, UpdateWithTheHeldTokenLeavesTheFileUntouched) {
    const std::string text = "{ \"db-uuid\" : \"" + kValid + "\" }";
    dir.write("dbuuid.json", text);
    DBToken::loadDBUUIDFile(false);
    DBToken::updateDBUUID(kValid);
    EXPECT_EQ(file(), text);
}

/// `updateDBUUID` writes another token and leaves the file untouched for the one held.
TEST_F(DBTokenTest, UpdateWithNothingHeldMakesTheObject) {
    DBToken::updateDBUUID(kValid);
    EXPECT_EQ(DBToken::current(), kValid);
    EXPECT_EQ(file(), fileOf(kValid));
}

/// The file is loaded on first use.
TEST_F(DBTokenTest, CurrentLoadsTheFileWhenNothingIsHeld) {
    dir.write("dbuuid.json", fileOf(kValid));
    EXPECT_EQ(DBToken::current(), kValid);
}

/// A token that could not be written is written when it is asked for and the disk works again, so
/// that the next start finds the same one.
TEST_F(DBTokenTest, WritesLaterWhatCouldNotBeWritten) {
    {
        const FullDisk full(10);
        DBToken::loadDBUUIDFile(true);
    }
    EXPECT_FALSE(dir.has("dbuuid.json"));
    const std::string token = DBToken::current();
    EXPECT_EQ(file(), fileOf(token));
    const DiskWatch disk;
    EXPECT_EQ(DBToken::current(), token);
    EXPECT_TRUE(disk.calls.empty()) << "only once";
}

/// A file that cannot be written leaves the token in memory without a line.
TEST_F(DBTokenTest, AFileThatCannotBeWrittenLeavesTheTokenInMemoryWithoutAWord) {
    DBToken::setDBUUIDPath(dir.file("no/such/directory"));
    OutputCapture capture;
    DBToken::loadDBUUIDFile(false);
    capture.stop();
    EXPECT_TRUE(isUuid(DBToken::current()));
    EXPECT_EQ(capture.err(), "");
    EXPECT_EQ(capture.out(), "");
}

/// The file is replaced in one step that survives a power cut, and a write that fails leaves
/// the old one whole.
TEST_F(DBTokenTest, ReplacesTheFileInOneStepThatSurvivesAPowerCut) {
    dir.write("dbuuid.json", fileOf(kValid));
    const DiskWatch disk;
    DBToken::loadDBUUIDFile(true);
    EXPECT_EQ(disk.calls, DiskWatch::safeReplacement());
    EXPECT_EQ(file(), fileOf(DBToken::current()));
}

/// The file is replaced in one step that survives a power cut, and a write that fails leaves
/// the old one whole.
TEST_F(DBTokenTest, KeepsTheOldFileWholeWhenTheNewOneCannotBeWritten) {
    dir.write("dbuuid.json", fileOf(kValid));
    {
        const FullDisk full(10);
        DBToken::loadDBUUIDFile(true);
        EXPECT_TRUE(isUuid(DBToken::current()));
        EXPECT_NE(DBToken::current(), kValid);
        EXPECT_EQ(file(), fileOf(kValid));
    }
    EXPECT_EQ(file(), fileOf(kValid));
    {
        DiskWatch disk;
        disk.fileSyncError = EIO;
        DBToken::loadDBUUIDFile(true);
    }
    EXPECT_EQ(file(), fileOf(kValid));
    EXPECT_FALSE(dir.has(".dbuuid.json.new"));
}

/// A file that cannot be written leaves the token in memory without a line.
TEST_F(DBTokenTest, WithoutAPathTheTokenLivesInMemory) {
    DBTokenPeer::forget();
    DBToken::loadDBUUIDFile(true);
    EXPECT_TRUE(isUuid(DBToken::current()));
}

/// Verbose, a new token is told: "loadDBUUIDFile : new UUID created: "; otherwise nothing is.
TEST_F(DBTokenTest, SaysWhichTokenItMadeWhenVerbose) {
    DBToken::SetVerbose(true);
    EXPECT_TRUE(DBToken::GetVerbose());
    OutputCapture capture;
    DBToken::loadDBUUIDFile(false);
    capture.stop();
    EXPECT_EQ(capture.outWithoutPrefixes(),
              "kivDBUUID: loadDBUUIDFile : new UUID created: " + DBToken::current() + "\n");
}

/// Verbose, a new token is told: "loadDBUUIDFile : new UUID created: "; otherwise nothing is.
TEST_F(DBTokenTest, SaysNothingWhenNotVerboseOrWhenTheTokenStays) {
    OutputCapture capture;
    DBToken::loadDBUUIDFile(true);
    DBToken::SetVerbose(true);
    DBToken::loadDBUUIDFile(false);
    capture.stop();
    EXPECT_EQ(capture.out(), "");
    EXPECT_EQ(capture.err(), "");
}

/// Random identifiers are fresh and without line end.
TEST_F(DBTokenTest, RandomUuidsAreFreshAndWithoutTheLineEnd) {
    const std::string one = DBToken::randomUuid();
    const std::string other = DBToken::randomUuid();
    EXPECT_TRUE(isUuid(one)) << one;
    EXPECT_TRUE(isUuid(other)) << other;
    EXPECT_NE(one, other);
}

/// Threads share the token safely and agree on a new one.
TEST_F(DBTokenTest, ThreadsShareTheTokenSafely) {
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([] {
            for (int j = 0; j < 25; ++j) {
                DBToken::loadDBUUIDFile(j % 5 == 0);
                EXPECT_TRUE(isUuid(DBToken::current()));
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(file(), fileOf(DBToken::current()));
}

/// Threads share the token safely and agree on a new one.
TEST_F(DBTokenTest, ThreadsThatMeetNothingHeldAgreeOnOneToken) {
    constexpr int threadCount = 8;
    for (int round = 0; round < 20; ++round) {
        const TempDir fresh;
        DBTokenPeer::forget();
        DBToken::setDBUUIDPath(fresh.path());
        std::atomic<int> waiting{0};
        std::vector<std::string> tokens(threadCount);
        std::vector<std::thread> threads;
        for (std::string& token : tokens) {
            threads.emplace_back([&token, &waiting] {
                ++waiting;
                while (waiting < threadCount) std::this_thread::yield();
                token = DBToken::current();
            });
        }
        for (std::thread& thread : threads) thread.join();
        const std::set<std::string> different(tokens.begin(), tokens.end());
        EXPECT_EQ(different.size(), 1U);
        EXPECT_TRUE(isUuid(tokens[0])) << tokens[0];
        EXPECT_EQ(fresh.read("dbuuid.json"), fileOf(tokens[0]));
        EXPECT_EQ(DBToken::current(), tokens[0]);
    }
}

/// Its line carries the diagnostic prefix.
TEST_F(DBTokenTest, ItsLineCarriesTheDiagnosticPrefix) {
    DBToken::SetVerbose(true);
    OutputCapture capture;
    DBToken::loadDBUUIDFile(false);
    capture.stop();
    EXPECT_EQ(prefixedLines(capture.out(), "kivDBUUID: "),
              "kivDBUUID: loadDBUUIDFile : new UUID created: " + DBToken::current() + "\n");
}

}  // namespace
