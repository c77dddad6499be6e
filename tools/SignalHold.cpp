#include "SignalHold.h"

#include <algorithm>
#include <iterator>

SignalHold::SignalHold() {
    sigemptyset(&m_held);
    sigset_t blocked;
    sigprocmask(SIG_BLOCK, nullptr, &blocked);
    for (int number : kEnding) {
        struct sigaction action {};
        sigaction(number, nullptr, &action);
        const bool ignored = action.sa_handler == SIG_IGN;
        if (!ignored && sigismember(&blocked, number) == 0) sigaddset(&m_held, number);
    }
    sigprocmask(SIG_BLOCK, &m_held, nullptr);
}

SignalHold::~SignalHold() {
    sigprocmask(SIG_UNBLOCK, &m_held, nullptr);
}

bool SignalHold::pending() const {
    sigset_t waiting;
    sigpending(&waiting);
    return std::any_of(std::begin(kEnding), std::end(kEnding), [&](int number) {
        return sigismember(&m_held, number) == 1 && sigismember(&waiting, number) == 1;
    });
}
