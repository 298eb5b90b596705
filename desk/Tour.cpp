#include "desk/Tour.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <filesystem>

#include "alarmd/Constants.h"

namespace desk {

using namespace std::chrono_literals;

namespace {

constexpr std::chrono::seconds k_limit = 10s;
/// Once something was missing, the rest of the step is looked at but not waited for as long.
constexpr std::chrono::seconds k_limitWhenUnwell = 1s;
/// A ring that comes later than this after its time is late, even on a busy machine.
constexpr std::chrono::milliseconds k_late = 1000ms;
/// How long a ring that must not come is waited for.
constexpr std::chrono::milliseconds k_silence = 500ms;
constexpr int k_rings = 4;

/// Entries of a source that are, or hold, the given texts.
Timeline::Filter entry(Source source, const std::string& what, const std::string& detail = "") {
    return [=](const Entry& each) {
        return each.source == source && each.what == what
               && each.detail.find(detail) != std::string::npos;
    };
}

/// An event that the cloud receives for a notification.
Timeline::Filter event(const char* name, const std::string& id, const std::string& more = "") {
    return entry(Source::Cloud, std::string("< ") + name,
                 "\"notificationId\":\"" + id + "\"" + more);
}

bool isRing(const Entry& each) {
    return each.source == Source::Player && each.what == alarmd::EARCON_PLAYER_PLAY_LIST_PROP;
}

bool isComplaint(const Entry& each) {
    return each.source == Source::Alarmd && each.weight == Weight::Shown && each.what != "I";
}

Instant inSeconds(int seconds) {
    return std::chrono::ceil<std::chrono::seconds>(std::chrono::system_clock::now())
           + std::chrono::seconds(seconds);
}

std::string inMilliseconds(Instant::duration duration) {
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%.1f ms", milliseconds(duration));
    return text.data();
}

}  // namespace

Tour::Tour(Timeline& timeline, Supervisor& supervisor, Cloud& cloud, AlarmdClient& alarmd)
    : m_timeline(timeline), m_supervisor(supervisor), m_cloud(cloud), m_alarmd(alarmd) {}

bool Tour::run() {
    for (const auto step :
         {&Tour::start, &Tour::twoTimers, &Tour::killed, &Tour::offline, &Tour::doNotDisturb}) {
        (this->*step)();
        if (m_supervisor.quitRequested()) {
            check("the tour goes to its end", "it does", "interrupted", false);
        }
        if (!isWell()) {
            break;  // what would follow on a daemon that does not work says nothing
        }
    }
    end();
    printTable();
    return isWell();
}

bool Tour::isWell() const {
    return std::all_of(m_rows.begin(), m_rows.end(), [](const Row& row) { return row.ok; });
}

void Tour::start() {
    act("start alarmd");
    startDaemon("alarmd starts");
}

void Tour::twoTimers() {
    const Instant first = inSeconds(2);
    const Instant second = first + 1s;
    setNotification("t1", alarmd::EVT_TYPE_TIMER, first);
    setNotification("t2", alarmd::EVT_TYPE_TIMER, second);
    expectRing("t1 rings", first);
    expect("the cloud hears that t1 rings", "start notice",
           event(alarmd::CORVEL_TIMED_STATUS_START_MSG, "t1"));

    act("nothing, until t2 is due");
    m_supervisor.waitUntil([&] { return std::chrono::system_clock::now() >= second + k_silence; },
                           k_limit);
    expectNone("t2 waits while t1 rings", "no ring", isRing);

    const Instant stopped = stop();
    expectRing("t2 rings after the stop", second, stopped);
    expect("the cloud hears that t1 stopped", "stop notice",
           event(alarmd::CORVEL_TIMED_STATUS_STOP_MSG, "t1"));
    expect("and that t2 rings", "start notice", event(alarmd::CORVEL_TIMED_STATUS_START_MSG, "t2"));

    stop();
    expect("the cloud hears that t2 stopped", "stop notice",
           event(alarmd::CORVEL_TIMED_STATUS_STOP_MSG, "t2"));
    expect("nothing rings now", "Status None",
           entry(Source::Bus, alarmd::ALARMD_STATUS_PROP_NAME, alarmd::ALARMD_STATUS_NONE));
}

void Tour::killed() {
    const Instant due = inSeconds(3);
    setNotification("a1", alarmd::EVT_TYPE_ALARM, due);
    act("kill -9");
    m_supervisor.killDaemon();
    startDaemon("alarmd starts after kill -9");
    expectRing("a1 rings all the same", due);
    stop();
    expect("the cloud hears that a1 stopped", "stop notice",
           event(alarmd::CORVEL_TIMED_STATUS_STOP_MSG, "a1"));
}

void Tour::offline() {
    act("offline");
    m_cloud.setConnected(false);
    const Instant due = inSeconds(2);
    setNotification("t3", alarmd::EVT_TYPE_TIMER, due);
    expectRing("t3 rings while offline", due);
    stop();
    expect("its stop is kept", "retained",
           entry(Source::Alarmd, "I", "AlarmEngine:retainEventForLater:reason=invoked,id=t3"));
    expect("nothing rings now", "Status None",
           entry(Source::Bus, alarmd::ALARMD_STATUS_PROP_NAME, alarmd::ALARMD_STATUS_NONE));
    expectNone("the cloud does not hear of it", "no stop notice",
               event(alarmd::CORVEL_TIMED_STATUS_STOP_MSG, "t3"));
    act("online");
    m_cloud.setConnected(true);
    expect("the stop follows once online", "stop notice",
           event(alarmd::CORVEL_TIMED_STATUS_STOP_MSG, "t3"));
}

void Tour::doNotDisturb() {
    act("dnd on");
    m_alarmd.setDoNotDisturb(true);
    expect("do not disturb is seen", "inDND true",
           entry(Source::Bus, alarmd::ALARMD_DND_PROP_NAME, alarmd::ALARMD_DND_ENABLED_TRUE));
    expectDoNotDisturbFile(true);
    act("restart");
    stopDaemon("alarmd ends when asked to");
    startDaemon("alarmd starts again");
    const std::string value = m_alarmd.property(alarmd::ALARMD_DND_PROP_NAME).value_or("nothing");
    check("do not disturb outlives a restart", "inDND true", "inDND " + value,
          value == alarmd::ALARMD_DND_ENABLED_TRUE);
    act("dnd off");
    m_alarmd.setDoNotDisturb(false);
    expectDoNotDisturbFile(false);
}

void Tour::end() {
    act("quit");
    stopDaemon("alarmd ends");
    const int rings = m_timeline.count(0, isRing);
    check("rings in all", std::to_string(k_rings), std::to_string(rings), rings == k_rings);
    const int complaints = m_timeline.count(0, isComplaint);
    check("complaints in alarmd's log", "0", std::to_string(complaints), complaints == 0);
}

void Tour::act(const std::string& what) {
    m_act = m_timeline.end();
    m_timeline.add(Source::You, what);
}

void Tour::setNotification(const std::string& id, const char* type, Instant due) {
    act("set " + id + ", " + type + " at " + timeOfDay(due));
    m_cloud.setNotification(id, type, due);
    expect(id + " is set", "acknowledged SET",
           event(alarmd::CORVEL_TIMED_EDITACK_MSG, id, ",\"disposition\":\"SET\""));
}

Instant Tour::stop() {
    act("stop");
    const Instant now = std::chrono::system_clock::now();
    m_alarmd.acknowledge();
    return now;
}

void Tour::startDaemon(const std::string& step) {
    const auto begin = std::chrono::steady_clock::now();
    const bool up = m_supervisor.startDaemon();
    const auto took = std::chrono::steady_clock::now() - begin;
    check(step, "it comes up", up ? "up after " + inMilliseconds(took) : "not up", up);
}

void Tour::stopDaemon(const std::string& step) {
    const bool inOrder = m_supervisor.stopDaemon();
    check(step, "status 0", inOrder ? "status 0" : "another end", inOrder);
}

void Tour::check(const std::string& step, const std::string& expected, const std::string& seen,
                 bool ok) {
    m_rows.push_back({step, expected, seen, ok});
    m_timeline.add(Source::Tour, (ok ? "ok: " : "WRONG: ") + step + ":", seen);
}

std::optional<Entry> Tour::await(const Filter& filter) {
    std::optional<Entry> found;
    m_supervisor.waitUntil(
        [&] {
            found = m_timeline.find(m_act, filter);
            return found.has_value() || !m_supervisor.daemonRunning();
        },
        isWell() ? k_limit : k_limitWhenUnwell);
    return found;
}

void Tour::expect(const std::string& step, const std::string& expected, const Filter& filter) {
    const bool found = await(filter).has_value();
    check(step, expected, found ? expected : "nothing came", found);
}

void Tour::expectNone(const std::string& step, const std::string& expected, const Filter& filter) {
    const int came = m_timeline.count(m_act, filter);
    check(step, expected, came == 0 ? expected : std::to_string(came) + " came", came == 0);
}

void Tour::expectRing(const std::string& step, Instant due, std::optional<Instant> stop) {
    const std::string expected = stop ? "ring at once" : "ring at " + timeOfDay(due);
    const auto ring = await(isRing);
    if (!ring) {
        check(step, expected, "no ring", false);
        return;
    }
    std::string seen = inMilliseconds(ring->time - due) + " late";
    if (stop) {
        seen += ", " + inMilliseconds(ring->time - *stop) + " after stop";
    }
    const auto lateness = ring->time - stop.value_or(due);
    check(step, expected, seen, lateness >= 0ms && lateness < k_late);
}

void Tour::expectDoNotDisturbFile(bool there) {
    const auto agrees = [there] {
        return std::filesystem::exists(alarmd::ALARMD_DND_STATE_FILE) == there;
    };
    const bool ok = m_supervisor.waitUntil(agrees, k_limit);
    const bool isThere = ok == there;
    check(there ? "do not disturb is kept" : "do not disturb is forgotten",
          there ? "file" : "no file", isThere ? "file" : "no file", ok);
}

void Tour::printTable() {
    std::string table = "\n";
    const auto add = [&table](const char* step, const char* expected, const char* seen,
                              const char* ok) {
        std::array<char, 256> line{};
        std::snprintf(line.data(), line.size(), "%-34s  %-21s  %-34s  %s\n", step, expected, seen,
                      ok);
        table += line.data();
    };
    add("step", "expected", "seen", "ok");
    for (const Row& row : m_rows) {
        add(row.step.c_str(), row.expected.c_str(), row.seen.c_str(), row.ok ? "yes" : "NO");
    }
    m_timeline.print(table);
}

}  // namespace desk
