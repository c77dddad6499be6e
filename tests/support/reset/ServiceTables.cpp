#include "support/KivTest.h"
#include "support/ServiceTablesPeer.h"

static const KivTest::Reset resetServiceTables([] {
    ServiceTablesPeer::putBack();
    ServiceTables::setVerbose(false);
});
