#include "MiddlewareTime.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <cstdint>
#include <cstdlib>

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>

#include "ClassLog.h"
#include "KernelTime.h"
#include "support/KivTest.h"
#include "support/LineLimitPeer.h"
#include "support/MiddlewareTimePeer.h"
#include "support/NoThreads.h"
#include "support/OutputCapture.h"
#include "support/TaggedLines.h"
#include "support/TempDir.h"
#include "support/TimePipe.h"
#include "support/WaitUntil.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;

constexpr std::int64_t kTime = 1551953702000;  // UTC ms: 2019-03-07T10:15:02Z
constexpr std::int64_t kMinute = 60000;

using Jump = std::pair<long long, long long>;

class MiddlewareTimeTest : public KivTest {
  protected:
    void SetUp() override {
        KivTest::SetUp();
        MiddlewareTimePeer::setPipePath(m_pipe.path());
    }
    void TearDown() override {
        m_watch.reset();
        MiddlewareTimePeer::setPipePath(MiddlewareTimePeer::productPipe);
        KivTest::TearDown();
    }

    /// Makes each report call `action` before it is noted.
    void onReport(std::function<void()> action) { m_onReport = std::move(action); }

    std::vector<Jump> jumps() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_jumps;
    }
    /// Waits for the report of a jump to `time`.
    bool waitForJumpTo(long long time) {
        return WaitUntil([&] {
            const std::vector<Jump> all = jumps();
            return !all.empty() && all.back().second == time;
        });
    }

    TempDir m_dir;
    const TimePipe m_pipe{m_dir.file("pipe")};
    ClassLog m_log{"Watch: "};
    std::unique_ptr<MiddlewareTime> m_watch = std::make_unique<MiddlewareTime>(
        m_log, [this](long long previous, long long now) { note(previous, now); });

  private:
    void note(long long previous, long long now) {
        if (m_onReport) m_onReport();
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_jumps.emplace_back(previous, now);
    }

    std::function<void()> m_onReport;
    std::mutex m_mutex;  ///< guards m_jumps
    std::vector<Jump> m_jumps;
};

// --- messages -----------------------------------------------------------------------------------

/// Messages, handled on the test's thread.
class MiddlewareMessageTest : public MiddlewareTimeTest {
  protected:
    /// Handles `text` as if it came `afterMs` after the previous message.
    void receive(const std::string& text, std::int64_t afterMs = 0) {
        m_previous.kernelTime = KernelTime::getTimeMonotonicAsInt64() - afterMs;
        MiddlewareTimePeer::handleMessage(*m_watch, text, m_previous);
    }
    /// The lines of handling `text`.
    std::string errorsOf(const std::string& text) {
        OutputCapture capture;
        receive(text);
        capture.stop();
        EXPECT_EQ(capture.out(), "");
        return prefixedLines(capture.err(), "Watch: ");
    }

    MiddlewareTimePeer::Previous m_previous;
};

/// The first message and any jump beyond the kernel's time plus 60000 ms are reported.
TEST_F(MiddlewareMessageTest, ReportsTheFirstMessage) {
    receive("1551953702000");
    EXPECT_THAT(jumps(), ElementsAre(Pair(0, kTime)));
    EXPECT_EQ(m_previous.time, kTime);
}

/// The same time again, and time that runs with the kernel, are not a jump.
TEST_F(MiddlewareMessageTest, TheSameTimeAgainAfterFiveSecondsIsNotAJump) {
    receive("1551953702000");
    receive("1551953702000", 5000);
    EXPECT_THAT(jumps(), ElementsAre(Pair(0, kTime)));
}

/// The first message and any jump beyond the kernel's time plus 60000 ms are reported.
TEST_F(MiddlewareMessageTest, ReportsTwoMinutesAheadAndBack) {
    receive("1551953702000");
    receive("1551953822000", 5000);
    receive("1551953702000", 5000);
    EXPECT_THAT(jumps(), ElementsAre(Pair(0, kTime), Pair(kTime, kTime + 2 * kMinute),
                                     Pair(kTime + 2 * kMinute, kTime)));
}

/// The same time again, and time that runs with the kernel, are not a jump.
TEST_F(MiddlewareMessageTest, TimeThatRunsWithTheKernelIsNotAJump) {
    receive("1551953702000");
    receive("1551954002000", 300000);
    EXPECT_THAT(jumps(), ElementsAre(Pair(0, kTime)));
}

/// The first message and any jump beyond the kernel's time plus 60000 ms are reported.
TEST_F(MiddlewareMessageTest, AMinuteIsNotAJump) {
    receive("1551953702000");
    receive("1551953762000");
    EXPECT_THAT(jumps(), ElementsAre(Pair(0, kTime)));
}

/// Each message is the previous one of the next.
TEST_F(MiddlewareMessageTest, EachMessageIsThePreviousOneOfTheNext) {
    receive("1551953702000");
    const std::int64_t before = KernelTime::getTimeMonotonicAsInt64();
    receive("1551953752000", 5000);
    EXPECT_EQ(m_previous.time, 1551953752000);
    EXPECT_GE(m_previous.kernelTime, before);
    receive("1551953802000");
    EXPECT_THAT(jumps(), ElementsAre(Pair(0, kTime)));
}

/// The first message and any jump beyond the kernel's time plus 60000 ms are reported.
TEST_F(MiddlewareMessageTest, MeasuresJumpsOfAnySizeRight) {
    receive("-9223372036854775808");
    receive("9223372036854775807");
    EXPECT_THAT(jumps(), ElementsAre(Pair(0, INT64_MIN), Pair(INT64_MIN, INT64_MAX)));
}

/// Leading blanks and what follows the number do not matter.
TEST_F(MiddlewareMessageTest, LeadingBlanksAndWhatFollowsTheNumberDoNotMatter) {
    receive(" 1551953702000 ms\n");
    EXPECT_EQ(m_previous.time, kTime);
    EXPECT_THAT(jumps(), ElementsAre(Pair(0, kTime)));
}

/// What is not a number, or out of range, is skipped with "Invalid MW time : ".
TEST_F(MiddlewareMessageTest, SkipsWhatIsNotANumberWithALine) {
    m_previous.time = kTime;
    for (const char* text : {"noon", "-", "", " ms", "x1551953702000"}) {
        EXPECT_EQ(errorsOf(text), std::string("Watch: Invalid MW time : ") + text + "\n");
        EXPECT_EQ(m_previous.time, kTime);
    }
    m_previous.kernelTime = 5;
    OutputCapture quiet;
    MiddlewareTimePeer::handleMessage(*m_watch, "noon", m_previous);
    EXPECT_EQ(m_previous.kernelTime, 5);
    EXPECT_THAT(jumps(), IsEmpty());
}

/// What is not a number, or out of range, is skipped with "Invalid MW time : ".
TEST_F(MiddlewareMessageTest, SkipsANumberOutOfRangeWithALine) {
    EXPECT_EQ(errorsOf("99999999999999999999"), "Watch: Invalid MW time : 99999999999999999999\n");
    EXPECT_EQ(m_previous.time, 0);
    EXPECT_THAT(jumps(), IsEmpty());
}

/// The same invalid message gets one line in 10 s, and then the count of those left out; control
/// characters are escaped.
TEST_F(MiddlewareMessageTest, TellsTheSameInvalidMessageOnceIn10Seconds) {
    EXPECT_EQ(errorsOf("noon\n"), "Watch: Invalid MW time : noon\\x0A\n");
    for (int i = 0; i < 100; ++i) EXPECT_EQ(errorsOf("noon\n"), "");
    LineLimitPeer::pass(MiddlewareTimePeer::invalidLines(*m_watch), LineLimit::spanMs);
    EXPECT_EQ(errorsOf("noon\n"),
              "Watch: Invalid MW time : noon\\x0A (100 more left out before)\n");
}

/// Verbose, each time that arrives is told; otherwise nothing is.
TEST_F(MiddlewareMessageTest, TellsEachTimeWhenVerbose) {
    m_log.setVerbose(true);
    OutputCapture capture;
    receive("1551953702000");
    capture.stop();
    EXPECT_EQ(prefixedLines(capture.out(), "Watch: "), "Watch: MW time = 1551953702000\n");
    m_log.setVerbose(false);
    EXPECT_EQ(errorsOf("1551953702000"), "");
}

// --- the pipe -----------------------------------------------------------------------------------

class TimePipeTest : public MiddlewareTimeTest {
  protected:
    /// The monotonic milliseconds in the prefixes of the lines of `text` that read `line`.
    static std::vector<std::int64_t> momentsOf(const std::string& text, const std::string& line) {
        std::istringstream lines(text);
        std::vector<std::int64_t> moments;
        for (std::string each; std::getline(lines, each);) {
            if (OutputCapture::withoutPrefixes(each) != line) continue;
            moments.push_back(std::strtoll(each.c_str() + 1, nullptr, 10));
        }
        return moments;
    }

    bool isWatching() { return MiddlewareTimePeer::isWatching(*m_watch); }

    static std::size_t openDescriptors() {
        std::size_t count = 0;
        const std::unique_ptr<DIR, int (*)(DIR*)> list(::opendir("/proc/self/fd"), &::closedir);
        while (::readdir(list.get()) != nullptr) ++count;
        return count;
    }
};

/// The pipe is "/tmp/MTKTimePipe", made with mode 0666, or taken as it is.
TEST_F(TimePipeTest, TheProductsPipeIsTheMiddlewares) {
    MiddlewareTimePeer::setPipePath(MiddlewareTimePeer::productPipe);
    EXPECT_EQ(MiddlewareTimePeer::pipePath(), "/tmp/MTKTimePipe");
}

/// The pipe is "/tmp/MTKTimePipe", made with mode 0666, or taken as it is.
TEST_F(TimePipeTest, MakesThePipe) {
    const mode_t mask = ::umask(0);
    m_watch->setWatching(true);
    struct stat status {};
    EXPECT_TRUE(WaitUntil([&] { return ::stat(m_pipe.path().c_str(), &status) == 0; }));
    ::umask(mask);
    EXPECT_TRUE(S_ISFIFO(status.st_mode));
    EXPECT_EQ(status.st_mode & 0777, 0666u);
}

/// The pipe is "/tmp/MTKTimePipe", made with mode 0666, or taken as it is.
TEST_F(TimePipeTest, TakesAPipeThatIsThereAlready) {
    ASSERT_EQ(::mkfifo(m_pipe.path().c_str(), 0600), 0);
    OutputCapture capture;
    m_watch->setWatching(true);
    const int writer = m_pipe.openWriter();
    EXPECT_GE(writer, 0);
    ::close(writer);
    m_watch->setWatching(false);
    capture.stop();
    EXPECT_EQ(capture.out(), "");
    EXPECT_EQ(capture.err(), "");
}

/// The middleware's time is taken from it, and it is opened again when its writer closes.
TEST_F(TimePipeTest, ReportsTheMiddlewaresTime) {
    m_watch->setWatching(true);
    const int writer = m_pipe.openWriter();
    ASSERT_GE(writer, 0);
    TimePipe::send(writer, "1551953702000");
    EXPECT_TRUE(waitForJumpTo(kTime));
    EXPECT_THAT(jumps(), ElementsAre(Pair(0, kTime)));
    ::close(writer);
}

/// The middleware's time is taken from it, and it is opened again when its writer closes.
TEST_F(TimePipeTest, ReopensThePipeWhenTheWriterHasClosedIt) {
    m_watch->setWatching(true);
    for (const std::int64_t time : {kTime, kTime + 10 * kMinute}) {
        const int writer = m_pipe.sendThroughANewWriter(std::to_string(time));
        ASSERT_GE(writer, 0);
        EXPECT_TRUE(waitForJumpTo(time));
        ::close(writer);
    }
}

/// The middleware's time is taken from it, and it is opened again when its writer closes.
TEST_F(TimePipeTest, TheSameTimeAfterAReopeningIsNotAJump) {
    m_log.setVerbose(true);
    OutputCapture capture;
    m_watch->setWatching(true);
    const int first = m_pipe.openWriter();
    ASSERT_GE(first, 0);
    TimePipe::send(first, "1551953702000");
    EXPECT_TRUE(waitForJumpTo(kTime));
    // Another pipe of the same name: only a watcher that opened again reads it.
    ASSERT_EQ(::unlink(m_pipe.path().c_str()), 0);
    ASSERT_EQ(::mkfifo(m_pipe.path().c_str(), 0600), 0);
    ::close(first);
    const int second = m_pipe.openWriter();
    ASSERT_GE(second, 0);
    TimePipe::send(second, "1551953702000");
    const auto received = [&] {
        return momentsOf(capture.out(), "Watch: MW time = 1551953702000");
    };
    EXPECT_TRUE(WaitUntil([&] { return received().size() == 2; }));
    m_watch->setWatching(false);  // ends after the handling
    ::close(second);
    EXPECT_THAT(jumps(), ElementsAre(Pair(0, kTime)));
}

/// What the kernel's time allows the first message counts from the pipe's opening.
TEST_F(TimePipeTest, AFirstTimeBeyondAMinuteAfterTheOpeningIsAJump) {
    m_watch->setWatching(true);
    const int writer = m_pipe.openWriter();
    ASSERT_GE(writer, 0);
    const std::int64_t time = kMinute + KernelTime::getTimeMonotonicAsInt64();
    TimePipe::send(writer, std::to_string(time));
    EXPECT_TRUE(waitForJumpTo(time));
    ::close(writer);
}

/// A message has up to 1024 bytes; what follows is one of its own.
TEST_F(TimePipeTest, ReadsAMessageOfUpTo1024BytesAsOne) {
    OutputCapture capture;
    m_watch->setWatching(true);
    const int writer = m_pipe.openWriter();
    ASSERT_GE(writer, 0);
    TimePipe::send(writer, std::string(500, ' ') + std::to_string(kTime));
    EXPECT_TRUE(waitForJumpTo(kTime));
    const std::string number = std::to_string(kTime + 10 * kMinute);
    TimePipe::send(writer, std::string(1024 - number.size(), ' ') + number);
    EXPECT_TRUE(waitForJumpTo(kTime + 10 * kMinute));
    ::close(writer);
    EXPECT_EQ(prefixedLines(capture.err(), "Watch: "), "");
}

/// A message has up to 1024 bytes; what follows is one of its own.
TEST_F(TimePipeTest, WhatFollows1024BytesIsAMessageOfItsOwn) {
    OutputCapture capture;
    m_watch->setWatching(true);
    const int writer = m_pipe.openWriter();
    ASSERT_GE(writer, 0);
    TimePipe::send(writer, std::string(1024, ' ') + std::to_string(kTime));
    EXPECT_TRUE(waitForJumpTo(kTime));
    ::close(writer);
    EXPECT_EQ(prefixedLines(capture.err(), "Watch: "),
              "Watch: Invalid MW time : " + std::string(256, ' ') + "... (1024 bytes)\n");
}

/// What is not a number, or out of range, is skipped with "Invalid MW time : ".
TEST_F(TimePipeTest, GoesOnAfterAMessageThatIsNotANumber) {
    OutputCapture capture;
    m_watch->setWatching(true);
    const int writer = m_pipe.openWriter();
    ASSERT_GE(writer, 0);
    TimePipe::send(writer, "noon");
    EXPECT_TRUE(WaitUntil([&] {
        return taggedLines(capture.errWithoutPrefixes(), "Watch: ") ==
               "Watch: Invalid MW time : noon\n";
    }));
    TimePipe::send(writer, "1551953702000");
    EXPECT_TRUE(waitForJumpTo(kTime));
    ::close(writer);
}

// --- start and stop -----------------------------------------------------------------------------

/// The start of the watch is told when verbose.
TEST_F(TimePipeTest, SaysThatItStarted) {
    m_log.setVerbose(true);
    OutputCapture capture;
    m_watch->setWatching(true);
    EXPECT_TRUE(WaitUntil([&] {
        return capture.outWithoutPrefixes().find("Watch: checkSystemTimeThread started\n") !=
               std::string::npos;
    }));
    m_watch->setWatching(false);
}

/// It can be stopped in opening and in reading, at any moment, and leaves no descriptor.
TEST_F(TimePipeTest, StopsInTheOpening) {
    m_watch->setWatching(true);
    EXPECT_TRUE(WaitUntil([this] { return m_dir.has("pipe"); }));
    m_watch->setWatching(false);
    EXPECT_FALSE(isWatching());
    EXPECT_TRUE(m_pipe.isUnread());
}

/// It can be stopped in opening and in reading, at any moment, and leaves no descriptor.
TEST_F(TimePipeTest, StopsInTheReadingAndClosesThePipe) {
    m_watch->setWatching(true);
    const int writer = m_pipe.openWriter();
    ASSERT_GE(writer, 0);
    TimePipe::send(writer, "1551953702000");
    EXPECT_TRUE(waitForJumpTo(kTime));  // so it has opened the pipe, and reads
    m_watch->setWatching(false);
    EXPECT_TRUE(m_pipe.isUnread());
    ::close(writer);
}

/// It can be stopped in opening and in reading, at any moment, and leaves no descriptor.
TEST_F(TimePipeTest, StartingAndStoppingLeavesNoDescriptorOpen) {
    m_watch->setWatching(true);
    m_watch->setWatching(false);
    const std::size_t before = openDescriptors();
    for (int i = 0; i < 20; ++i) {
        m_watch->setWatching(true);
        const int writer = m_pipe.openWriter();
        ASSERT_GE(writer, 0);
        m_watch->setWatching(false);
        ::close(writer);
    }
    EXPECT_EQ(openDescriptors(), before);
}

/// It can be stopped in opening and in reading, at any moment, and leaves no descriptor.
TEST_F(TimePipeTest, AReaderThatTheCancellationLostIsClosed) {
    m_watch->setWatching(true);
    const int writer = m_pipe.openWriter();
    ASSERT_GE(writer, 0);
    const int lost = ::open(m_pipe.path().c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(lost, 0);
    m_watch->setWatching(false);
    EXPECT_LT(::fcntl(lost, F_GETFD), 0);
    EXPECT_GE(::fcntl(writer, F_GETFD), 0);
    ::close(writer);
}

/// It can be stopped in opening and in reading, at any moment, and leaves no descriptor.
TEST_F(TimePipeTest, StoppingAtAnyMomentEnds) {
    m_watch->setWatching(true);
    for (int i = 0; i < 200; ++i) {
        m_watch->setWatching(false);
        m_watch->setWatching(true);
    }
    EXPECT_TRUE(isWatching());
}

/// Starting or stopping twice is once.
TEST_F(TimePipeTest, StartingTwiceAndStoppingTwiceIsOnce) {
    m_watch->setWatching(true);
    m_watch->setWatching(true);
    EXPECT_TRUE(isWatching());
    m_watch->setWatching(false);
    m_watch->setWatching(false);
    EXPECT_FALSE(isWatching());
}

/// A watch that cannot be started is told, and can be started later.
TEST_F(TimePipeTest, WithoutAThreadThereIsNoWatchUntilTheNextStart) {
    OutputCapture capture;
    {
        const NoThreads none;
        ASSERT_TRUE(none.done());
        m_watch->setWatching(true);
    }
    capture.stop();
    EXPECT_EQ(prefixedLines(capture.err(), "Watch: "),
              "Watch: Cannot start the checker : Resource temporarily unavailable\n");
    EXPECT_FALSE(isWatching());
    m_watch->setWatching(true);
    EXPECT_TRUE(isWatching());
}

/// A watch that could not be started is started later, unless it was stopped meanwhile.
TEST_F(TimePipeTest, StartsAMissingWatcherLater) {
    const OutputCapture quiet;
    {
        const NoThreads none;
        m_watch->setWatching(true);
        EXPECT_FALSE(m_watch->startMissingThread());
    }
    m_watch->setWatching(false);
    EXPECT_TRUE(m_watch->startMissingThread());
    EXPECT_FALSE(isWatching());
    {
        const NoThreads none;
        m_watch->setWatching(true);
    }
    EXPECT_TRUE(m_watch->startMissingThread());
    EXPECT_TRUE(isWatching());
}

/// It is never cancelled while it handles a message, and cannot stop itself.
TEST_F(TimePipeTest, IsNotCancelledWhileItHandlesAMessage) {
    std::promise<void> reached;
    std::promise<void> goOn;
    onReport([&] {
        reached.set_value();
        goOn.get_future().wait();
        // A series of waits, any of which would be the end of a cancellable thread.
        WaitUntil([] { return false; }, std::chrono::milliseconds(50));
    });
    m_watch->setWatching(true);
    const int writer = m_pipe.openWriter();
    ASSERT_GE(writer, 0);
    TimePipe::send(writer, "1551953702000");
    reached.get_future().wait();
    std::thread stopper([this] { m_watch->setWatching(false); });
    EXPECT_TRUE(WaitUntil([this] { return MiddlewareTimePeer::isBeingStopped(*m_watch); }));
    goOn.set_value();
    stopper.join();
    EXPECT_THAT(jumps(), ElementsAre(Pair(0, kTime)));
    ::close(writer);
}

/// It is never cancelled while it handles a message, and cannot stop itself.
TEST_F(TimePipeTest, DoesNotStopItself) {
    onReport([this] { m_watch->setWatching(false); });
    OutputCapture capture;
    m_watch->setWatching(true);
    const int writer = m_pipe.openWriter();
    ASSERT_GE(writer, 0);
    TimePipe::send(writer, "1551953702000");
    EXPECT_TRUE(waitForJumpTo(kTime));
    capture.stop();
    EXPECT_EQ(taggedLines(capture.errWithoutPrefixes(), "Watch: "),
              "Watch: The checker cannot stop or start itself\n");
    EXPECT_TRUE(isWatching());
    ::close(writer);
}

/// Destroying it stops the watch.
TEST_F(TimePipeTest, DestroyingItStopsTheWatch) {
    m_watch->setWatching(true);
    const int writer = m_pipe.openWriter();
    ASSERT_GE(writer, 0);
    m_watch.reset();
    EXPECT_TRUE(m_pipe.isUnread());
    ::close(writer);
}

// --- failures -----------------------------------------------------------------------------------

/// A pipe that cannot be made or opened gets "Cannot create fifo : " and "Cannot open fifo : ";
/// a file in its place is a failed opening.
TEST_F(TimePipeTest, APipeThatCannotBeMadeOrOpenedIsReportedAndTriedAgainLater) {
    MiddlewareTimePeer::setPipePath(m_dir.file("missing/pipe"));
    OutputCapture capture;
    m_watch->setWatching(true);
    const std::string lines =
        "Watch: Cannot create fifo : No such file or directory\n"
        "Watch: Cannot open fifo : No such file or directory\n";
    EXPECT_TRUE(
        WaitUntil([&] { return taggedLines(capture.errWithoutPrefixes(), "Watch: ") == lines; }));
    // The pause of ten seconds does not hold up who stops the watch.
    const auto begin = std::chrono::steady_clock::now();
    m_watch->setWatching(false);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
    capture.stop();
    EXPECT_EQ(taggedLines(capture.errWithoutPrefixes(), "Watch: "), lines);
}

/// A failed opening is tried again 10 s later, also after an earlier stop.
TEST_F(TimePipeTest, PausesForTenSecondsAfterAFailedOpening) {
    m_watch->setWatching(true);
    m_watch->setWatching(false);
    MiddlewareTimePeer::setPipePath(m_dir.file("missing/pipe"));
    OutputCapture capture;
    m_watch->setWatching(true);
    const auto failures = [&] {
        return momentsOf(capture.err(), "Watch: Cannot open fifo : No such file or directory");
    };
    ASSERT_TRUE(WaitUntil([&] { return failures().size() >= 2; }, std::chrono::seconds(60)));
    m_watch->setWatching(false);
    const std::vector<std::int64_t> at = failures();
    EXPECT_GE(at[1] - at[0], 9999);  // both are rounded down
    EXPECT_LT(at[1] - at[0], 30000);
}

/// A pipe that cannot be made or opened gets "Cannot create fifo : " and "Cannot open fifo : ";
/// a file in its place is a failed opening.
TEST_F(TimePipeTest, AFileThatIsNotAPipeIsAFailedOpening) {
    m_dir.write("pipe", "1551953702000");
    OutputCapture capture;
    m_watch->setWatching(true);
    const std::string line = "Watch: Cannot open fifo : Not a named pipe\n";
    EXPECT_TRUE(
        WaitUntil([&] { return taggedLines(capture.errWithoutPrefixes(), "Watch: ") == line; }));
    m_watch->setWatching(false);
    capture.stop();
    EXPECT_EQ(taggedLines(capture.errWithoutPrefixes(), "Watch: "), line);
    EXPECT_THAT(jumps(), IsEmpty());
    EXPECT_EQ(m_dir.read("pipe"), "1551953702000");
}

}  // namespace
