/// What may happen at once. `Interleaving` walks: at every call that one thread makes, something
/// else happens. `Stress` lets all of it collide, ALARMD_RACE_ROUNDS times. Each time it is checked
/// what must hold when all is quiet again; lock ranks and the sanitizers watch.
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
        {"set another type", true, "", [this] { set("n", "ALARM", in(-1)); }},
        {"set the same type", true, "v", [this] { set("m", "TIMER", in(-1)); }},
        {"set what is too old", true, "", [this] { set("o", "REMINDER", in(-1801)); }},
        {"set it anew", true, "v", [this] { set("v", "TIMER", in(3600)); }},
        {"stop it", true, "", [this] { tell("StopNotification", "v"); }},
        {"delete it", true, "", [this] { tell("DeleteNotification", "v"); }},
        {"delete a list", true, "v", [this] { tell("DeleteNotifications", "v"); }},
        {"deregister", false, "vnmo", [this] { device.send(k_registration, "2"); }},
        {"go off line", false, "", [this] { connect(false); }},
        {"go on line", false, "", [this] { connect(true); }},
        {"choose an alert type", false, "", [this] { device.send(k_alertType, "long"); }},
    };

    Races() { start(), connect(true); }
    /// "id type" of what rings by the daemon's own word. The first event waits for the pass that is
    /// under way.
    std::string ringing() {
        device.send(k_alertType, "none");
        device.send("com.quintel.corveld refreshCloudState", nullptr);
        static const std::regex first(R"-(Id":"(\w+)","notificationType":"(\w+))-");
        const std::string word = device.calls(k_send + "StateUpdate").back();
        std::smatch found;
        return std::regex_search(word, found, first) ? found.str(1) + " " + found.str(2) : "";
    }
    bool isStored(const std::string& id) { return stored().find(id) != std::string::npos; }
    /// No wake-up is lost: what is due rings or is gone.
    bool hasRung() {
        const auto rows = device.rows("Notifications");
        return !ringing().empty() || std::none_of(rows.begin(), rows.end(), [](const auto& row) {
            return row[3] <= in(0);
        });
    }
    /// And "Status" says what rings.
    bool isTrue() {
        settle();
        const std::string type = hasRung() ? ringing() : "no: ";
        return device.published("Status") == (type.empty() ? "None" : type.substr(2));
    }
    /// What is deleted may still be on its way: the thread that sends has a copy.
    bool isAllSent() {
        const bool isNoneSaved = stored("RetainedEvents").empty();
        const Texts runs = device.calls("log I AlarmEngine:sendAnyRetainedEvents:reason=");
        return isNoneSaved && (runs.empty() || runs.back().find("invoked") == std::string::npos);
    }
    std::string whatIs() { return ringing() + " rings after " + course("deliver|ins|del|pu|send"); }
    /// To be called when nobody acts any more; leaves an empty store behind.
    void check(const std::string& unheard, bool isInOrder) {
        ASSERT_TRUE(device.waitUntil([this] { return isTrue(); })) << whatIs();
        connect(true);
        for (std::string rings = ringing(); !rings.empty(); rings = ringing()) {
            acknowledge();
            ASSERT_FALSE(isStored(rings.substr(0, 1))) << whatIs();
            ASSERT_TRUE(device.waitUntil([this] { return isTrue(); })) << whatIs();
        }
        ASSERT_TRUE(device.waitUntil([this] { return isAllSent(); }));
        for (const std::string id : {"v", "n", "m", "o"}) {
            checkStopNotices(id, unheard.find(id) != std::string::npos, isInOrder);
            tell("DeleteNotifications", id);
        }
        settle();
        ASSERT_EQ(stored() + ringing() + device.published("Status"), "None");
        device.forgetCalls();
    }
    /// One for each that rang, once, or was given up on; none is begun once a new one is answered.
    void checkStopNotices(const std::string& id, bool isUnheard, bool isInOrder) {
        const std::string quoted = "\"" + id + "\"";
        const std::string begun = "log D *type=NotificationStopped*" + quoted;
        const std::string answer = k_send + "EditAcknowledged*" + quoted + "*\"SET\"";
        const std::size_t rung =
            device.calls("metrics*StartedRinging=*{NotificationId=" + id + "}").size();
        if (!isStored(id) && !isUnheard) {
            const Texts told = device.calls(
                k_send + "Notification" + (isInOrder ? "St@(arted|opped)*" : "Stopped*") + quoted);
            const bool isTold = !told.empty() && told.back().find("Stopped") != std::string::npos;
            ASSERT_EQ(isTold, rung != 0 || !device.calls("insert Ret* " + id).empty()) << whatIs();
            // "m" is of the type of "v", whose set has it ring again where it rings already.
            ASSERT_TRUE(rung < (id == "m" ? 3 : 2) || !isInOrder) << whatIs();
        } else if (isStored(id) && isInOrder) {
            ASSERT_EQ(device.calls(begun + "|" + answer).back().find(k_send), 0U) << whatIs();
        }
    }
    const std::string k_send = "send DeviceNotifications.";
    const std::string k_alertType = "com.quintel.controld AlarmTypeChanged";
    const std::string k_registration = "com.orun42.DeviceAuthenticationService registrationChanged";
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
            "@(metrics|METRICS|time-event|log ? @(TimedEvent|AlarmCorvel|AlarmMetrics|"
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
            // One directive comes after the other.
            bool mayHappen = !happening.isDirective || thread != "corvel-work";
            for (int at = 0; mayHappen && !HasFatalFailure(); ++at) {
                arrange();
                const auto happen = [&] {
                    pthread_setname_np(pthread_self(), "happening");
                    happening.run();
                    settle();
                    device.waitUntil([&] { return thread == "alarm-timer" || hasRung(); });
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
                mayHappen = interruption->finish();
                SCOPED_TRACE(std::string(happening.name) + " at: " + interruption->call);
                check(happening.unheard + unheard, interruption->isWhole);
            }
        }
    }
    const std::function<void()> k_nothing = [] {};
    const std::function<void()> k_ring = [this] { ring("v", "TIMER"); };
    const std::function<void()> k_acknowledge = [this] { acknowledge(); };
    const std::function<void()> k_deregister = [this] { device.send(k_registration, "2"); };
};

TEST_F(Interleaving, OfARingingPassAndOfGivingUp) {
    walk("alarm-timer", k_nothing, [this] { set("v", "TIMER", in(-1)); });
    walk("alarm-timer", k_nothing, [this] { set("v", "TIMER", in(-1801)); });
}

TEST_F(Interleaving, OfAnAcknowledgementAndOfADeregistration) {
    walk("actor", k_ring, k_acknowledge);
    const auto ringOffline = [this] { k_ring(), connect(false); };
    walk("actor", ringOffline, k_acknowledge);
    walk("actor", k_ring, k_deregister, "vnmo");
    walk("actor", k_nothing, k_deregister, "vnmo");
}

TEST_F(Interleaving, OfADirective) {
    for (const Happening& act : k_happenings) {
        if (act.isDirective) {
            walk("corvel-work", k_ring, act.run, act.unheard);
        }
    }
}

TEST_F(Interleaving, OfTheRetainedNotices) {
    const auto retain = [this] { connect(false), k_ring(), acknowledge(); };
    walk("stop-notices", retain, [this] { connect(true); });
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
