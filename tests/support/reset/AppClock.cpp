#include "support/AppClockPeer.h"
#include "support/KivTest.h"

static const KivTest::Reset resetApplicationClock([] { AppClockPeer::forget(); });
