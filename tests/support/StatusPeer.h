#pragma once

#include "Status.h"

/// Puts what the daemon knows of itself back to nothing.
struct StatusPeer {
    static void forgetAll() { Status::forgetAll(); }
};
