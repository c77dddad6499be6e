#pragma once

#include <cstdint>
#include <string>

#include "AwsWrapperImpl.h"

/// The time limit of the upload child, the rate, the place of the SDK's log, and the file of the
/// test mode.
struct AwsWrapperImplPeer {
    static void setUploadLimit(unsigned int seconds) {
        AwsWrapperImpl::m_uploadLimitSeconds = seconds;
    }
    static unsigned int uploadLimit() { return AwsWrapperImpl::m_uploadLimitSeconds; }
    /// The rate of the clients that are made from now on.
    static void setBytesPerSecond(std::int64_t rate) { AwsWrapperImpl::m_bytesPerSecond = rate; }
    static std::int64_t bytesPerSecond() { return AwsWrapperImpl::m_bytesPerSecond; }
    static bool mayWriteSdkLog(const std::string& directory) {
        return AwsWrapperImpl::mayWriteSdkLog(directory.c_str());
    }
    static const std::string& testModeFile() { return AwsWrapperImpl::m_TestModeFile; }
};
