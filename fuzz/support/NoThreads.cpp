#include "WorkerThread.h"

#include <cerrno>

// In place of threads, so that a run goes the same way each time: one that is to go on beside the
// others cannot be started, and a detached one does its work at once, on the thread that starts it.
// A target that links this names the linker's wraps in CMakeLists.txt.

int startNone(WorkerThread* thread, const char* name,
              WorkerThread::Body body) asm("__wrap__ZN12WorkerThread5startEPKcSt8functionIFivEE");
int runAtOnce(const char* name, WorkerThread::Body body) asm(
    "__wrap__ZN12WorkerThread13startDetachedEPKcSt8functionIFivEE");

int startNone(WorkerThread* /*thread*/, const char* /*name*/, WorkerThread::Body /*body*/) {
    return EAGAIN;
}

int runAtOnce(const char* /*name*/, WorkerThread::Body body) {
    body();
    return 0;
}
