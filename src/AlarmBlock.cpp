#include "AlarmBlock.h"

namespace {

/// @return the thread's mask before
sigset_t changeAlarm(int how) {
    sigset_t alarm;
    sigset_t before;
    ::sigemptyset(&alarm);
    ::sigaddset(&alarm, SIGALRM);
    ::pthread_sigmask(how, &alarm, &before);
    return before;
}

}  // namespace

AlarmBlock::AlarmBlock() : m_before(changeAlarm(SIG_BLOCK)) {}

AlarmBlock::~AlarmBlock() {
    ::pthread_sigmask(SIG_SETMASK, &m_before, nullptr);
}

AlarmUnblock::AlarmUnblock() : m_before(changeAlarm(SIG_UNBLOCK)) {}

AlarmUnblock::~AlarmUnblock() {
    ::pthread_sigmask(SIG_SETMASK, &m_before, nullptr);
}
