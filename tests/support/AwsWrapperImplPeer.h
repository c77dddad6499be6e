#pragma once

#include <string>

#include "AwsWrapperImpl.h"

/// The time limit of the upload child, and what a child's end means.
struct AwsWrapperImplPeer {
    static void setUploadLimit(unsigned int seconds) {
        AwsWrapperImpl::m_uploadLimitSeconds = seconds;
    }
    static unsigned int uploadLimit() { return AwsWrapperImpl::m_uploadLimitSeconds; }
    static const std::string& testModeFile() { return AwsWrapperImpl::m_TestModeFile; }
    static bool waitForChild(int child) { return AwsWrapperImpl::waitForChild(child); }
    /// As the signal handler does it.
    static void killTimedOutChild() { AwsWrapperImpl::killTimedOutChild(0); }
};
