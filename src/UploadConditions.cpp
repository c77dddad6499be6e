#include "UploadConditions.h"

#include "Config.h"
#include "DB.h"
#include "DatabaseReports.h"
#include "Singleton.h"
#include "TimeMgrImpl.h"
#include "UploadSchedule.h"
#include "WebTimeImpl.h"

#include <utility>

namespace {

bool permits(const Config& config, bool webTimeKnown) {
    return config->collectionAllowed() && !config->configIsExpired() && webTimeKnown;
}

}  // namespace

UploadConditions::UploadConditions(DB& store, DatabaseReports& reports)
    : m_store(store),
      m_reports(reports),
      m_storeFails(std::chrono::milliseconds(UploadSchedule::kRetryMs)) {}

bool UploadConditions::hold(const Config& config) {
    return permits(config, WebTimeImpl::isKnown());
}

UploadConditions::Verdict UploadConditions::check(const Config& config) {
    const bool webTimeKnown = Singleton<WebTimeImpl>()->getWebTime();
    config->Refresh(false);
    const bool storeHasAnswered = std::exchange(m_storeAnswered, false);
    if (DB::m_dbError && !storeHasAnswered) {
        m_reports.sendErrorEvent();
        return askTheStore();
    }
    m_reports.sendOwedErrorEvent();
    return permits(config, webTimeKnown) ? Verdict::Met : Verdict::NotMet;
}

UploadConditions::Verdict UploadConditions::askTheStore() {
    if (!m_storeFails.isOver()) return Verdict::NotMet;  // the job was asked for again by then
    m_storeAnswered = m_store.works();
    if (m_storeAnswered) return Verdict::AskAgain;
    m_storeFails.begin();
    return Verdict::AskLater;
}

std::int64_t UploadConditions::nowSeconds() {
    return Singleton<TimeMgrImpl>()->getTime() / 1000;
}
