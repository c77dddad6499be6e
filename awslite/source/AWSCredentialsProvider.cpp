#include <aws/core/auth/AWSCredentialsProvider.h>

namespace Aws {
namespace Auth {

AWSCredentialsProvider::~AWSCredentialsProvider() = default;

bool AWSCredentialsProvider::IsTimeToRefresh(long reloadFrequencyMs) {
    const auto now = std::chrono::steady_clock::now();
    if (m_loaded && now - m_lastLoaded < std::chrono::milliseconds(reloadFrequencyMs)) return false;
    m_lastLoaded = now;
    m_loaded = true;
    return true;
}

}  // namespace Auth
}  // namespace Aws
