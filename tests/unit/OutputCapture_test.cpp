#include "support/OutputCapture.h"

#include "support/TaggedLines.h"

#include <iostream>

#include <cstdio>

#include <unistd.h>

#include <gtest/gtest.h>

/// The tests' output capture collects what is written through C++ streams, through C's stdio and to
/// the descriptor itself.
TEST(OutputCapture, CollectsWhicheverWayItIsWritten) {
    OutputCapture capture;
    std::cout << "stream,";
    std::cout.flush();
    std::printf("stdio,");
    std::fflush(stdout);
    const bool written = ::write(STDOUT_FILENO, "descriptor", 10) == 10;
    std::cerr << "stream,";
    std::fputs("stdio", stderr);
    capture.stop();
    EXPECT_TRUE(written);
    EXPECT_EQ(capture.out(), "stream,stdio,descriptor");
    EXPECT_EQ(capture.err(), "stream,stdio");
}

/// The text captured so far can be read while the capture goes on.
TEST(OutputCapture, ShowsTheTextSoFar) {
    OutputCapture capture;
    std::cout << "one";
    EXPECT_EQ(capture.out(), "one");
    std::cout << "two";
    EXPECT_EQ(capture.out(), "onetwo");
}

/// A stopped capture collects nothing more, and may be stopped twice.
TEST(OutputCapture, CollectsNothingAfterItsStop) {
    OutputCapture outer;
    OutputCapture inner;
    inner.stop();
    inner.stop();
    std::cout << "after";
    outer.stop();
    EXPECT_EQ(inner.out(), "");
    EXPECT_EQ(outer.out(), "after");
}

/// The capture can take the diagnostic prefix off each line and leaves the rest as it was.
TEST(OutputCapture, CutsOffThePrefixesAndNothingElse) {
    EXPECT_EQ(OutputCapture::withoutPrefixes("[523411](812,815) kivDB: x\n"
                                             "[523412](812,816) [5](a,b) y\nz\n"),
              "kivDB: x\n[5](a,b) y\nz\n");
}

/// A prefix is taken off only at the beginning of a line, and only once.
TEST(OutputCapture, LeavesAPrefixThatDoesNotBeginItsLine) {
    EXPECT_EQ(OutputCapture::withoutPrefixes("[1](2,3) a [4](5,6) b\n"
                                             " [7](8,9) c\n"
                                             "[1](2,3) [4](5,6) d"),
              "a [4](5,6) b\n [7](8,9) c\n[4](5,6) d");
}

/// Empty lines, and a last line without a line feed, stay when the prefixes are taken off.
TEST(OutputCapture, KeepsEmptyLinesAndALastLineWithoutItsEnd) {
    EXPECT_EQ(OutputCapture::withoutPrefixes(""), "");
    EXPECT_EQ(OutputCapture::withoutPrefixes("\n\n[1](2,3) \n"), "\n\n\n");
    EXPECT_EQ(OutputCapture::withoutPrefixes("a\n[1](2,3) b"), "a\nb");
}

/// Only a complete prefix, "[milliseconds](process,thread) ", counts as one.
TEST(OutputCapture, MeasuresOnlyAWholePrefix) {
    EXPECT_EQ(OutputCapture::prefixLength("[523411](812,815) kivDB: x"), 18U);
    for (const char* line : {"", "kivDB: x", "[1](2,3)x", "[1](2) x", "[](2,3) x", "[1] (2,3) x",
                             "[-1](2,3) x", "[1](2,3,4) x"}) {
        EXPECT_EQ(OutputCapture::prefixLength(line), 0U) << line;
    }
}

/// The lines of one class can be asked for with the prefix or without it.
TEST(OutputCapture, TellsLinesWithAPrefixFromLinesWithout) {
    const std::string text =
        "[1](2,3) kivDB: one\nkivDB: two\n[1](2,3) other: three\n [1](2,3) kivDB: four\n";
    EXPECT_EQ(prefixedLines(text, "kivDB: "), "kivDB: one\n");
    EXPECT_EQ(taggedLines(text, "kivDB: "), "kivDB: two\n");
}
