#include "support/KivTest.h"

#include <utility>
#include <vector>

namespace {

std::vector<std::function<void()>>& resets() {
    static std::vector<std::function<void()>> registered;
    return registered;
}

}  // namespace

KivTest::Reset::Reset(std::function<void()> putBack) {
    resets().push_back(std::move(putBack));
}

void KivTest::putAllBack() {
    for (const auto& putBack : resets()) putBack();
}
