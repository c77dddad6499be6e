#include "support/KivTest.h"
#include "support/TimedChildPeer.h"

static const KivTest::Reset resetTimedChild([] {
    TimedChildPeer::setGrace(TimedChildPeer::kGrace);
});
