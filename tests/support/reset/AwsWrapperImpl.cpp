#include <stdlib.h>

#include "support/AwsWrapperImplPeer.h"
#include "support/KivTest.h"

static const KivTest::Reset resetCloudClient([] {
    AwsWrapperImpl::SetVerbose(false);
    AwsWrapperImpl::SetTestMode("");
    AwsWrapperImplPeer::setUploadLimit(300);
    AwsWrapperImplPeer::setBytesPerSecond(50000000);
    ::unsetenv("AWS_EC2_METADATA_DISABLED");
    ::unsetenv("AWS_REQUEST_CHECKSUM_CALCULATION");
});
