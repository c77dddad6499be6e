#include <stdlib.h>

#include "support/KivTest.h"

static const KivTest::Reset resetEnvironment([] {
    ::unsetenv("KIV_SERVERENV");
    ::unsetenv("CURL_CA_BUNDLE");
    ::unsetenv("LOC_NETWORK");
});
