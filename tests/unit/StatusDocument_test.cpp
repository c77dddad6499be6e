#include "StatusDocument.h"

#include "JsonObject.h"
#include "Status.h"

#include "support/KivTest.h"
#include "support/OutputCapture.h"
#include "support/TempDir.h"
#include "support/WaitUntil.h"

#include <filesystem>
#include <string>

#include <linux/magic.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace fs = std::filesystem;

namespace {

/// A folder in memory, and a document in it that the environment names.
class StatusDocumentTest : public KivTest {
  protected:
    void SetUp() override {
        KivTest::SetUp();
        std::string pattern = "/dev/shm/kivtest.XXXXXX";
        ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
        m_folder = pattern;
        name(path());
    }
    void TearDown() override {
        fs::remove_all(m_folder);
        ::unsetenv("KIV_STATUS_FILE");
        KivTest::TearDown();
    }

    static void name(const std::string& path) { ::setenv("KIV_STATUS_FILE", path.c_str(), 1); }
    std::string path() const { return m_folder + "/status.json"; }
    JsonObject document() const { return JsonObject::loadFile(path()); }

    std::string m_folder;
};

bool isOnADisk(const std::string& folder) {
    struct statfs facts = {};
    return ::statfs(folder.c_str(), &facts) == 0 &&
           static_cast<std::uint32_t>(facts.f_type) != TMPFS_MAGIC;
}

}  // namespace

/// The document holds the counts, the facts, how each target answers, the daemon's files and who it
/// is.
TEST_F(StatusDocumentTest, HoldsWhatIsKnown) {
    Status::count(Status::Received, 5);
    Status::set(Status::ClockSource, 2);
    Status::asked(Status::Stream);
    Status::failed(Status::Stream, "no \"room\"\n");
    Status::setPath(Status::Database, "/var/lib/kivApp/Db");
    StatusDocument().write();
    const JsonObject written = document();
    EXPECT_EQ(written.optInteger("pid", 0), ::getpid());
    EXPECT_EQ(written.getObject("counts").optInteger("received", 0), 5);
    EXPECT_EQ(written.getObject("counts").optInteger("dropped", -1), 0);
    EXPECT_EQ(written.getObject("facts").optInteger("clock-source", 0), 2);
    const JsonObject stream = written.getObject("targets").getObject("stream");
    EXPECT_EQ(stream.optInteger("requests", 0), 1);
    EXPECT_EQ(stream.optInteger("fails", 0), 1);
    EXPECT_EQ(stream.optString("error"), "no \"room\"\\x0A");
    EXPECT_EQ(written.getObject("paths").optString("database"), "/var/lib/kivApp/Db");
}

/// A path that was given relative to the daemon's working directory is named whole.
TEST_F(StatusDocumentTest, NamesPathsWhole) {
    Status::setPath(Status::BootInfo, "BootInfo");
    const JsonObject paths = JsonObject::parse(StatusDocument::text()).getObject("paths");
    EXPECT_EQ(paths.optString("bootinfo"), fs::current_path().string() + "/BootInfo");
    EXPECT_EQ(paths.optString("config"), "");
}

/// Nothing is written while nothing changes, and a second passes between two documents.
TEST_F(StatusDocumentTest, WritesOnlyChangesAndOnceASecond) {
    Status::count(Status::Received);
    StatusDocument status;
    status.write();
    fs::remove(path());
    status.write();
    EXPECT_FALSE(fs::exists(path())) << "nothing has changed";
    Status::count(Status::Received);
    status.write();
    EXPECT_FALSE(fs::exists(path())) << "within a second";
    EXPECT_TRUE(WaitUntil([&] {
        status.write();
        return fs::exists(path());
    }));
    EXPECT_EQ(document().getObject("counts").optInteger("received", 0), 2);
}

/// All may read it, and no temporary file stays.
TEST_F(StatusDocumentTest, AllMayReadIt) {
    Status::count(Status::Received);
    StatusDocument().write();
    struct stat facts {};
    ASSERT_EQ(::stat(path().c_str(), &facts), 0);
    EXPECT_EQ(facts.st_mode & 07777, 0644U);
    EXPECT_EQ(std::distance(fs::directory_iterator(m_folder), fs::directory_iterator()), 1);
}

/// Without the variable, and with an empty one, nothing is written and nothing is said.
TEST_F(StatusDocumentTest, WithoutANameNothingIsWritten) {
    Status::count(Status::Received);
    OutputCapture capture;
    ::unsetenv("KIV_STATUS_FILE");
    StatusDocument().write();
    name("");
    StatusDocument().write();
    capture.stop();
    EXPECT_EQ(capture.err(), "");
    EXPECT_TRUE(fs::is_empty(m_folder));
}

/// On a disk nothing is written; one line says so.
TEST_F(StatusDocumentTest, RefusesADisk) {
    const std::string folder = KIV_BINARY_DIR;
    if (!isOnADisk(folder)) GTEST_SKIP() << folder << " is in memory";
    name(folder + "/kiv-status.json");
    Status::count(Status::Received);
    OutputCapture capture;
    StatusDocument().write();
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(),
              "kivStatus: No status document: " + folder + "/ is not on a file system in memory\n");
    EXPECT_FALSE(fs::exists(folder + "/kiv-status.json"));
    EXPECT_FALSE(fs::exists(folder + "/kiv-status.json.new"));
}

/// A folder that is not there yet gets one line, however often it is tried, and the document as
/// soon as it is there.
TEST_F(StatusDocumentTest, AFolderThatIsMissingGetsOneLine) {
    const std::string late = m_folder + "/late";
    name(late + "/status.json");
    Status::count(Status::Received);
    StatusDocument status;
    OutputCapture capture;
    status.write();
    ASSERT_TRUE(fs::create_directory(late));
    EXPECT_TRUE(WaitUntil([&] {
        Status::count(Status::Received);
        status.write();
        return fs::exists(late + "/status.json");
    }));
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(), "kivStatus: No status document: cannot open " + late +
                                                "/status.json.new: No such file or directory\n");
}

/// A link in the place of the temporary file is not followed.
TEST_F(StatusDocumentTest, FollowsNoLink) {
    const TempDir other;
    const std::string target = other.write("precious", "text");
    fs::create_symlink(target, path() + ".new");
    Status::count(Status::Received);
    OutputCapture capture;
    StatusDocument().write();
    capture.stop();
    EXPECT_EQ(other.read("precious"), "text");
    EXPECT_NE(capture.errWithoutPrefixes(), "");
}
