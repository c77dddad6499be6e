#include "Status.h"

#include "support/KivTest.h"

#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

class StatusTest : public KivTest {};

}  // namespace

/// Counts begin at 0 and add up, whichever threads count.
TEST_F(StatusTest, CountsAddUpOverThreads) {
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([] {
            for (int n = 0; n < 1000; ++n) Status::count(Status::Received);
        });
    }
    for (std::thread& thread : threads) thread.join();
    Status::count(Status::EventsSent, 7);
    EXPECT_EQ(Status::counted(Status::Received), 4000U);
    EXPECT_EQ(Status::counted(Status::EventsSent), 7U);
    EXPECT_EQ(Status::counted(Status::Dropped), 0U);
}

/// What is told again is not a change, and so asks for no new document.
TEST_F(StatusTest, TheSameFactAgainIsNoChange) {
    Status::set(Status::Network, -1);
    const std::uint64_t changes = Status::changes();
    Status::set(Status::Network, -1);
    EXPECT_EQ(Status::changes(), changes);
    Status::set(Status::Network, 1);
    EXPECT_NE(Status::changes(), changes);
    EXPECT_EQ(Status::fact(Status::Network), 1);
}

/// A target fails from its failure on until it answers well; the words of the last failure stay.
TEST_F(StatusTest, ATargetFailsUntilItAnswersWell) {
    Status::asked(Status::Config);
    Status::failed(Status::Config, "Couldn't resolve host", true);
    EXPECT_TRUE(Status::answers(Status::Config).fails);
    EXPECT_TRUE(Status::answers(Status::Config).unreachable);
    Status::asked(Status::Config);
    Status::succeeded(Status::Config);
    const Status::Answers answers = Status::answers(Status::Config);
    EXPECT_FALSE(answers.fails);
    EXPECT_EQ(answers.requests, 2U);
    EXPECT_EQ(answers.failures, 1U);
    EXPECT_EQ(answers.error, "Couldn't resolve host");
    EXPECT_GT(answers.lastFailure, 0);
    EXPECT_GE(answers.lastSuccess, answers.lastFailure);
}

/// A request whose transfer fails, and whose answer is refused for its meaning too, is one failure;
/// the later words count.
TEST_F(StatusTest, OneRequestIsOneFailureAtMost) {
    Status::asked(Status::Config);
    Status::failed(Status::Config, "HTTP status 403");
    Status::failed(Status::Config, "the server refuses: Forbidden");
    EXPECT_EQ(Status::answers(Status::Config).failures, 1U);
    EXPECT_EQ(Status::answers(Status::Config).error, "the server refuses: Forbidden");
    Status::asked(Status::Config);
    Status::failed(Status::Config, "HTTP status 500");
    EXPECT_EQ(Status::answers(Status::Config).failures, 2U);
}

/// A request for nobody in particular is not counted.
TEST_F(StatusTest, NobodyIsNotCounted) {
    const std::uint64_t changes = Status::changes();
    Status::asked(Status::Nobody);
    Status::failed(Status::Nobody, "no");
    Status::succeeded(Status::Nobody);
    EXPECT_EQ(Status::changes(), changes);
}

/// The path that was given first stays: what is tried instead of a file that cannot be read does
/// not take its place.
TEST_F(StatusTest, TheFirstPathStays) {
    Status::setPath(Status::BootInfo, "/given/BootInfo");
    Status::setPath(Status::BootInfo, "./BootInfo");
    EXPECT_EQ(Status::path(Status::BootInfo), "/given/BootInfo");
}
