#include "alarmd/Lock.h"

#include <boost/thread/exceptions.hpp>
#include <boost/thread/lock_guard.hpp>
#include <cerrno>
#include <cstdlib>
#include <vector>

namespace alarmd {

namespace {

#if defined(ALARMD_CHECK_LOCK_ORDER)
std::vector<LockRank>& heldRanks() {
    static thread_local std::vector<LockRank> ranks;
    return ranks;
}
void checkOrder(LockRank rank) {
    if (!heldRanks().empty() && heldRanks().back() >= rank) {
        std::abort();
    }
    heldRanks().push_back(rank);
}
void forget(LockRank rank) {
    std::vector<LockRank>& ranks = heldRanks();
    for (auto it = ranks.rbegin(); it != ranks.rend(); ++it) {
        if (*it == rank) {
            ranks.erase(std::next(it).base());
            return;
        }
    }
}
#else
void checkOrder(LockRank) {}
void forget(LockRank) {}
#endif

timespec toTimespec(boost::chrono::system_clock::time_point deadline) {
    constexpr long long perSecond = 1000000000;
    const long long ns =
        boost::chrono::duration_cast<boost::chrono::nanoseconds>(deadline.time_since_epoch())
            .count();
    long long seconds = ns / perSecond;
    long long remainder = ns % perSecond;
    if (remainder < 0) {  // before 1970: the remainder must not be negative
        remainder += perSecond;
        --seconds;
    }
    timespec result{};
    result.tv_sec = static_cast<time_t>(seconds);
    result.tv_nsec = static_cast<long>(remainder);
    return result;
}

}  // namespace

void Mutex::lock() {
    checkOrder(m_rank);
    m_mutex.lock();
}

void Mutex::unlock() {
    m_mutex.unlock();
    forget(m_rank);
}

WakeCondition::Ticket WakeCondition::ticket() {
    boost::lock_guard<boost::mutex> lock(m_mutex);
    return m_notified;
}

void WakeCondition::notifyAll() {
    boost::lock_guard<boost::mutex> lock(m_mutex);
    ++m_notified;
    m_condition.notify_all();
}

void WakeCondition::wait(Mutex& held, Ticket seen) {
    {
        boost::lock_guard<boost::mutex> lock(m_mutex);
        held.unlock();
        while (m_notified == seen) {
            pthread_cond_wait(m_condition.native_handle(), m_mutex.native_handle());
        }
    }
    held.lock();
}

bool WakeCondition::waitUntil(Mutex& held, Ticket seen,
                              boost::chrono::system_clock::time_point deadline) {
    const timespec until = toTimespec(deadline);
    int result = 0;
    bool notified = false;
    {
        boost::lock_guard<boost::mutex> lock(m_mutex);
        held.unlock();
        // Boost's own wait_until sleeps to a monotonic deadline: a clock that is set forward over
        // an alarm would be slept through. This one is the kernel's wall-clock wait.
        while (m_notified == seen && result == 0) {
            result = pthread_cond_clockwait(m_condition.native_handle(), m_mutex.native_handle(),
                                            CLOCK_REALTIME, &until);
        }
        notified = m_notified != seen;
    }
    held.lock();
    if (result != 0 && result != ETIMEDOUT) {
        boost::throw_exception(boost::condition_error(
            result, "boost::condition_variable::do_wait_until failed in pthread_cond_timedwait"));
    }
    return notified;
}

}  // namespace alarmd
