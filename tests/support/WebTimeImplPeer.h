#pragma once

#include "WebTimeImpl.h"

/// The pause after a failed request for the time.
struct WebTimeImplPeer {
    static RetryPause& pause() { return WebTimeImpl::m_pause; }
};
