#include "CKivApp.h"
#include "DbgOut.h"

#include <signal.h>

namespace {

/// A peer that closes its socket must not end the daemon, and an inherited "ignore" for SIGCHLD
/// must not take the upload child's exit status away.
void settleSignals() {
    ::signal(SIGPIPE, SIG_IGN);
    ::signal(SIGCHLD, SIG_DFL);
}

}  // namespace

int main(int argc, char** argv) {
    settleSignals();
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
