#pragma once

#include <cstddef>

#include "FilesUpload.h"
#include "support/UploadConditionsPeer.h"

/// What is remembered between two passes.
struct FilesUploadPeer {
    static std::size_t remembered(const FilesUpload& files) { return files.m_attempts.size(); }
    static void letAMinutePass(FilesUpload& files) {
        UploadConditionsPeer::letAMinutePass(files.m_conditions);
        PausePeer::complete(files.m_oneFailed);
        PausePeer::complete(files.m_serviceFails);
        for (auto& attempt : files.m_attempts) PausePeer::complete(attempt.second.beforeNext);
    }
};
