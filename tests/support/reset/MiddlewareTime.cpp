#include "support/KivTest.h"
#include "support/MiddlewareTimePeer.h"

static const KivTest::Reset resetMiddlewareTime([] {
    MiddlewareTimePeer::setPipePath(MiddlewareTimePeer::productPipe);
});
