#include "WebTimeImpl.h"
#include "support/KivTest.h"

static const KivTest::Reset resetWebTime([] {
    WebTimeImpl::SetVerbose(false);
    WebTimeImpl::m_WebTime = 0;
});
