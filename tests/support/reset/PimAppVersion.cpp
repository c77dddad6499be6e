#include "support/KivTest.h"
#include "support/PimAppVersionPeer.h"

static const KivTest::Reset resetPimAppVersion([] { PimAppVersionPeer::forget(); });
