#include "alarmd/Lock.h"

#include <gtest/gtest.h>

#include <atomic>
#include <boost/chrono/duration.hpp>
#include <thread>

namespace alarmd {
namespace {

using boost::chrono::system_clock;

class WakeConditionTest : public testing::Test {
  protected:
    /// True when notified; waits until an instant in seconds since 1970.
    bool waitUntil(WakeCondition::Ticket seen, long long second) REQUIRES(m_mutex) {
        return m_condition.waitUntil(m_mutex, seen,
                                     system_clock::time_point(boost::chrono::seconds(second)));
    }
    static constexpr long long k_never = 7884000000;
    Mutex m_mutex{LockRank::Engine};
    WakeCondition m_condition;
};

/// Instants that no steady clock knows are told apart from those to come.
TEST_F(WakeConditionTest, EndsWithANotificationAfterTheTicketOrAnInstantOfTheWallClock) {
    const Lock lock(m_mutex);
    const WakeCondition::Ticket seen = m_condition.ticket();
    m_condition.notifyAll();
    m_condition.wait(m_mutex, seen);
    EXPECT_TRUE(waitUntil(seen, k_never));
    for (const long long passed : {-1LL, 0LL, 1LL, 1488353400LL}) {
        EXPECT_FALSE(waitUntil(m_condition.ticket(), passed)) << passed;
    }
    const auto due = system_clock::now() + boost::chrono::milliseconds(20);
    EXPECT_FALSE(m_condition.waitUntil(m_mutex, m_condition.ticket(), due));
    EXPECT_GE(system_clock::now(), due);
}

/// The notifier takes the waiter's mutex once per round, which it gets only inside the wait.
TEST_F(WakeConditionTest, NoWakeUpIsLostBetweenTheLookAndTheWait) {
    std::atomic<int> state{0};
    std::thread notifier([&] {
        for (int round = 1; round <= 2000; ++round) {
            { const Lock lock(m_mutex); }
            state = round;
            m_condition.notifyAll();
            while (state == round) {
                std::this_thread::yield();
            }
        }
    });
    const Lock lock(m_mutex);
    for (int round = 1; round <= 2000; ++round) {
        for (auto seen = m_condition.ticket(); state != round; seen = m_condition.ticket()) {
            EXPECT_TRUE(waitUntil(seen, k_never));
        }
        state = -round;
    }
    notifier.join();
}

}  // namespace
}  // namespace alarmd
