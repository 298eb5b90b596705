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
    const struct Restore {
        const sigset_t& mask;
        ~Restore() { pthread_sigmask(SIG_SETMASK, &mask, nullptr); }
    } restore{before};
    return std::thread([name, run = std::move(body)]() mutable {
        pthread_setname_np(pthread_self(), name);
        run();
    });
}

}  // namespace device
