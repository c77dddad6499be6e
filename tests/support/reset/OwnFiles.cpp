#include "support/KivTest.h"
#include "support/OwnFilesPeer.h"

static const KivTest::Reset resetOwnFiles([] { OwnFilesPeer::forgetAll(); });
