#include "UploadLog.h"

#include "UploadImpl.h"
#include "support/KivTest.h"
#include "support/OutputCapture.h"

using UploadLogTest = KivTest;

/// The lines of the upload side have one tag, and one switch for those that only inform.
TEST_F(UploadLogTest, HasOneTagAndOneSwitchForTheUploadSide) {
    OutputCapture output;
    UploadLog::log.info("unheard");
    UploadLog::log.error("failed");
    UploadImpl::SetVerbose(true);
    UploadLog::log.info("heard");
    output.stop();
    EXPECT_EQ(output.outWithoutPrefixes(), "kivUpload: heard\n");
    EXPECT_EQ(output.errWithoutPrefixes(), "kivUpload: failed\n");
}
