#include "DBToken.h"
#include "support/DBTokenPeer.h"
#include "support/KivTest.h"

static const KivTest::Reset resetDBToken([] {
    DBToken::SetVerbose(false);
    DBTokenPeer::forget();
});
