#include "Descriptor.h"

#include "support/TempDir.h"
#include "support/WaitUntil.h"

#include <atomic>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>

#include <cerrno>

#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

/// What the next close of this thread reports instead of what is true; 0: the truth.
thread_local int closeError = 0;

std::atomic<int> signalsHandled{0};

void countSignal(int) {
    ++signalsHandled;
}

int openAnything() {
    return ::open("/dev/null", O_RDWR | O_CLOEXEC);
}

bool isOpen(int fd) {
    return ::fcntl(fd, F_GETFD) >= 0;
}

/// What a thread that is to be cancelled finds around the end of an owner.
struct Cancelled {
    int fd = -1;
    int stateBefore = PTHREAD_CANCEL_ENABLE;
    int stateAfter = -1;
    bool survivedTheEnd = false;
    bool closed = false;
};

void* endAnOwnerWhileCancelled(void* argument) {
    auto& found = *static_cast<Cancelled*>(argument);
    ::pthread_setcancelstate(found.stateBefore, nullptr);
    ::pthread_cancel(::pthread_self());
    { const Descriptor owner(found.fd); }
    found.survivedTheEnd = true;
    ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &found.stateAfter);
    found.closed = !isOpen(found.fd);
    return nullptr;
}

Cancelled endsWhileCancelled(int cancelState) {
    Cancelled found;
    found.fd = openAnything();
    found.stateBefore = cancelState;
    pthread_t thread{};
    if (::pthread_create(&thread, nullptr, endAnOwnerWhileCancelled, &found) == 0) {
        ::pthread_join(thread, nullptr);
    }
    return found;
}

}  // namespace

// The program's own definition comes before that of the C library.
extern "C" int close(int fd) {
    static auto* const real = reinterpret_cast<int (*)(int)>(::dlsym(RTLD_NEXT, "close"));
    const int result = real(fd);
    const int error = std::exchange(closeError, 0);
    if (error == 0) return result;
    errno = error;
    return -1;
}

/// It hands out the descriptor that it owns; without one, or with a failed call's result, it
/// owns nothing.
TEST(Descriptor, OwnsNothingAtFirst) {
    Descriptor owner;
    EXPECT_FALSE(owner.isOpen());
    EXPECT_LT(owner.get(), 0);
    EXPECT_LT(owner.release(), 0);
    EXPECT_TRUE(owner.close());
}

/// It hands out the descriptor that it owns; without one, or with a failed call's result, it
/// owns nothing.
TEST(Descriptor, TakesTheResultOfAFailedCallForNothing) {
    Descriptor owner(::open("/nowhere/at/all", O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(owner.isOpen());
    EXPECT_TRUE(owner.close());
}

/// It hands out the descriptor that it owns; without one, or with a failed call's result, it
/// owns nothing.
TEST(Descriptor, HandsOutWhatItOwns) {
    const int fd = openAnything();
    const Descriptor owner(fd);
    EXPECT_TRUE(owner.isOpen());
    EXPECT_EQ(owner.get(), fd);
    EXPECT_TRUE(isOpen(fd));
}

/// It closes at its end, and never twice.
TEST(Descriptor, ClosesAtItsEnd) {
    const int fd = openAnything();
    { const Descriptor owner(fd); }
    EXPECT_FALSE(isOpen(fd));
}

/// It closes at its end, and never twice.
TEST(Descriptor, ClosesOnlyOnce) {
    const int fd = openAnything();
    const Descriptor other(openAnything());
    {
        Descriptor owner(fd);
        EXPECT_TRUE(owner.close());
        EXPECT_FALSE(owner.isOpen());
        EXPECT_FALSE(isOpen(fd));
        ASSERT_EQ(::dup2(other.get(), fd), fd);  // the number is somebody else's now
        EXPECT_TRUE(owner.close());
    }
    EXPECT_TRUE(isOpen(fd));
    ::close(fd);
}

/// What was released stays open.
TEST(Descriptor, LeavesOpenWhatItReleased) {
    const int fd = openAnything();
    {
        Descriptor owner(fd);
        EXPECT_EQ(owner.release(), fd);
        EXPECT_FALSE(owner.isOpen());
    }
    EXPECT_TRUE(isOpen(fd));
    ::close(fd);
}

/// It can be moved, not copied; what was moved from closes nothing.
TEST(Descriptor, WhatWasMovedFromClosesNothing) {
    const int fd = openAnything();
    Descriptor last;
    {
        Descriptor first(fd);
        Descriptor second(std::move(first));
        EXPECT_EQ(second.get(), fd);
        EXPECT_FALSE(first.isOpen());
        last = std::move(second);
        EXPECT_FALSE(second.isOpen());
    }
    EXPECT_EQ(last.get(), fd);
    EXPECT_TRUE(isOpen(fd));
    EXPECT_TRUE(last.close());
    EXPECT_FALSE(isOpen(fd));
}

/// It can be moved, not copied; what was moved from closes nothing.
TEST(Descriptor, CannotBeCopied) {
    EXPECT_FALSE(std::is_copy_constructible_v<Descriptor>);
    EXPECT_FALSE(std::is_copy_assignable_v<Descriptor>);
    EXPECT_FALSE((std::is_convertible_v<int, Descriptor>));
}

/// Assignment closes what it owned before, and survives itself.
TEST(Descriptor, AssignmentClosesWhatItOwnedBefore) {
    const int before = openAnything();
    const int after = openAnything();
    Descriptor owner(before);
    owner = Descriptor(after);
    EXPECT_FALSE(isOpen(before));
    EXPECT_TRUE(isOpen(after));
    EXPECT_EQ(owner.get(), after);
}

/// Assignment closes what it owned before, and survives itself.
TEST(Descriptor, SurvivesAssignmentToItself) {
    const int fd = openAnything();
    Descriptor owner(fd);
    Descriptor& same = owner;
    owner = std::move(same);
    EXPECT_EQ(owner.get(), fd);
    EXPECT_TRUE(isOpen(fd));
}

/// A failed close is told; an interrupted one has closed.
TEST(Descriptor, SaysWhenClosingFailed) {
    const int fd = openAnything();
    Descriptor owner(fd);
    closeError = EIO;
    EXPECT_FALSE(owner.close());
    EXPECT_EQ(errno, EIO);
    EXPECT_FALSE(owner.isOpen());
    EXPECT_TRUE(owner.close()) << "nothing is left to close";
}

/// A failed close is told; an interrupted one has closed.
TEST(Descriptor, TakesAnInterruptedCloseForDone) {
    const int fd = openAnything();
    Descriptor owner(fd);
    closeError = EINTR;
    EXPECT_TRUE(owner.close());
    EXPECT_FALSE(owner.isOpen());
    EXPECT_FALSE(isOpen(fd));
}

/// No thread is cancelled in its end, and whether it can be cancelled stays as it was.
TEST(Descriptor, ItsEndIsNoCancellationPoint) {
    const Cancelled found = endsWhileCancelled(PTHREAD_CANCEL_ENABLE);
    EXPECT_TRUE(found.survivedTheEnd);
    EXPECT_TRUE(found.closed);
    EXPECT_EQ(found.stateAfter, PTHREAD_CANCEL_ENABLE);
}

/// No thread is cancelled in its end, and whether it can be cancelled stays as it was.
TEST(Descriptor, LeavesAThreadUncancellableThatWasSo) {
    const Cancelled found = endsWhileCancelled(PTHREAD_CANCEL_DISABLE);
    EXPECT_TRUE(found.closed);
    EXPECT_EQ(found.stateAfter, PTHREAD_CANCEL_DISABLE);
}

/// Texts are written whole, also after signals; a failure is told.
TEST(Descriptor, WritesEveryByte) {
    const TempDir dir;
    std::string text(3000000, 'x');
    text[5] = '\0';
    Descriptor file(::open(dir.file("text").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    EXPECT_TRUE(file.writeAll(text));
    EXPECT_TRUE(file.writeAll(""));
    EXPECT_TRUE(file.writeAll("end"));
    EXPECT_TRUE(file.close());
    EXPECT_TRUE(dir.read("text") == text + "end");
}

/// Texts are written whole, also after signals; a failure is told.
TEST(Descriptor, GoesOnWritingAfterSignals) {
    struct sigaction action = {};
    struct sigaction before = {};
    action.sa_handler = countSignal;  // without SA_RESTART: calls end with EINTR
    ::sigaction(SIGUSR1, &action, &before);
    int ends[2] = {-1, -1};
    ASSERT_EQ(::pipe(ends), 0);
    const Descriptor readEnd(ends[0]);
    Descriptor writeEnd(ends[1]);
    const int room = ::fcntl(writeEnd.get(), F_GETPIPE_SZ);
    ASSERT_GT(room, 0);
    const std::string text(static_cast<std::size_t>(room) * 3 + 7, 'x');
    bool written = false;
    std::thread writer([&] {
        written = writeEnd.writeAll(text);
        writeEnd.close();
    });
    const auto isFull = [&] {
        int waiting = 0;
        return ::ioctl(readEnd.get(), FIONREAD, &waiting) == 0 && waiting == room;
    };
    EXPECT_TRUE(WaitUntil(isFull));
    signalsHandled = 0;
    for (int sent = 1; sent <= 3; ++sent) {
        ::pthread_kill(writer.native_handle(), SIGUSR1);
        EXPECT_TRUE(WaitUntil([sent] { return signalsHandled == sent; }));
    }
    std::string received;
    char block[4096];
    for (ssize_t count = 0; (count = ::read(readEnd.get(), block, sizeof block)) > 0;) {
        received.append(block, static_cast<std::size_t>(count));
    }
    writer.join();
    ::sigaction(SIGUSR1, &before, nullptr);
    EXPECT_TRUE(written);
    EXPECT_TRUE(received == text);
}

/// Texts are written whole, also after signals; a failure is told.
TEST(Descriptor, SaysWhenWritingFailed) {
    const Descriptor full(::open("/dev/full", O_WRONLY | O_CLOEXEC));
    EXPECT_FALSE(full.writeAll("text"));
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_FALSE(Descriptor().writeAll("text"));
    EXPECT_EQ(errno, EBADF);
}
