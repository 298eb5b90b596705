/// Everything that may happen at once, against each other. `Interleaving` walks: at every call that
/// one thread makes, something else happens. `Stress` lets all of it collide, as often as
/// ALARMD_RACE_ROUNDS says. Lock ranks and the sanitizers watch; what must hold when all is quiet
/// again is checked each time.
#include <fnmatch.h>
#include <pthread.h>

#include <algorithm>
#include <future>
#include <random>
#include <thread>

#include "tests/unit/Fixture.h"

namespace alarmd {
namespace {

/// All is about the timer "v".
class Races : public EngineFixture {
  protected:
    struct Happening {
        const char* name;
        bool isDirective;
        const char* unheard;  ///< what may end by it without a stop notice
        std::function<void()> run;
    };
    const std::vector<Happening> k_happenings{
        {"acknowledge", false, "", [this] { acknowledge(); }},
        {"set another type", true, "", [this] { set("n", "ALARM", -1); }},
        {"set the same type", true, "v", [this] { set("m", "TIMER", -1); }},
        {"set what is too old", true, "", [this] { set("o", "REMINDER", -1801); }},
        {"set it anew", true, "v", [this] { set("v", "TIMER", 3600); }},
        {"stop it", true, "", [this] { tell("StopNotification", "v"); }},
        {"delete it", true, "", [this] { tell("DeleteNotification", "v"); }},
        {"delete a list", true, "v", [this] { tell("DeleteNotifications", "v"); }},
        {"deregister", false, "vnmo", [this] { deregister(); }},
        {"go off line", false, "", [this] { connect(false); }},
        {"go on line", false, "", [this] { connect(true); }},
        {"choose an alert type", false, "", [this] { device.emit(k_alertType, "long"); }},
    };

    Races() {
        start();
        connect(true);
    }
    /// "id type" of what rings by the daemon's own word, or "". The choice of an alert type waits
    /// for the pass that is under way, and "none" tells nobody.
    std::string ringing() {
        device.emit(k_alertType, "none");
        device.emit("com.quintel.corveld refreshCloudState", nullptr);
        const std::string word = device.calls(k_send + "StateUpdate").back();
        const auto value = [&word](const std::string& key) {
            const std::size_t begin = word.find(key) + key.size() + 3;
            return word.substr(begin, word.find('"', begin) - begin);
        };
        return word.find("[]") != std::string::npos
                   ? ""
                   : value("notificationId") + " " + value("notificationType");
    }
    bool isStored(const std::string& id) {
        return (" " + stored() + " ").find(" " + id + " ") != std::string::npos;
    }
    /// No wake-up is lost: what is due rings or is gone. And "Status" says what rings.
    bool isTrue() {
        settle();
        const std::string rings = ringing();
        const std::string status = device.published("Status");
        const auto rows = device.rows(ALARMD_DB_FILE, "Notifications");
        const auto isDue = [](const SqliteUtil::Row& row) { return row[3] <= in(0); };
        return rings.empty() ? status == "None" && std::none_of(rows.begin(), rows.end(), isDue)
                             : status == rings.substr(rings.find(' ') + 1);
    }
    std::string whatIs() {
        return ringing() + " rings after " + course("deliver|insert|delete|publish|put|send");
    }
    /// To be called when nobody acts any more; leaves an empty store behind.
    void check(const std::string& unheard, bool isInOrder) {
        ASSERT_TRUE(device.waitUntil([this] { return isTrue(); })) << whatIs();
        connect(true);
        for (std::string rings = ringing(); !rings.empty(); rings = ringing()) {
            acknowledge();
            ASSERT_FALSE(isStored(rings.substr(0, rings.find(' ')))) << whatIs();
            ASSERT_TRUE(device.waitUntil([this] { return isTrue(); })) << whatIs();
        }
        ASSERT_TRUE(device.waitUntil([this] { return stored("RetainedEvents").empty(); }));
        for (const std::string id : {"v", "n", "m", "o"}) {
            checkStopNotices(id, unheard.find(id) != std::string::npos, isInOrder);
            tell("DeleteNotifications", id);
        }
        settle();
        ASSERT_EQ(stored() + ringing() + device.published("Status"), "None");
        device.forgetCalls();
    }
    /// One for each that rang or was given up on, and none is begun once a new one is answered.
    void checkStopNotices(const std::string& id, bool isUnheard, bool isInOrder) {
        const std::string named = "NotificationStoppedEvent*\"" + id + "\"";
        const std::string begun = "log D AlarmCorvel:sendBasicMessage:type=" + named;
        const std::string answer = k_send + "EditAcknowledged*\"" + id + "\"*\"SET\"";
        const bool ended = !device.calls("insert Ret* " + id + "|metrics*Id=" + id + ",").empty();
        if (!isStored(id) && !isUnheard) {
            ASSERT_EQ(!device.calls(k_send + named).empty(), ended) << id << ": " << whatIs();
        } else if (isStored(id) && isInOrder) {
            ASSERT_EQ(device.calls(begun + "|" + answer).back().find(k_send), 0U) << whatIs();
        }
    }
    const std::string k_alertType = "com.quintel.controld AlarmTypeChanged";
};

/// Lets something happen when the watched thread makes its call number `at`, and holds that thread
/// until it has; where it has to wait for a lock of the thread, for a moment only.
struct Interruption {
    std::string thread;
    int at;
    std::function<void()> happen;
    std::mutex mutex{};
    std::future<void> happening{};
    std::string call{};
    bool isWhole = false;  ///< it all happened at the call

    void operator()(const std::string& made) {
        char name[16];
        pthread_getname_np(pthread_self(), name, sizeof name);
        // These stand right beside others.
        constexpr const char* k_close =
            "@(metrics|METRICS|identity|time-event|log ? @(TimedEvent|AlarmCorvel|AlarmMetrics|"
            "AlarmDB:@(has|read|write|emit|deleteE)))*";
        if (name != thread || fnmatch(k_close, made.c_str(), FNM_EXTMATCH) == 0) {
            return;
        }
        const std::lock_guard<std::mutex> lock(mutex);
        if (at-- == 0) {
            call = made;
            happening = std::async(std::launch::async, happen);
            isWhole = happening.wait_for(std::chrono::milliseconds(2)) == std::future_status::ready;
        }
    }
    /// Nothing happens from now on; false when nothing has.
    bool finish() {
        std::unique_lock<std::mutex> lock(mutex);
        at = -1;
        const std::future<void> last = std::move(happening);
        lock.unlock();
        if (last.valid()) {
            last.wait();
        }
        return last.valid();
    }
};

class Interleaving : public Races {
  protected:
    void walk(const std::string& thread, const std::function<void()>& arrange,
              const std::function<void()>& act, const std::string& unheard = "") {
        for (const Happening& happening : k_happenings) {
            if (happening.isDirective && thread == "corvel-work") {
                continue;  // one comes after the other there
            }
            bool hasHappened = true;
            for (int at = 0; hasHappened; ++at) {
                arrange();
                const auto happen = [this, &happening] {
                    pthread_setname_np(pthread_self(), "happening");
                    happening.run();
                    settle();
                };
                const std::shared_ptr<Interruption> interruption(
                    new Interruption{thread, at, happen});
                device.listen([interruption](const std::string& made) { (*interruption)(made); });
                std::thread([&act] {
                    pthread_setname_np(pthread_self(), "actor");
                    act();
                }).join();
                EXPECT_TRUE(device.waitUntil([this] { return isTrue(); }));
                device.listen({});
                hasHappened = interruption->finish();
                SCOPED_TRACE(std::string(happening.name) + " at: " + interruption->call);
                check(happening.unheard + unheard, interruption->isWhole);
                if (HasFatalFailure()) {
                    return;
                }
            }
        }
    }
};

TEST_F(Interleaving, OfARingingPass) {
    walk(
        "alarm-timer", [] {}, [this] { set("v", "TIMER", -1); });
}

TEST_F(Interleaving, OfGivingUp) {
    walk(
        "alarm-timer", [] {}, [this] { set("v", "TIMER", -1801); });
}

TEST_F(Interleaving, OfAnAcknowledgement) {
    for (const bool online : {true, false}) {
        const auto arrange = [this, online] {
            ring("v", "TIMER");
            connect(online);
        };
        walk("actor", arrange, [this] { acknowledge(); });
    }
}

TEST_F(Interleaving, OfADeregistration) {
    walk(
        "actor", [this] { ring("v", "TIMER"); }, [this] { deregister(); }, "vnmo");
}

TEST_F(Interleaving, OfADirective) {
    for (const Happening& act : k_happenings) {
        if (act.isDirective) {
            walk(
                "corvel-work", [this] { ring("v", "TIMER"); }, act.run, act.unheard);
        }
    }
}

TEST_F(Interleaving, OfTheRetainedNotices) {
    const auto arrange = [this] {
        connect(false);
        ring("v", "TIMER");
        acknowledge();
    };
    walk("stop-notices", arrange, [this] { connect(true); });
}

class Stress : public Races {};

TEST_F(Stress, LosesNothing) {
    const char* asked = std::getenv("ALARMD_RACE_ROUNDS");
    const int rounds = asked == nullptr ? 300 : std::atoi(asked);
    const auto seed = std::random_device{}();
    std::mt19937 random(seed);
    for (int round = 0; round < rounds && !HasFatalFailure(); ++round) {
        ring("v", "TIMER");
        std::string trace = "round " + std::to_string(round) + " of seed " + std::to_string(seed);
        std::string unheard;
        std::vector<std::thread> threads;
        for (int i = 0; i < 6; ++i) {
            const Happening& happening = k_happenings[random() % k_happenings.size()];
            unheard += happening.unheard;
            trace += std::string(", ") + happening.name;
            threads.emplace_back([&happening, delay = random() % 300] {
                std::this_thread::sleep_for(std::chrono::microseconds(delay));
                happening.run();
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        SCOPED_TRACE(trace);
        check(unheard, false);
    }
}

}  // namespace
}  // namespace alarmd
