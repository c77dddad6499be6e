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
        tou.m_refused = !accepted;
    }
    static void setDirectory(CTouImpl& tou, const std::string& directory) {
        tou.m_directory = directory;
    }
    static bool fileExists(const CTouImpl& tou) { return tou.m_fileExists; }
};
