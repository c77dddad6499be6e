#include "EventFilter.h"

#include "support/KivTest.h"

static const KivTest::Reset resetEventFilter([] { EventFilter::m_verbose = false; });
