#include "AlarmBlock.h"

AlarmMask::AlarmMask(int how) {
    sigset_t alarm;
    ::sigemptyset(&alarm);
    ::sigaddset(&alarm, SIGALRM);
    ::pthread_sigmask(how, &alarm, &m_before);
}

AlarmMask::~AlarmMask() {
    ::pthread_sigmask(SIG_SETMASK, &m_before, nullptr);
}
