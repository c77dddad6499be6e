#include "Pause.h"

void Pause::begin() {
    m_hasBegun = true;
    m_end = std::chrono::steady_clock::now() + m_length;
}

long Pause::left() const {
    if (!m_hasBegun) return 0;
    const auto rest = m_end - std::chrono::steady_clock::now();
    const auto whole = std::chrono::ceil<std::chrono::milliseconds>(rest).count();
    return whole > 0 ? static_cast<long>(whole) : 0;
}
