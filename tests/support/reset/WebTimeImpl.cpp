#include "WebTimeImpl.h"
#include "support/KivTest.h"
#include "support/WebTimeImplPeer.h"

static const KivTest::Reset resetWebTime([] {
    WebTimeImpl::SetVerbose(false);
    WebTimeImpl::m_WebTime = 0;
    WebTimeImplPeer::pause().forget();
});
