#include "support/KivTest.h"
#include "support/RegexCachePeer.h"

static const KivTest::Reset resetRegexCache([] { RegexCachePeer::clear(); });
