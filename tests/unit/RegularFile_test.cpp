#include "RegularFile.h"

#include "support/NoDescriptors.h"
#include "support/TempDir.h"

#include <filesystem>
#include <string>

#include <errno.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

namespace {

class RegularFileTest : public ::testing::Test {
  protected:
    void expectUnreadable(const std::string& path) const {
        const RegularFile file(path);
        EXPECT_FALSE(file.isRead()) << path;
        EXPECT_FALSE(file.isMissing()) << path;
        EXPECT_FALSE(file.cannotBeReadNow()) << path;
        EXPECT_EQ(file.text(), "") << path;
    }

    TempDir m_directory;
};

/// The text of a file is read whole, whatever bytes it has; a link is followed.
TEST_F(RegularFileTest, ReadsTheWholeText) {
    for (const std::string& text : {std::string(), std::string("text\n"), std::string("a\0\xff", 3),
                                    std::string(9000, 'x')}) {
        const RegularFile file(m_directory.write("file", text));
        EXPECT_TRUE(file.isRead());
        EXPECT_EQ(file.text(), text);
    }
    std::filesystem::create_symlink("file", m_directory.file("link"));
    EXPECT_TRUE(RegularFile(m_directory.file("link")).isRead());
}

/// Files of the kernel's own, which have no size, are read too.
TEST_F(RegularFileTest, ReadsAFileWithoutASize) {
    const RegularFile file("/proc/self/stat");
    EXPECT_TRUE(file.isRead());
    EXPECT_NE(file.text(), "");
}

/// Nothing of that name, or a way that leads nowhere, is missing.
TEST_F(RegularFileTest, TellsWhatIsMissing) {
    m_directory.write("file", "");
    std::filesystem::create_symlink("nothing", m_directory.file("link"));
    for (const char* name : {"nothing", "nothing/below", "file/below", "link"}) {
        const RegularFile file(m_directory.file(name));
        EXPECT_TRUE(file.isMissing()) << name;
        EXPECT_FALSE(file.isRead()) << name;
    }
    EXPECT_TRUE(RegularFile("").isMissing());
}

/// A pipe without a writer, a device and a directory are unreadable, and nobody waits for them.
TEST_F(RegularFileTest, WaitsForNothingThatIsNoFile) {
    ASSERT_EQ(::mkfifo(m_directory.file("pipe").c_str(), 0600), 0);
    expectUnreadable(m_directory.file("pipe"));
    expectUnreadable("/dev/zero");
    expectUnreadable(m_directory.path());
}

/// A file that is there and cannot be read now is told from one that never can be: want of
/// descriptors, a disk that fails in the middle.
TEST_F(RegularFileTest, TellsWhatCannotBeReadNow) {
    const std::string path = m_directory.write("file", "text");
    std::filesystem::create_symlink("/proc/self/mem", m_directory.file("failing"));
    const auto without = [&path] {
        const NoDescriptors none;
        return RegularFile(path);
    };
    const RegularFile unopened = without();
    EXPECT_TRUE(unopened.cannotBeReadNow());
    EXPECT_EQ(unopened.error(), EMFILE);
    const RegularFile failing(m_directory.file("failing"));
    EXPECT_TRUE(failing.cannotBeReadNow());
    EXPECT_EQ(failing.error(), EIO);
    for (const RegularFile& file : {unopened, failing}) {
        EXPECT_FALSE(file.isRead());
        EXPECT_FALSE(file.isMissing());
        EXPECT_EQ(file.text(), "");
    }
    EXPECT_FALSE(RegularFile(path).cannotBeReadNow());
    EXPECT_FALSE(RegularFile(m_directory.file("nothing")).cannotBeReadNow());
}

/// A file of 1 MiB is read, a longer one is not.
TEST_F(RegularFileTest, ReadsAFileOfTheLimitAndNoMore) {
    const std::string longest(RegularFile::longest, 'x');
    EXPECT_EQ(RegularFile(m_directory.write("file", longest)).text(), longest);
    expectUnreadable(m_directory.write("file", longest + "x"));
}

}  // namespace
