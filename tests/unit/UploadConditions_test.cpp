#include "UploadConditions.h"

#include "support/UploadConditionsPeer.h"
#include "support/UploadRooms.h"

namespace {

class UploadConditionsTest : public UploadRooms {
  protected:
    using Verdict = UploadConditions::Verdict;

    bool met() { return conditions.check(config) == Verdict::Met; }

    UploadConditions conditions{store, reports};
};

}  // namespace

/// Events and files may go with consent, a configuration in force and web time.
TEST_F(UploadConditionsTest, AreMetWithConsentConfigurationAndWebTime) {
    EXPECT_TRUE(met());
    EXPECT_EQ(cloud.requests().size(), 0u);
}

/// Without consent, configuration in force or web time they may not.
TEST_F(UploadConditionsTest, AreNotMetWithoutConsent) {
    configure(R"({"kiv_tou": false})");
    EXPECT_FALSE(met());
}

/// Without consent, configuration in force or web time they may not.
TEST_F(UploadConditionsTest, AreNotMetUnderAConfigurationThatStaysExpired) {
    configure(R"({"expiry_tou": 0})");
    script(refuse);
    OutputCapture output;
    EXPECT_FALSE(met());
    output.stop();
    EXPECT_EQ(otherRequests(), "/config/dev1 ") << "it asks for a new one";
}

/// Without consent, configuration in force or web time they may not.
TEST_F(UploadConditionsTest, AreNotMetWithoutWebTime) {
    device->setBootCounts(8, 0);
    timeManager->setTime(TimeSourceSystem, TimeReference(), kNowMs);
    script(refuse);
    OutputCapture output;
    EXPECT_FALSE(met());
    output.stop();
    EXPECT_EQ(otherRequests(), "/time ") << "it asks for it";
}

/// A database in error is reported instead of events and of files.
TEST_F(UploadConditionsTest, AreNotMetWithADatabaseInErrorWhichIsReported) {
    DB::m_dbError = true;
    EXPECT_FALSE(met());
    EXPECT_EQ(records().size(), 1u);
    EXPECT_TRUE(DatabaseReportsPeer::errorEventSent(reports));
}

/// A store in error that works is no longer in error, and the next verdict is that of the other
/// conditions, even if an event has failed meanwhile.
TEST_F(UploadConditionsTest, AreToBeAskedAgainForAStoreThatWorks) {
    DB::m_dbError = true;
    EXPECT_EQ(conditions.check(config), Verdict::AskAgain);
    EXPECT_FALSE(DB::m_dbError);
    DB::m_dbError = true;
    EXPECT_EQ(conditions.check(config), Verdict::Met);
    EXPECT_EQ(conditions.check(config), Verdict::AskAgain) << "asked again";
    configure(R"({"kiv_tou": false})");
    EXPECT_EQ(conditions.check(config), Verdict::NotMet);
}

/// A store that fails is asked once a minute.
TEST_F(UploadConditionsTest, AreToBeAskedLaterForAStoreThatFails) {
    std::shared_ptr<sqlite3> locked = lockStore();
    DB::m_dbError = true;
    OutputCapture output;
    EXPECT_EQ(conditions.check(config), Verdict::AskLater);
    locked.reset();
    EXPECT_EQ(conditions.check(config), Verdict::NotMet) << "within the minute";
    EXPECT_TRUE(DB::m_dbError);
    UploadConditionsPeer::letAMinutePass(conditions);
    EXPECT_EQ(conditions.check(config), Verdict::AskAgain);
    output.stop();
    EXPECT_FALSE(DB::m_dbError);
}

/// Now is UTC in seconds by the time manager, 0 when that does not know.
TEST_F(UploadConditionsTest, TellsTheSecondsByTheTimeManager) {
    EXPECT_NEAR(static_cast<double>(UploadConditions::nowSeconds()), kNowMs / 1000.0, 60);
    device->setBootCounts(8, 0);
    EXPECT_EQ(UploadConditions::nowSeconds(), 0);
}
