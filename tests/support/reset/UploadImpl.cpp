#include "UploadImpl.h"
#include "support/KivTest.h"

static const KivTest::Reset resetUpload([] { UploadImpl::SetVerbose(false); });
