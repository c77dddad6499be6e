#include "SenderSemaphore.h"

#include "ClassLog.h"
#include "support/GatewaySetup.h"
#include "support/OutputCapture.h"
#include "support/SystemCallFaults.h"

#include <algorithm>
#include <cstddef>
#include <fstream>
#include <string>
#include <vector>

#include <errno.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

/// A file, or something else, where the system keeps its named semaphores.
class Place {
  public:
    Place() : m_name(uniqueName("sem")) {}
    ~Place() {
        if (::unlink(path().c_str()) != 0) ::rmdir(path().c_str());
    }
    Place(const Place&) = delete;
    Place& operator=(const Place&) = delete;

    const std::string& name() const { return m_name; }
    std::string path() const { return pathOf(m_name); }
    void write(const std::string& content) const { std::ofstream(path()) << content; }

    static std::string pathOf(const std::string& name) { return "/dev/shm/sem." + name.substr(1); }

  private:
    std::string m_name;
};

std::string contentOf(const NamedSemaphore& semaphore) {
    return TempDir::readFile(Place::pathOf(semaphore.name()));
}

class SenderSemaphoreTest : public KivTest {
  protected:
    void TearDown() override {
        SystemCallFaults::clear();
        KivTest::TearDown();
    }

    /// @return what posting it writes on standard error
    std::string post(const std::string& name) const {
        OutputCapture capture;
        SenderSemaphore(name, m_log).post();
        capture.stop();
        return capture.errWithoutPrefixes();
    }

    static std::string cannotOpen(const Place& place, const std::string& why) {
        return "kivGateway:Cannot open semaphore " + place.name() + ": " + why + "\n";
    }

    ClassLog m_log{"kivGateway:"};
};

/// A semaphore is posted once, whatever it counts and however its name begins.
TEST_F(SenderSemaphoreTest, PostsASemaphore) {
    const NamedSemaphore done;
    EXPECT_EQ(post(done.name()), "");
    EXPECT_EQ(done.value(), 1);
    EXPECT_EQ(post(done.name().substr(1)), "");
    EXPECT_EQ(post("//" + done.name()), "");
    EXPECT_EQ(done.value(), 3);
    const NamedSemaphore large(SEM_VALUE_MAX - 1);
    EXPECT_EQ(post(large.name()), "");
    EXPECT_EQ(large.value(), SEM_VALUE_MAX);
}

/// A sender that waits is woken.
TEST_F(SenderSemaphoreTest, WakesASenderThatWaits) {
    const NamedSemaphore done;
    sem_t* const sender = ::sem_open(done.name().c_str(), 0);
    ASSERT_NE(sender, SEM_FAILED);
    std::thread waiting([sender] { ::sem_wait(sender); });
    EXPECT_EQ(post(done.name()), "");
    waiting.join();
    ::sem_close(sender);
    EXPECT_EQ(done.value(), 0);
}

/// What cannot be opened, posted or closed gets its line with the system's reason.
TEST_F(SenderSemaphoreTest, SaysWhatTheSystemRefuses) {
    const Place none;
    EXPECT_EQ(post(none.name()), cannotOpen(none, "No such file or directory"));
    EXPECT_EQ(post("/"), "kivGateway:Cannot open semaphore /: Invalid argument\n");
    EXPECT_NE(post("/a/b").find("kivGateway:Cannot open semaphore /a/b: "), std::string::npos);
    EXPECT_NE(post(std::string(400, 'x')).find("File name too long"), std::string::npos);
    const NamedSemaphore full(SEM_VALUE_MAX);
    EXPECT_EQ(post(full.name()), "kivGateway:Cannot post sem " + full.name() +
                                     ": Value too large for defined data type\n");
    SystemCallFaults::closeSemaphoreError = EINVAL;
    const NamedSemaphore done;
    EXPECT_EQ(post(done.name()),
              "kivGateway:Cannot close sem " + done.name() + ": Invalid argument\n");
    EXPECT_EQ(done.value(), 1);
}

/// A file that is shorter or longer than a semaphore is not opened: the first access would end the
/// daemon.
TEST_F(SenderSemaphoreTest, RefusesAFileOfAnotherSize) {
    const Place file;
    for (const std::size_t size :
         {std::size_t{0}, std::size_t{1}, sizeof(sem_t) - 1, sizeof(sem_t) + 1}) {
        file.write(std::string(size, '\0'));
        EXPECT_EQ(post(file.name()), cannotOpen(file, "not the size of a semaphore")) << size;
        EXPECT_EQ(TempDir::readFile(file.path()), std::string(size, '\0')) << "untouched";
    }
}

/// A file that holds garbage is not posted: the C library would end the daemon.
TEST_F(SenderSemaphoreTest, RefusesAFileOfGarbage) {
    const Place file;
    std::vector<std::string> garbage = {
        std::string(sizeof(sem_t), '\xff'), std::string(sizeof(sem_t), '\xab'),
        std::string(sizeof(sem_t), '\0'), std::string(sizeof(sem_t), 'x')};
    const NamedSemaphore good;
    for (std::size_t byte = sizeof(int); byte < 16; ++byte) {
        std::string broken = contentOf(good);
        broken[byte] = '\x5a';
        garbage.push_back(broken);
    }
    std::size_t refused = 0;
    for (const std::string& content : garbage) {
        file.write(content);
        const std::string said = post(file.name());
        if (said.empty()) continue;
        ++refused;
        EXPECT_EQ(said, cannotOpen(file, "not a semaphore"));
        EXPECT_EQ(TempDir::readFile(file.path()), content) << "untouched";
    }
    // A changed byte among the lower ones of the count of waiters may be true.
    EXPECT_GE(refused, garbage.size() - 3);
}

/// A directory, a pipe and a link are not opened, the link neither when it leads to a semaphore.
TEST_F(SenderSemaphoreTest, RefusesWhatIsNotARegularFile) {
    const Place directory;
    ASSERT_EQ(::mkdir(directory.path().c_str(), 0700), 0);
    EXPECT_EQ(post(directory.name()), cannotOpen(directory, "not a regular file"));
    const Place pipe;
    ASSERT_EQ(::mkfifo(pipe.path().c_str(), 0600), 0);
    EXPECT_EQ(post(pipe.name()), cannotOpen(pipe, "not a regular file"));
    const NamedSemaphore good;
    const Place link;
    ASSERT_EQ(::symlink(Place::pathOf(good.name()).c_str(), link.path().c_str()), 0);
    EXPECT_EQ(post(link.name()), cannotOpen(link, "not a regular file"));
    EXPECT_EQ(good.value(), 0);
}

/// A semaphore that the daemon may not open gets the line with the system's reason.
TEST_F(SenderSemaphoreTest, SaysWhichSemaphoreItMayNotOpen) {
    const NamedSemaphore other;
    ASSERT_EQ(::chmod(Place::pathOf(other.name()).c_str(), 0), 0);
    const bool isRoot = ::geteuid() == 0;
    ASSERT_EQ(isRoot ? ::seteuid(65534) : 0, 0);
    const std::string said = post(other.name());
    ASSERT_EQ(isRoot ? ::seteuid(0) : 0, 0);
    EXPECT_EQ(said, "kivGateway:Cannot open semaphore " + other.name() + ": Permission denied\n");
    EXPECT_EQ(other.value(), 0);
}

/// A name from outside stands cut and escaped in its line.
TEST_F(SenderSemaphoreTest, CutsAndEscapesTheNameInItsLine) {
    EXPECT_EQ(post("/no\nsuch"),
              "kivGateway:Cannot open semaphore /no\\x0Asuch: No such file or directory\n");
    EXPECT_EQ(post(std::string(5000, 'x')), "kivGateway:Cannot open semaphore " +
                                                std::string(256, 'x') +
                                                "... (5000 bytes): File name too long\n");
}

}  // namespace
