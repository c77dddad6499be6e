#pragma once

#include <cstdint>
#include <string>

#include "CTouImpl.h"

/// Consent without files.
struct CTouImplPeer {
    static void setConsent(CTouImpl& tou, bool accepted, std::int32_t version) {
        tou.m_accepted = accepted;
        tou.m_version = version;
        tou.m_fileExists = true;
        tou.m_answer = accepted ? CTouImpl::Answer::Yes : CTouImpl::Answer::No;
    }
    static void setDirectory(CTouImpl& tou, const std::string& directory) {
        tou.m_directory = directory;
    }
    /// As if the last reading lay that long ago.
    static void letTimePass(CTouImpl& tou, std::int64_t milliseconds) {
        tou.m_readKernelMs = tou.m_readKernelMs - milliseconds;
    }
    static bool fileExists(const CTouImpl& tou) { return tou.m_fileExists; }
};
