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
