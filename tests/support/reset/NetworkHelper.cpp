#include <stdlib.h>

#include "support/KivTest.h"
#include "support/NetworkHelperPeer.h"

static const KivTest::Reset resetNetworkHelper([] {
    NetworkHelperPeer::forget();
    ::setenv("no_proxy", "*", 1);  // the tests' servers are on this machine
});
