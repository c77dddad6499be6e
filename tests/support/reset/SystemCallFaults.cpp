#include "support/SystemCallFaults.h"

#include "support/KivTest.h"

static const KivTest::Reset resetSystemCallFaults([] { SystemCallFaults::clear(); });
