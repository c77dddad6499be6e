#include "CKivApp.h"
#include "ClassLog.h"

#include <malloc.h>
#include <signal.h>

namespace {

/// A peer that closes its socket must not end the daemon, and an inherited "ignore" for SIGCHLD
/// must not take the upload child's exit status away. An alarm that comes before the first upload
/// child, which sets its handler, does nothing: a handler, because the commands that the daemon
/// runs would inherit an "ignore".
void settleSignals() {
    ::signal(SIGPIPE, SIG_IGN);
    ::signal(SIGCHLD, SIG_DFL);
    ::signal(SIGALRM, [](int) {});
}

/// One heap for all threads. They work in turns; with a heap for each thread, every heap would keep
/// its thread's largest load for ever.
void shareOneHeap() {
    ::mallopt(M_ARENA_MAX, 1);
}

}  // namespace

int main(int argc, char** argv) {
    settleSignals();
    shareOneHeap();
    CKivApp app("./GlobalInfo", "./BootInfo", "./Config", "./Db", "./");
    const int result = app.Init(argc, argv);
    if (result != 0) {
        ClassLog("kivApp_main").error("Failure initializing kivApp");
        return result;
    }
    CKivApp::PrintVersion();
    app.PrintOptions();
    app.Run();
}
