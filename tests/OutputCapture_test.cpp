#include "support/OutputCapture.h"

#include <iostream>

#include <cstdio>

#include <unistd.h>

#include <gtest/gtest.h>

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

TEST(OutputCapture, ShowsTheTextSoFar) {
    OutputCapture capture;
    std::cout << "one";
    EXPECT_EQ(capture.out(), "one");
    std::cout << "two";
    EXPECT_EQ(capture.out(), "onetwo");
}

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

TEST(OutputCapture, CutsOffThePrefixesAndNothingElse) {
    EXPECT_EQ(OutputCapture::withoutPrefixes("[523411](812,815) kivDB: x\n"
                                             "[523412](812,816) [5](a,b) y\nz\n"),
              "kivDB: x\n[5](a,b) y\nz\n");
}
