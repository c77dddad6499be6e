#pragma once

#include "OwnFiles.h"

/// The class-wide list of the daemon's own files.
struct OwnFilesPeer {
    static void forgetAll() { OwnFiles::forgetAll(); }
};
