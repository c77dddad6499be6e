#include "ConfigImpl.h"
#include "support/KivTest.h"

static const KivTest::Reset resetConfiguration([] {
    ConfigImpl::SetVerbose(false);
    ConfigImpl::SetRefreshScheduler({});
});
