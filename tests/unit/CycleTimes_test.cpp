#include "CycleTimes.h"

#include "support/UploadSetup.h"

namespace {

class CycleTimesTest : public UploadSetup {
  protected:
    /// How often the time manager looked a start time up, by its lines.
    static int lookUps(OutputCapture& output) {
        const std::string mark = "TimeMgr: getTime ts=";
        const std::string lines = output.outWithoutPrefixes();
        int count = 0;
        for (std::size_t at = lines.find(mark); at != std::string::npos;
             at = lines.find(mark, at + 1)) {
            ++count;
        }
        return count;
    }

    static std::pair<TimeSource, std::int64_t> pair(const CycleTimes::Moment& moment) {
        return {moment.source, moment.time};
    }

    CycleTimes times{*timeManager};
};

}  // namespace

/// A moment is timed by web time if known, else by system time, else by none.
TEST_F(CycleTimesTest, TimesAMomentByTheBestSourceThatKnowsItsCycle) {
    timeManager->setTime(TimeSourceSystem, TimeReference(3, 0, 0), 1500000000000);
    timeManager->setTime(TimeSourceSystem, TimeReference(4, 1, 0), 1500000000000);
    timeManager->setTime(TimeSourceWeb, TimeReference(4, 1, 0), 1400000000000);
    EXPECT_EQ(pair(times.momentOf(TimeReference(3, 0, 250))),
              std::make_pair(TimeSourceSystem, std::int64_t{1500000000250}));
    EXPECT_EQ(pair(times.momentOf(TimeReference(4, 1, 250))),
              std::make_pair(TimeSourceWeb, std::int64_t{1400000000250}));
    EXPECT_EQ(pair(times.momentOf(TimeReference(4, 0, 250))),
              std::make_pair(TimeSourceInvalid, std::int64_t{0}));
}

/// A source whose time of the moment comes out as 0 is passed over, as the time manager does.
TEST_F(CycleTimesTest, PassesASourceOverWhoseTimeComesOutAsZero) {
    timeManager->setTime(TimeSourceWeb, TimeReference(3, 0, 0), 100000);
    timeManager->setTime(TimeSourceSystem, TimeReference(3, 0, 0), 1500000000000);
    const TimeReference odd(3, 0, -100000);
    EXPECT_EQ(times.momentOf(odd).source, timeManager->getPreferredTimeSource(odd));
    EXPECT_EQ(pair(times.momentOf(odd)),
              std::make_pair(TimeSourceSystem, std::int64_t{1499999900000}));
    EXPECT_EQ(times.momentOf(TimeReference(3, 0, 1)).source, TimeSourceWeb);
}

/// Each start time is looked up once, however many moments of the cycle are asked for.
TEST_F(CycleTimesTest, LooksEachStartTimeUpOnce) {
    timeManager->setTime(TimeSourceSystem, TimeReference(3, 0, 0), 1500000000000);
    TimeMgrImpl::SetVerbose(true);
    OutputCapture output;
    for (std::int64_t kernelMs = 0; kernelMs < 5; ++kernelMs) {
        times.momentOf(TimeReference(kBoot, kStandby, kernelMs));  // web alone
        times.momentOf(TimeReference(3, 0, kernelMs));             // web, then system
        times.momentOf(TimeReference(4, 0, kernelMs));             // neither
        times.allTimesAsJson(TimeReference(3, 0, 0));
    }
    output.stop();
    TimeMgrImpl::SetVerbose(false);
    EXPECT_EQ(lookUps(output), 1 + 2 + 2);
}

/// Counts are numbers of 32 bits: the cycle is the same however they are written.
TEST_F(CycleTimesTest, KnowsACycleWhoseCountsAreAboveTheSignedRange) {
    timeManager->setTime(TimeSourceWeb, TimeReference(4000000000U, 1, 0), 1500000000000);
    EXPECT_EQ(pair(times.momentOf(TimeReference(4000000000U, 1, 7))),
              std::make_pair(TimeSourceWeb, std::int64_t{1500000000007}));
}

/// All times of a cycle read as the time manager gives them.
TEST_F(CycleTimesTest, GivesAllTimesAsTheTimeManagerDoes) {
    timeManager->setTime(TimeSourceSystem, TimeReference(3, 0, 5000), 1500000005000);
    for (const TimeReference& ref : {TimeReference(kBoot, kStandby, 0), TimeReference(3, 0, 0),
                                     TimeReference(4, 0, 0), TimeReference(3, 0, 250)}) {
        EXPECT_EQ(times.allTimesAsJson(ref).dumpAsString(),
                  timeManager->getAllTimesAsJson(ref).dumpAsString());
    }
}

/// Operating times come from the named store, by one connection.
TEST_F(CycleTimesTest, TellsTheOperatingMinutesOfACycle) {
    DB store;
    store.open(database, false);
    store.setOpTime(3, 0, 77);
    store.setOpTime(4, 1, 5);
    EXPECT_EQ(times.operatingMinutes({3, 0}, database), 77u);
    DB::m_TotalEventSize = 12;  // an opened connection would make it unknown
    EXPECT_EQ(times.operatingMinutes({4, 1}, database), 5u);
    EXPECT_EQ(times.operatingMinutes({9, 9}, database), 0u);
    EXPECT_EQ(DB::m_TotalEventSize, 12);
}
