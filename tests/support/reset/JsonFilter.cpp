#include "JsonFilter.h"

#include "support/KivTest.h"

static const KivTest::Reset resetJsonFilter([] { JsonFilter::m_verbose = false; });
