#include "JsonFilterRule.h"

#include "support/KivTest.h"

static const KivTest::Reset resetJsonFilterRule([] { JsonFilterRule::m_verbose = false; });
