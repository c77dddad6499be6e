#include "UploadConditions.h"

#include "Config.h"
#include "DB.h"
#include "DatabaseReports.h"
#include "Singleton.h"
#include "TimeMgrImpl.h"
#include "WebTimeImpl.h"

bool UploadConditions::areMet(const Config& config, DatabaseReports& reports) {
    const bool webTimeKnown = Singleton<WebTimeImpl>()->getWebTime();
    config->Refresh(false);
    if (DB::m_dbError) {
        reports.sendErrorEvent();
        return false;
    }
    return config->GetTouAccepted() && !config->configIsExpired() && webTimeKnown;
}

std::int64_t UploadConditions::nowSeconds() {
    return Singleton<TimeMgrImpl>()->getTime() / 1000;
}
