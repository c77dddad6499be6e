#include "support/KivTest.h"
#include "support/StatusPeer.h"

static const KivTest::Reset resetStatus([] { StatusPeer::forgetAll(); });
