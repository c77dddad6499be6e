#include "CTouImpl.h"

#include "support/KivTest.h"

static const KivTest::Reset resetTou([] { CTouImpl::SetVerbose(false); });
