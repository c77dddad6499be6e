#include "DirectoryListing.h"

#include <algorithm>
#include <filesystem>
#include <sstream>
#include <vector>

#include <sys/resource.h>
#include <unistd.h>

#include "support/KivTest.h"
#include "support/OutputCapture.h"
#include "support/TempDir.h"

namespace {

namespace fs = std::filesystem;

/// How many descriptors the process may have, as long as this lives.
class DescriptorLimit {
  public:
    explicit DescriptorLimit(rlim_t limit) {
        ::getrlimit(RLIMIT_NOFILE, &m_before);
        const rlimit lowered = {limit, m_before.rlim_max};
        ::setrlimit(RLIMIT_NOFILE, &lowered);
    }
    ~DescriptorLimit() { ::setrlimit(RLIMIT_NOFILE, &m_before); }
    DescriptorLimit(const DescriptorLimit&) = delete;
    DescriptorLimit& operator=(const DescriptorLimit&) = delete;

  private:
    rlimit m_before = {};
};

class DirectoryListingTest : public KivTest {
  protected:
    std::string list() const {
        std::ostringstream out;
        DirectoryListing::listDirectory(dir.path(), out);
        return out.str();
    }

    /// The lines in alphabetical order: a directory's entries come in the system's order.
    std::vector<std::string> sortedLines() const {
        std::vector<std::string> lines;
        std::istringstream in(list());
        for (std::string line; std::getline(in, line);) lines.push_back(line);
        std::sort(lines.begin(), lines.end());
        return lines;
    }

    TempDir dir;
};

}  // namespace

/// Files with their sizes, then the total, then the subdirectories.
TEST_F(DirectoryListingTest, ListsAFileThenTheTotalThenTheSubdirectory) {
    dir.write("a", "0123456789");
    fs::create_directory(dir.file("d"));
    dir.write("d/b", "01234");
    EXPECT_EQ(list(), dir.path() + "/a\t10\n" + "total dir " + dir.path() + "\t10\n" + dir.path() +
                          "/d/b\t5\n" + "total dir " + dir.path() + "/d\t5\n");
}

/// A total counts the files directly in the directory.
TEST_F(DirectoryListingTest, TotalsTheFilesDirectlyInADirectoryOnly) {
    dir.write("a", "123");
    dir.write("b", "4567");
    fs::create_directory(dir.file("d"));
    dir.write("d/c", "89");
    const auto lines = sortedLines();
    const std::vector<std::string> expected = {
        dir.path() + "/a\t3", dir.path() + "/b\t4", dir.path() + "/d/c\t2",
        "total dir " + dir.path() + "\t7", "total dir " + dir.path() + "/d\t2"};
    EXPECT_EQ(lines, expected);
}

/// A total counts the files directly in the directory.
TEST_F(DirectoryListingTest, ListsAnEmptyDirectoryAsItsTotal) {
    EXPECT_EQ(list(), "total dir " + dir.path() + "\t0\n");
}

/// Directories that begin with a dot are left out, files are not.
TEST_F(DirectoryListingTest, LeavesHiddenDirectoriesOutButNotHiddenFiles) {
    fs::create_directory(dir.file(".cache"));
    dir.write(".cache/inside", "1");
    dir.write(".profile", "12");
    EXPECT_EQ(list(), dir.path() + "/.profile\t2\n" + "total dir " + dir.path() + "\t2\n");
}

/// A size that cannot be read is left empty.
TEST_F(DirectoryListingTest, LeavesTheSizeOutWhenItCannotBeRead) {
    ASSERT_EQ(::symlink("nowhere", dir.file("dangling").c_str()), 0);
    EXPECT_EQ(list(), dir.path() + "/dangling\t\n" + "total dir " + dir.path() + "\t0\n");
}

/// Links to directories are not followed.
TEST_F(DirectoryListingTest, DoesNotFollowLinksToDirectories) {
    fs::create_directory(dir.file("d"));
    ASSERT_EQ(::symlink("..", dir.file("d/up").c_str()), 0);
    const auto lines = sortedLines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0].rfind(dir.path() + "/d/up\t", 0), 0u) << lines[0];
    EXPECT_EQ(lines[1], "total dir " + dir.path() + "\t0");
}

/// Files with their sizes, then the total, then the subdirectories.
TEST_F(DirectoryListingTest, ListsSubdirectoriesDepthFirst) {
    fs::create_directories(dir.file("d/e"));
    EXPECT_EQ(list(), "total dir " + dir.path() + "\t0\n" + "total dir " + dir.path() + "/d\t0\n" +
                          "total dir " + dir.path() + "/d/e\t0\n");
}

/// A directory that cannot be opened writes nothing but an error line.
TEST_F(DirectoryListingTest, WritesNothingButAnErrorLineForADirectoryThatCannotBeOpened) {
    OutputCapture output;
    std::ostringstream out;
    DirectoryListing::listDirectory(dir.file("missing"), out);
    output.stop();
    EXPECT_EQ(out.str(), "");
    EXPECT_EQ(output.errWithoutPrefixes(), "kivUpload: Cannot open directory " +
                                               dir.file("missing") +
                                               ": No such file or directory\n");
}

/// It goes deeper than the process may have descriptors.
TEST_F(DirectoryListingTest, GoesDeeperThanTheProcessMayHaveDescriptors) {
    fs::path deep = dir.path();
    for (int depth = 0; depth < 100; ++depth) deep /= "d";
    fs::create_directories(deep);
    const DescriptorLimit limit(64);
    const std::string text = list();
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 101);
}
