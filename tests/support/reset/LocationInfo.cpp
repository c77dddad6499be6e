#include "LocationInfo.h"

#include "Services.h"
#include "support/KivTest.h"
#include "support/LocationInfoPeer.h"

static const KivTest::Reset resetLocation([] {
    LocationInfo::SetVerbose(false);
    LocationInfoPeer::forget();
    LocationInfoPeer::setProvider(Services::geolocationUrl());
});
