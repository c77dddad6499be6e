#pragma once

#include "UploadConditions.h"
#include "support/PausePeer.h"

/// When the store is asked again.
struct UploadConditionsPeer {
    static void letAMinutePass(UploadConditions& conditions) {
        PausePeer::complete(conditions.m_storeFails);
    }
};
