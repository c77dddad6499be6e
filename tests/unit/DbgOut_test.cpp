#include "DbgOut.h"

#include "KernelTime.h"
#include "support/OutputCapture.h"

#include <iostream>
#include <iterator>
#include <regex>
#include <sstream>
#include <string>
#include <thread>

#include <sys/syscall.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

long threadId() {
    return ::syscall(SYS_gettid);
}

/// The parts of the first prefix in `text`.
struct Prefix {
    explicit Prefix(const std::string& text) {
        static const std::regex form(R"(\[(\d+)\]\((\d+),(\d+)\) )");
        std::smatch parts;
        if (!std::regex_search(text, parts, form)) return;
        found = parts.position(0) == 0;
        ms = std::stoll(parts[1]);
        process = std::stol(parts[2]);
        thread = std::stol(parts[3]);
        rest = parts.suffix();
    }
    bool found = false;
    long long ms = 0;
    long process = 0;
    long thread = 0;
    std::string rest;
};

long prefixesIn(const std::string& text) {
    static const std::regex form(R"(\[\d+\]\(\d+,\d+\) )");
    return std::distance(std::sregex_iterator(text.begin(), text.end(), form),
                         std::sregex_iterator());
}

/// Writes a line before any static initialiser of default priority, the globals' own file
/// included, has run.
struct EarlyWriter {
    EarlyWriter() {
        const std::ios_base::Init standardStreams;
        std::stringbuf caught;
        std::streambuf* const usual = std::cout.rdbuf(&caught);
        coutdbg << "early" << std::endl;
        std::cout.rdbuf(usual);
        line = caught.str();
    }
    std::string line;
};
__attribute__((init_priority(101))) EarlyWriter earlyWriter;

}  // namespace

/// The prefix is "[milliseconds](process,thread) " with the monotonic clock, the process id and
/// the kernel thread id.
///
/// Time stamps are those of the monotonic clock and never go back.
TEST(DbgOut, BeginsALineWithTimeProcessAndThread) {
    std::ostringstream out;
    DbgOut dbg(out);
    const long long before = KernelTime::getTimeMonotonicAsInt64();
    dbg.PrintPrefix();
    const long long after = KernelTime::getTimeMonotonicAsInt64();

    const Prefix prefix(out.str());
    ASSERT_TRUE(prefix.found) << out.str();
    EXPECT_GE(prefix.ms, before);
    EXPECT_LE(prefix.ms, after);
    EXPECT_EQ(prefix.process, ::getpid());
    EXPECT_EQ(prefix.thread, threadId());
    EXPECT_EQ(prefix.rest, "");
}

/// A chained statement gets one prefix, at its beginning.
///
/// `coutdbg` writes to standard output, `cerrdbg` to standard error only.
TEST(DbgOut, WritesOnePrefixForAChainedStatement) {
    OutputCapture capture;
    coutdbg << "TimeMgr: "
            << "x" << 5 << std::endl;
    capture.stop();

    const Prefix prefix(capture.out());
    ASSERT_TRUE(prefix.found) << capture.out();
    EXPECT_EQ(prefix.rest, "TimeMgr: x5\n");
    EXPECT_EQ(capture.err(), "");
}

/// Two inserts into the wrapper itself get two prefixes.
TEST(DbgOut, WritesAPrefixForEachOfTwoInsertsIntoTheWrapper) {
    std::ostringstream out;
    DbgOut dbg(out);
    dbg << "a\n";
    dbg << "b\n";
    EXPECT_EQ(prefixesIn(out.str()), 2);
    EXPECT_EQ(OutputCapture::withoutPrefixes(out.str()), "a\nb\n");
}

/// A string is written like a C text; both return the bound stream.
TEST(DbgOut, TakesAStringLikeAText) {
    std::ostringstream out;
    DbgOut dbg(out);
    dbg << std::string("kivDB: ") << "opened";
    const Prefix prefix(out.str());
    ASSERT_TRUE(prefix.found) << out.str();
    EXPECT_EQ(prefix.rest, "kivDB: opened");
}

/// A string is written like a C text; both return the bound stream.
TEST(DbgOut, ReturnsTheBoundStream) {
    std::ostringstream out;
    DbgOut dbg(out);
    EXPECT_EQ(&(dbg << "text"), &out);
    EXPECT_EQ(&(dbg << std::string("text")), &out);
}

/// `coutdbg` writes to standard output, `cerrdbg` to standard error only.
TEST(DbgOut, SendsErrorsToStandardErrorOnly) {
    OutputCapture capture;
    cerrdbg << "kivGateway:"
            << "no queue" << std::endl;
    capture.stop();

    const Prefix prefix(capture.err());
    ASSERT_TRUE(prefix.found) << capture.err();
    EXPECT_EQ(prefix.rest, "kivGateway:no queue\n");
    EXPECT_EQ(capture.out(), "");
}

/// The prefix is decimal whatever the stream's flags.
TEST(DbgOut, PrintsThePrefixInDecimalWhateverTheStreamsFlags) {
    std::ostringstream out;
    out << std::hex << std::showbase << std::showpos;
    DbgOut dbg(out);
    dbg << "x";
    const Prefix prefix(out.str());
    ASSERT_TRUE(prefix.found) << out.str();
    EXPECT_EQ(prefix.process, ::getpid());
    EXPECT_EQ(prefix.rest, "x");
}

/// The thread id is that of the thread that writes.
TEST(DbgOut, NamesTheWritingThread) {
    std::ostringstream out;
    DbgOut dbg(out);
    long writer = 0;
    std::thread([&] {
        writer = threadId();
        dbg << "x";
    }).join();
    EXPECT_NE(writer, threadId());
    EXPECT_EQ(Prefix(out.str()).thread, writer);
}

/// Time stamps are those of the monotonic clock and never go back.
TEST(DbgOut, StampsNeverGoBack) {
    std::ostringstream out;
    DbgOut dbg(out);
    dbg << "";
    const long long first = Prefix(out.str()).ms;
    while (KernelTime::getTimeMonotonicAsInt64() == first) std::this_thread::yield();
    out.str("");
    dbg << "";
    EXPECT_GT(Prefix(out.str()).ms, first);
}

/// A null text gives the prefix alone and leaves the stream usable.
TEST(DbgOut, WritesAPrefixAloneForANullText) {
    std::ostringstream out;
    DbgOut dbg(out);
    dbg << static_cast<const char*>(nullptr) << "after";
    EXPECT_EQ(Prefix(out.str()).rest, "after");
    EXPECT_TRUE(out.good());
}

/// Both streams can be used before main.
TEST(DbgOut, IsReadyForStaticInitialisers) {
    const Prefix prefix(earlyWriter.line);
    ASSERT_TRUE(prefix.found) << earlyWriter.line;
    EXPECT_EQ(prefix.rest, "early\n");
}
