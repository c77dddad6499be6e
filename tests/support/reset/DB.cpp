#include <mutex>

#include "DB.h"
#include "SqlFiles.h"
#include "support/DBPeer.h"
#include "support/KivTest.h"
#include "support/StoreRescuePeer.h"

static const KivTest::Reset resetDB([] {
    const std::lock_guard<std::recursive_mutex> lock(DB::m_PruneLock);
    DB::setVerbose(false);
    DB::setFullCallback(nullptr);
    DB::m_TotalEventSize = -1;
    DB::m_dbError = false;
    DB::m_DBErrorMessage.clear();
    DBPeer::forgetDamage();
    SqlFiles::forgetAll();
    StoreRescuePeer::forgetAttempts();
});
