#include "Cycle.h"

#include <tuple>

bool operator==(const Cycle& a, const Cycle& b) {
    return a.bootCount == b.bootCount && a.standbyCount == b.standbyCount;
}

bool operator!=(const Cycle& a, const Cycle& b) {
    return !(a == b);
}

bool operator<(const Cycle& a, const Cycle& b) {
    return std::tie(a.bootCount, a.standbyCount) < std::tie(b.bootCount, b.standbyCount);
}
