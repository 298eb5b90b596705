/// The only place that names a mutex type: an annotated mutex whose order is checked, its scoped
/// lock, and the condition that the timer thread waits on.
#pragma once

#include <pthread.h>

#include <boost/chrono/system_clocks.hpp>
#include <boost/thread/condition_variable.hpp>
#include <boost/thread/mutex.hpp>
#include <cstdint>

// Clang checks these at compile time (-Wthread-safety); other compilers see nothing.
#if defined(__clang__)
#define ALARMD_TSA(x) __attribute__((x))
#else
#define ALARMD_TSA(x)
#endif
#define CAPABILITY(name) ALARMD_TSA(capability(name))
#define SCOPED_CAPABILITY ALARMD_TSA(scoped_lockable)
#define GUARDED_BY(mutex) ALARMD_TSA(guarded_by(mutex))
#define REQUIRES(...) ALARMD_TSA(requires_capability(__VA_ARGS__))
#define ACQUIRE(...) ALARMD_TSA(acquire_capability(__VA_ARGS__))
#define RELEASE(...) ALARMD_TSA(release_capability(__VA_ARGS__))
#define EXCLUDES(...) ALARMD_TSA(locks_excluded(__VA_ARGS__))
#define NO_THREAD_SAFETY_ANALYSIS ALARMD_TSA(no_thread_safety_analysis)

namespace alarmd {

/// The lock order: a thread may only take a mutex of a higher rank than all it holds.
enum class LockRank : int {
    Engine,      ///< a pass of the timer thread, and what must not interleave with it
    StopNotice,  ///< the retained stop notices
    Notice,      ///< the message-waiting notice
    Status,      ///< the "Status" property against what the store says is ringing
    Store,       ///< the store's slots and current event
    Leaf,        ///< guards a few members; nothing else is called under it
    Log,         ///< the log lines that wait; lines are written under any other
};

/// A non-recursive mutex. In builds with ALARMD_CHECK_LOCK_ORDER a wrong order aborts at once,
/// without needing the deadlock to happen.
class CAPABILITY("mutex") Mutex {
  public:
    explicit Mutex(LockRank rank) : m_rank(rank) {}
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void lock() ACQUIRE();
    void unlock() RELEASE();

  private:
    boost::mutex m_mutex;
    LockRank m_rank;
};

/// Holds a mutex from construction to the end of the scope.
class SCOPED_CAPABILITY Lock {
  public:
    explicit Lock(Mutex& mutex) ACQUIRE(mutex) : m_mutex(mutex) { m_mutex.lock(); }
    ~Lock() RELEASE() { m_mutex.unlock(); }
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

  private:
    Mutex& m_mutex;
};

/// Wakes one waiting thread from others that must not take the mutex which that thread waits under.
/// The waiter takes a ticket before it looks at the state, and its wait ends at once if anything
/// was notified since: a notification between the look and the wait is not lost.
class WakeCondition {
  public:
    using Ticket = std::uint64_t;

    /// To be taken before looking at the state. The waiting thread.
    Ticket ticket();

    /// Ends the wait of the thread that waits now or is about to. Any thread; takes no lock but its
    /// own.
    void notifyAll();

    /// Waits for a notification after `seen`, with `held` released meanwhile.
    void wait(Mutex& held, Ticket seen) REQUIRES(held);

    /// The same, until the wall clock shows `deadline` at the latest: a clock that is set past the
    /// deadline ends the wait at once, one that is set back prolongs it. True when notified, false
    /// when timed out. Throws boost::condition_error, with `held` locked again, when the system
    /// refuses the wait.
    bool waitUntil(Mutex& held, Ticket seen, boost::chrono::system_clock::time_point deadline)
        REQUIRES(held);

  private:
    boost::mutex m_mutex;
    boost::condition_variable m_condition;
    Ticket m_notified = 0;
};

}  // namespace alarmd
