#include "TimeReference.h"

#include "CGlobalInfoImpl.h"
#include "KernelTime.h"
#include "Singleton.h"

TimeReference::TimeReference()
    : bootCount(0), standbyCount(0), kernelTime(KernelTime::getTimeMonotonicAsInt64()) {
    const Singleton<CGlobalInfoImpl> info;
    bootCount = info->getBootCount();
    standbyCount = info->getStandbyCount();
}

std::ostream& operator<<(std::ostream& out, const TimeReference& ref) {
    const Cycle cycle = ref.cycle();
    return out << "(" << cycle.bootCount << "," << cycle.standbyCount << "," << ref.kernelTime
               << ")";
}
