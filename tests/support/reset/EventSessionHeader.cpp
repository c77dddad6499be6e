#include "EventSessionHeader.h"
#include "support/KivTest.h"

static const KivTest::Reset resetSessionHeader([] { EventSessionHeader::setDbPath(""); });
