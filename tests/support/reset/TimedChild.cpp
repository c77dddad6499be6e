#include "TimedChild.h"
#include "support/KivTest.h"

static const KivTest::Reset resetTimedChild([] { TimedChild::setVerbose(false); });
