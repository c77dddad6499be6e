#include "support/KivTest.h"
#include "support/TimeMgrImplPeer.h"

static const KivTest::Reset resetTimeManager([] {
    TimeMgrImpl::SetVerbose(false);
    TimeMgrImplPeer::forgetExpectedDBPath();
});
