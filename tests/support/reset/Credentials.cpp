#include "support/CredentialsPeer.h"
#include "support/KivTest.h"

static const KivTest::Reset resetCredentials([] {
    CredentialsPeer::putBack();
    Credentials::SetVerbose(false);
});
