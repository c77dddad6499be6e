#include "CertificateClock.h"

#include "AppClock.h"
#include "BuildInfo.h"
#include "UtcTimeMs.h"
#include "support/AppClockPeer.h"
#include "support/WallClock.h"

#include <cstdint>

#include <gtest/gtest.h>

namespace {

constexpr std::int64_t kYear = 31557600;
const std::int64_t kBuild = CertificateClock::earliest;
constexpr std::int64_t kIn1970 = 5;
constexpr std::int64_t kIn2020 = 1577836800;
constexpr std::int64_t kIn2110 = 4417977600;
const std::int64_t kNow = kBuild + 7 * kYear;

class CertificateClockTest : public ::testing::Test {
  protected:
    void SetUp() override { AppClockPeer::forget(); }
    void TearDown() override { AppClockPeer::forget(); }

    /// Whether it reads `seconds`, or the next.
    static ::testing::AssertionResult reads(std::int64_t seconds) {
        const auto now = CertificateClock::now();
        if (now && *now >= seconds && *now <= seconds + 5) return ::testing::AssertionSuccess();
        return ::testing::AssertionFailure() << (now ? *now : -1);
    }
};

/// A clock is believed from the date of the build on, for 25 years.
TEST_F(CertificateClockTest, BelievesAClockFor25YearsFromTheBuildOn) {
    EXPECT_FALSE(CertificateClock::isBelievable(kBuild - 1));
    EXPECT_TRUE(CertificateClock::isBelievable(kBuild));
    EXPECT_TRUE(CertificateClock::isBelievable(kBuild + 25 * kYear));
    EXPECT_FALSE(CertificateClock::isBelievable(kBuild + 25 * kYear + 1));
    EXPECT_FALSE(CertificateClock::isBelievable(kIn1970));
    EXPECT_FALSE(CertificateClock::isBelievable(kIn2110));
}

/// What the daemon was built from is younger than 2020: a clock that a set was reset to then is not
/// believed.
TEST_F(CertificateClockTest, DoesNotBelieveAClockThatIsOlderThanItsSource) {
    if (kBuild == BuildInfo::buildTime) GTEST_SKIP() << "built without git and SOURCE_DATE_EPOCH";
    EXPECT_FALSE(CertificateClock::isBelievable(kIn2020));
    const WallClock clock(kIn2020);
    EXPECT_FALSE(CertificateClock::now().has_value());
}

/// The system clock judges until the application clock is known, if it can be believed.
TEST_F(CertificateClockTest, IsTheSystemClockUntilTheApplicationClockIsKnown) {
    {
        const WallClock clock(kNow);
        EXPECT_TRUE(reads(kNow));
    }
    for (const std::int64_t wrong : {kIn1970, kIn2110}) {
        const WallClock clock(wrong);
        EXPECT_FALSE(CertificateClock::now().has_value()) << wrong;
    }
}

/// The application clock judges once it is known, whatever the system clock says.
TEST_F(CertificateClockTest, IsTheApplicationClockOnceItIsKnown) {
    AppClock::set(UtcTimeMs(kNow * 1000));
    for (const std::int64_t system : {kIn1970, kNow + kYear, kIn2110}) {
        const WallClock clock(system);
        EXPECT_TRUE(reads(kNow)) << system;
    }
}

/// An application clock that a wrong middleware set is not believed: the system clock judges, or
/// none does.
TEST_F(CertificateClockTest, DoesNotBelieveAMiddlewareThatIsFarOff) {
    AppClock::set(UtcTimeMs(kIn2110 * 1000));
    {
        const WallClock clock(kNow);
        EXPECT_TRUE(reads(kNow));
    }
    const WallClock clock(kIn2110);
    EXPECT_FALSE(CertificateClock::now().has_value());
}

}  // namespace
