#pragma once

#include <string>

#include "AwsWrapperImpl.h"

/// The time limit of the upload child, and the file of the test mode.
struct AwsWrapperImplPeer {
    static void setUploadLimit(unsigned int seconds) {
        AwsWrapperImpl::m_uploadLimitSeconds = seconds;
    }
    static unsigned int uploadLimit() { return AwsWrapperImpl::m_uploadLimitSeconds; }
    static const std::string& testModeFile() { return AwsWrapperImpl::m_TestModeFile; }
};
