#include <aws/core/Aws.h>

#include <mutex>

#include <curl/curl.h>

namespace Aws {

namespace {

std::mutex initMutex;
int initCount = 0;  ///< guarded by `initMutex`

}  // namespace

void InitAPI(const SDKOptions& /*options*/) {
    const std::lock_guard<std::mutex> lock(initMutex);
    if (curl_global_init(CURL_GLOBAL_ALL) == CURLE_OK) ++initCount;
}

void ShutdownAPI(const SDKOptions& /*options*/) {
    const std::lock_guard<std::mutex> lock(initMutex);
    if (initCount == 0) return;
    --initCount;
    curl_global_cleanup();  // libcurl counts too: the other users of it stay prepared
}

}  // namespace Aws
