#include "WaitingFiles.h"

#include "ClassLog.h"
#include "support/OutputCapture.h"

#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace {

using Outcome = WaitingFiles::Outcome;
using Names = std::vector<std::string>;

constexpr char kFails[] = "kivGateway:Announced files are kept in memory: the store fails\n";
constexpr char kWorks[] = "kivGateway:The store takes announced files again\n";

class WaitingFilesTest : public ::testing::Test {
  protected:
    void add(const std::string& id, const std::string& info = "") {
        m_waiting.add({id, "/tmp/" + id, info});
    }

    bool registerAll() {
        return m_waiting.registerAll([this](const WaitingFiles::File& file) {
            EXPECT_EQ(file.url, "/tmp/" + file.id);
            m_asked.push_back(file.id);
            return m_outcome;
        });
    }

    Outcome m_outcome = Outcome::Registered;
    Names m_asked;
    const ClassLog m_log{"kivGateway:"};
    WaitingFiles m_waiting{m_log};
};

/// Files are registered in the order of their announcements, each once.
TEST_F(WaitingFilesTest, RegistersAllInOrder) {
    EXPECT_FALSE(registerAll());
    for (const char* id : {"b", "a", "c"}) add(id);
    EXPECT_FALSE(m_waiting.isEmpty());
    OutputCapture capture;
    EXPECT_TRUE(registerAll());
    EXPECT_FALSE(registerAll());
    capture.stop();
    EXPECT_EQ(m_asked, (Names{"b", "a", "c"}));
    EXPECT_TRUE(m_waiting.isEmpty());
    EXPECT_EQ(capture.err(), "");
}

/// While the store fails only the first is tried, all wait on, and one line tells so.
TEST_F(WaitingFilesTest, KeepsAllWhileTheStoreFails) {
    add("a");
    add("b");
    m_outcome = Outcome::NotNow;
    OutputCapture capture;
    EXPECT_FALSE(registerAll());
    EXPECT_FALSE(registerAll());
    EXPECT_EQ(m_asked, (Names{"a", "a"}));
    m_outcome = Outcome::Registered;
    EXPECT_TRUE(registerAll());
    capture.stop();
    EXPECT_EQ(m_asked, (Names{"a", "a", "a", "b"}));
    EXPECT_EQ(capture.errWithoutPrefixes(), std::string(kFails) + kWorks);
}

/// One that the store refuses for a reason of its own gets a line and does not hold up the others.
TEST_F(WaitingFilesTest, ARefusedFileHoldsUpNoOther) {
    add("a\n");
    add("b");
    m_outcome = Outcome::Refused;
    OutputCapture capture;
    EXPECT_TRUE(registerAll());
    capture.stop();
    EXPECT_TRUE(m_waiting.isEmpty());
    EXPECT_EQ(capture.errWithoutPrefixes(),
              "kivGateway:File could not be registered: /tmp/a\\x0A\n"
              "kivGateway:File could not be registered: /tmp/b\n");
}

/// A name waits once; the first announcement counts, as in the store.
TEST_F(WaitingFilesTest, ANameWaitsOnce) {
    add("a");
    m_waiting.add({"a", "/another", ""});
    registerAll();
    EXPECT_EQ(m_asked, Names{"a"});
}

/// Beyond 256 files the oldest is dropped, with a line.
TEST_F(WaitingFilesTest, BeyondTheMostFilesTheOldestGoes) {
    OutputCapture capture;
    for (int i = 0; i < 258; ++i) add("f" + std::to_string(i));
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(),
              "kivGateway:Too many announced files: dropped f0\n"
              "kivGateway:Too many announced files: dropped f1\n");
    registerAll();
    ASSERT_EQ(m_asked.size(), 256u);
    EXPECT_EQ(m_asked.front(), "f2");
    EXPECT_EQ(m_asked.back(), "f257");
}

/// Together they take at most 256 KiB: as many of the oldest go as the newest needs. What was
/// registered counts no more.
TEST_F(WaitingFilesTest, BeyondTheMostBytesTheOldestGo) {
    const std::string info(100000, 'i');
    OutputCapture capture;
    add("a", info);
    registerAll();
    for (const char* id : {"b", "c"}) add(id, info);
    EXPECT_EQ(capture.err(), "");
    m_waiting.add({"d", "/tmp/d", std::string(262144 - 7, 'i')});
    capture.stop();
    m_asked.clear();
    registerAll();
    EXPECT_EQ(m_asked, Names{"d"});
}

/// One that is dropped while the store is asked about it takes no other with it.
TEST_F(WaitingFilesTest, OneThatIsDroppedMeanwhileTakesNoOtherAlong) {
    for (int i = 0; i < 256; ++i) add("f" + std::to_string(i));
    OutputCapture capture;
    m_waiting.registerAll([this](const WaitingFiles::File& file) {
        if (m_asked.empty()) add("new");
        m_asked.push_back(file.id);
        return Outcome::Registered;
    });
    capture.stop();
    ASSERT_EQ(m_asked.size(), 257u);
    EXPECT_EQ(m_asked[1], "f1");
    EXPECT_EQ(m_asked.back(), "new");
}

/// What the store's function throws loses nothing.
TEST_F(WaitingFilesTest, AnExceptionLosesNothing) {
    add("a");
    EXPECT_THROW(m_waiting.registerAll([](const WaitingFiles::File&) -> Outcome {
        throw std::runtime_error("no memory");
    }),
                 std::runtime_error);
    EXPECT_TRUE(registerAll());
    EXPECT_EQ(m_asked, Names{"a"});
}

}  // namespace
