#include "support/KivTest.h"
#include "support/TimedChildPeer.h"

static const KivTest::Reset resetTimedChild([] {
    TimedChild::setVerbose(false);
    TimedChildPeer::setGrace(TimedChildPeer::kGrace);
});
