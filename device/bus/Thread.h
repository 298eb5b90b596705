/// How every thread of the platform starts.
#pragma once

#include <pthread.h>
#include <signal.h>

#include <thread>
#include <utility>

namespace device {

/// Starts a thread with this name (15 characters at most) that takes no signals: those are for the
/// program's own threads. Threads that it starts in turn inherit that. Faults stay unblocked, so
/// that whoever handles them can still report.
template <typename Body>
std::thread startThread(const char* name, Body body) {
    sigset_t blocked;
    sigset_t before;
    sigfillset(&blocked);
    for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP}) {
        sigdelset(&blocked, fault);
    }
    pthread_sigmask(SIG_SETMASK, &blocked, &before);
    std::thread thread([name, run = std::move(body)]() mutable {
        pthread_setname_np(pthread_self(), name);
        run();
    });
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return thread;
}

}  // namespace device
