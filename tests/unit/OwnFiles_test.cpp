#include "OwnFiles.h"

#include "AtomicFile.h"
#include "support/KivTest.h"
#include "support/TempDir.h"

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <sys/stat.h>

#include <gtest/gtest.h>

namespace {

namespace fs = std::filesystem;

class OwnFilesTest : public KivTest {
  protected:
    TempDir m_dir;
    const std::string m_own = m_dir.write("Config", "{}");
};

/// A file is the daemon's own once that was said, and no other one.
TEST_F(OwnFilesTest, KnowsWhatItWasTold) {
    EXPECT_FALSE(OwnFiles::contains(m_own));
    OwnFiles::add(m_own);
    EXPECT_TRUE(OwnFiles::contains(m_own));
    EXPECT_FALSE(OwnFiles::contains(m_dir.write("Config.log", "{}")));
    EXPECT_FALSE(OwnFiles::contains(m_dir.path()));
    EXPECT_FALSE(OwnFiles::contains(""));
    EXPECT_FALSE(OwnFiles::contains("\xff\xfe"));
}

/// Another spelling, a link and a second name of it are the same file.
TEST_F(OwnFilesTest, KnowsItUnderAnyName) {
    OwnFiles::add(m_own);
    EXPECT_TRUE(OwnFiles::contains(m_dir.path() + "//./x/../Config"));
    fs::create_symlink(m_own, m_dir.file("link"));
    EXPECT_TRUE(OwnFiles::contains(m_dir.file("link")));
    fs::create_hard_link(m_own, m_dir.file("second"));
    EXPECT_TRUE(OwnFiles::contains(m_dir.file("second")));
    fs::create_directory_symlink(m_dir.path(), m_dir.file("folder"));
    EXPECT_TRUE(OwnFiles::contains(m_dir.file("folder/Config")));
    fs::create_symlink("nowhere", m_dir.file("dangling"));
    EXPECT_FALSE(OwnFiles::contains(m_dir.file("dangling")));
}

/// A path that was told relative to the working directory stays what it meant.
TEST_F(OwnFilesTest, KeepsTheMeaningOfARelativePath) {
    const fs::path before = fs::current_path();
    fs::current_path(m_dir.path());
    OwnFiles::add("Config");
    EXPECT_TRUE(OwnFiles::contains("./Config"));
    fs::current_path("/");
    EXPECT_TRUE(OwnFiles::contains(m_own));
    EXPECT_FALSE(OwnFiles::contains("Config"));
    fs::current_path(before);
}

/// A file that is not there yet is known by its path, also through a link to its directory.
TEST_F(OwnFilesTest, KnowsAFileThatIsNotThereYet) {
    OwnFiles::add(m_dir.file("later"));
    fs::create_directory_symlink(m_dir.path(), m_dir.file("folder"));
    EXPECT_TRUE(OwnFiles::contains(m_dir.file("later")));
    EXPECT_TRUE(OwnFiles::contains(m_dir.file("folder/x/../later")));
    m_dir.write("later", "x");
    EXPECT_TRUE(OwnFiles::contains(m_dir.file("folder/later")));
}

/// The temporary file that replaces it belongs to it, also where the file is reached by a link.
TEST_F(OwnFilesTest, CountsTheTemporaryFileThatReplacesIt) {
    OwnFiles::add(m_own);
    const std::string temporary = AtomicFile::temporaryFor(m_own);
    EXPECT_TRUE(OwnFiles::contains(temporary)) << "not there yet";
    m_dir.write(fs::path(temporary).filename().string(), "{}");
    fs::create_hard_link(temporary, m_dir.file("second"));
    EXPECT_TRUE(OwnFiles::contains(m_dir.file("second")));
    fs::create_directory(m_dir.file("real"));
    fs::create_symlink(m_dir.file("real/terms"), m_dir.file("link"));
    OwnFiles::add(m_dir.file("link"));
    EXPECT_TRUE(OwnFiles::contains(AtomicFile::temporaryFor(m_dir.file("real/terms"))));
    EXPECT_FALSE(OwnFiles::contains(m_dir.write("Config.new", "{}")));
}

/// An open file is known by what it is, whatever its name leads to by now.
TEST_F(OwnFilesTest, KnowsAnOpenFileByItsFacts) {
    OwnFiles::add(m_own);
    struct stat facts {};
    ASSERT_EQ(::stat(m_own.c_str(), &facts), 0);
    EXPECT_TRUE(OwnFiles::contains(facts));
    ASSERT_EQ(::stat(m_dir.write("other", "{}").c_str(), &facts), 0);
    EXPECT_FALSE(OwnFiles::contains(facts));
}

/// Which files they are can be taken along: those that are there, their temporary files too.
TEST_F(OwnFilesTest, TellsWhichFilesTheyAre) {
    OwnFiles::add(m_own);
    OwnFiles::add(m_dir.file("not there"));
    struct stat own {};
    ASSERT_EQ(::stat(m_own.c_str(), &own), 0);
    const std::vector<OwnFiles::Identity> before = OwnFiles::identities();
    ASSERT_EQ(before.size(), 1u);
    EXPECT_TRUE(before[0].is(own));
    std::ofstream(AtomicFile::temporaryFor(m_own)) << "{}";
    struct stat temporary {};
    ASSERT_EQ(::stat(AtomicFile::temporaryFor(m_own).c_str(), &temporary), 0);
    EXPECT_FALSE(before[0].is(temporary));
    EXPECT_EQ(OwnFiles::identities().size(), 2u);
}

/// With the store come the files beside it.
TEST_F(OwnFilesTest, CountsWhatLiesBesideTheStore) {
    OwnFiles::addStore(m_dir.file("Db"));
    for (const char* beside :
         {"", "-wal", "-shm", "-journal", ".damaged", ".new", ".rescued", ".lock"})
        EXPECT_TRUE(OwnFiles::contains(m_dir.file("Db") + beside)) << beside;
    EXPECT_FALSE(OwnFiles::contains(m_dir.file("Db.log")));
}

}  // namespace
