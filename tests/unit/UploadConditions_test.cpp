#include "UploadConditions.h"

#include "support/UploadRooms.h"

namespace {

class UploadConditionsTest : public UploadRooms {
  protected:
    bool met() { return UploadConditions::areMet(config, reports); }
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

/// Now is UTC in seconds by the time manager, 0 when that does not know.
TEST_F(UploadConditionsTest, TellsTheSecondsByTheTimeManager) {
    EXPECT_NEAR(static_cast<double>(UploadConditions::nowSeconds()), kNowMs / 1000.0, 60);
    device->setBootCounts(8, 0);
    EXPECT_EQ(UploadConditions::nowSeconds(), 0);
}
