#include "CKivApp.h"

#include "support/KivTest.h"

static const KivTest::Reset resetApplication([] { CKivApp::m_verbose = false; });
