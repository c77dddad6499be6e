#include "CloudLog.h"

#include "AwsWrapperImpl.h"
#include "support/KivTest.h"
#include "support/OutputCapture.h"

using CloudLogTest = KivTest;

/// The lines of the cloud client have one tag, and one switch for those that only inform.
TEST_F(CloudLogTest, HasOneTagAndOneSwitchForTheCloudClient) {
    OutputCapture output;
    CloudLog::log.info("unheard");
    CloudLog::log.error("failed");
    AwsWrapperImpl::SetVerbose(true);
    CloudLog::log.info("heard");
    output.stop();
    EXPECT_EQ(output.outWithoutPrefixes(), "kivAWSWrapper: heard\n");
    EXPECT_EQ(output.errWithoutPrefixes(), "kivAWSWrapper: failed\n");
}
