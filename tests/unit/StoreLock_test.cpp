#include "StoreLock.h"

#include "support/AppSetup.h"
#include "support/TempDir.h"

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

class StoreLockTest : public ::testing::Test {
  protected:
    const std::string& store() const { return m_store; }

    TempDir m_dir;

  private:
    const std::string m_store = m_dir.file("Db");
};

/// The first one holds the lock, in a file beside the store that names its process.
TEST_F(StoreLockTest, HoldsTheLockAndLeavesItsNumber) {
    const StoreLock lock(store());
    EXPECT_EQ(lock.state(), StoreLock::State::Held);
    EXPECT_EQ(lock.text(), "");
    EXPECT_EQ(m_dir.read("Db.lock"), std::to_string(::getpid()) + "\n");
}

/// A second process is told who holds it, by a link to the store, too.
TEST_F(StoreLockTest, TellsASecondOneWhoHoldsIt) {
    const StoreLock lock(store());
    m_dir.write("Db", "");
    std::filesystem::create_symlink("Db", m_dir.file("link"));
    Child second([this] {
        const StoreLock other(m_dir.file("link"));
        const bool told = other.state() == StoreLock::State::Others &&
                          other.text() == "process " + std::to_string(::getppid());
        ::_exit(told ? 7 : 8);
    });
    EXPECT_EQ(second.exitStatus(), 7);
}

/// The lock ends with its process, whatever ends that; the file stays and hinders nobody.
TEST_F(StoreLockTest, EndsWithItsProcess) {
    {
        Child first([this] {
            const StoreLock lock(store());
            for (;;) ::pause();
        });
        ASSERT_TRUE(
            WaitUntil([this] { return m_dir.has("Db.lock") && !m_dir.read("Db.lock").empty(); }));
        ::kill(first.pid(), SIGKILL);
        const StoreLock next(store());
        EXPECT_EQ(next.state(), StoreLock::State::Held);
    }
    EXPECT_EQ(m_dir.read("Db.lock"), std::to_string(::getpid()) + "\n");
}

/// A command that a process runs does not have its lock.
TEST_F(StoreLockTest, IsNotInheritedByCommands) {
    auto lock = std::make_unique<StoreLock>(store());
    const pid_t command = ::fork();
    if (command == 0) {
        ::execlp("sleep", "sleep", "60", nullptr);
        ::_exit(1);
    }
    const std::string exe = "/proc/" + std::to_string(command) + "/comm";
    ASSERT_TRUE(WaitUntil([&] {
        std::ifstream name(exe);
        std::string text;
        return std::getline(name, text) && text == "sleep";
    }));
    lock.reset();
    EXPECT_EQ(StoreLock(store()).state(), StoreLock::State::Held);
    ::kill(command, SIGKILL);
    ::waitpid(command, nullptr, 0);
}

/// Where there can be no such file it says why, and holds nobody up.
TEST_F(StoreLockTest, SaysWhyThereIsNone) {
    const StoreLock nowhere(m_dir.file("none/Db"));
    EXPECT_EQ(nowhere.state(), StoreLock::State::None);
    EXPECT_EQ(nowhere.text(),
              "cannot open " + m_dir.file("none/Db.lock") + ": No such file or directory");
    ASSERT_EQ(::mkfifo(m_dir.file("Db.lock").c_str(), 0600), 0);
    EXPECT_EQ(StoreLock(store()).text(), "not a regular file: " + m_dir.file("Db.lock"));
}

/// A link in the file's place is not followed: what it leads to is somebody else's.
TEST_F(StoreLockTest, FollowsNoLink) {
    m_dir.write("other", "text");
    std::filesystem::create_symlink("other", m_dir.file("Db.lock"));
    EXPECT_EQ(StoreLock(store()).state(), StoreLock::State::None);
    EXPECT_EQ(m_dir.read("other"), "text");
}

}  // namespace
