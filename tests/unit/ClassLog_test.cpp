#include "ClassLog.h"

#include "support/OutputCapture.h"

#include <string>

#include <cerrno>

#include <gtest/gtest.h>

namespace {

/// Counts how often it was asked for its text.
struct Costly {
    mutable int asked = 0;
};

}  // namespace

/// A class's information line is one prefix, the class's tag and the pieces, on standard output.
TEST(ClassLog, WritesTagAndPiecesAsOneLine) {
    ClassLog log("kivTest: ");
    log.setVerbose(true);
    OutputCapture capture;
    log.info("size ", 5, " of ", std::string("seven"), " ", 2.5);
    capture.stop();
    EXPECT_EQ(capture.outWithoutPrefixes(), "kivTest: size 5 of seven 2.5\n");
    EXPECT_EQ(capture.err(), "");
}

/// Silent, a class writes no information line and formats nothing for it.
TEST(ClassLog, MakesNoPieceOfALineThatIsNotWritten) {
    ClassLog log("kivTest: ");
    const Costly piece;
    const auto text = [&piece] {
        ++piece.asked;
        return std::string("made");
    };
    OutputCapture capture;
    log.info("silent ", text);
    EXPECT_EQ(piece.asked, 0);
    log.setVerbose(true);
    log.info("verbose ", text);
    capture.stop();
    EXPECT_EQ(piece.asked, 1);
    EXPECT_EQ(capture.outWithoutPrefixes(), "kivTest: verbose made\n");
}

/// Error lines, and those that a class always writes, do not ask the switch.
TEST(ClassLog, WritesErrorsWhetherVerboseOrNot) {
    const ClassLog log("kivTest: ");
    OutputCapture capture;
    log.error("failed: ", 7);
    log.always("took ", 3, "ms");
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(), "kivTest: failed: 7\n");
    EXPECT_EQ(capture.outWithoutPrefixes(), "kivTest: took 3ms\n");
}

/// A class whose switch is a public member is verbose when that member says so.
TEST(ClassLog, FollowsAPublicSwitch) {
    bool verbose = false;
    const ClassLog log("kivTest: ", verbose);
    EXPECT_FALSE(log.isVerbose());
    verbose = true;
    EXPECT_TRUE(log.isVerbose());
}

/// A null text is an empty one and does not end the line.
TEST(ClassLog, TakesANullTextForAnEmptyOne) {
    const ClassLog log("kivTest: ");
    const char* const none = nullptr;
    OutputCapture capture;
    log.error("[", none, "]");
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(), "kivTest: []\n");
}

/// The text of an errno is the C library's.
TEST(ClassLog, NamesAnErrno) {
    EXPECT_EQ(ClassLog::errnoText(ENOENT), "No such file or directory");
    EXPECT_EQ(ClassLog::errnoText(ENOSPC), "No space left on device");
}

/// Plain foreign text, beyond ASCII too, stands in a line as it is.
TEST(ClassLog, LeavesPlainForeignTextAsItIs) {
    EXPECT_EQ(ClassLog::foreign(""), "");
    EXPECT_EQ(ClassLog::foreign("caf\u00E9 \u20AC \U0001F4FA"), "caf\u00E9 \u20AC \U0001F4FA");
}

/// Foreign text cannot end a line, move the cursor or pretend an escape.
TEST(ClassLog, EscapesControlCharactersOfForeignText) {
    EXPECT_EQ(ClassLog::foreign("a\n[1](2,3) b\r\x1B[2J\t\\\x7F"),
              "a\\x0A[1](2,3) b\\x0D\\x1B[2J\\x09\\x5C\\x7F");
    EXPECT_EQ(ClassLog::foreign(std::string("\0x", 2)), "\\x00x");
}

/// Bytes of foreign text that are not UTF-8 are shown by their numbers.
TEST(ClassLog, EscapesWhatIsNotUtf8) {
    EXPECT_EQ(ClassLog::foreign("\xFFz"), "\\xFFz");
    EXPECT_EQ(ClassLog::foreign("\xC3"), "\\xC3");
    EXPECT_EQ(ClassLog::foreign("\xC0\x80"), "\\xC0\\x80");
    EXPECT_EQ(ClassLog::foreign("\xE0\x80\x80"), "\\xE0\\x80\\x80");
    EXPECT_EQ(ClassLog::foreign("\xED\xA0\x80"), "\\xED\\xA0\\x80");
    EXPECT_EQ(ClassLog::foreign("\xF0\x80\x80\x80"), "\\xF0\\x80\\x80\\x80");
    EXPECT_EQ(ClassLog::foreign("\xF4\x90\x80\x80"), "\\xF4\\x90\\x80\\x80");
    EXPECT_EQ(ClassLog::foreign("\xE2\x82z"), "\\xE2\\x82z");
}

/// Of a long foreign text a line shows 256 characters and says how long it was.
TEST(ClassLog, CutsLongForeignText) {
    EXPECT_EQ(ClassLog::foreign(std::string(256, 'a')), std::string(256, 'a'));
    EXPECT_EQ(ClassLog::foreign(std::string(257, 'a')), std::string(256, 'a') + "... (257 bytes)");
    std::string wide;
    for (int i = 0; i < 300; ++i) wide += "\u20AC";
    EXPECT_EQ(ClassLog::foreign(wide), wide.substr(0, 768) + "... (900 bytes)");
}
