#include "CKivApp.h"
#include "DbgOut.h"

#include <malloc.h>
#include <signal.h>

namespace {

/// A peer that closes its socket must not end the daemon, and an inherited "ignore" for SIGCHLD
/// must not take the upload child's exit status away.
void settleSignals() {
    ::signal(SIGPIPE, SIG_IGN);
    ::signal(SIGCHLD, SIG_DFL);
}

/// One heap for all threads: they work in turns, and a heap of its own would keep each one's
/// largest load for ever.
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
        cerrdbg << "kivApp_main"
                << "Failure initializing kivApp\n";
        return result;
    }
    CKivApp::PrintVersion();
    app.PrintOptions();
    app.Run();
}
