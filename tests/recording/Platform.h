/// The second platform: what stands behind alarmd/platform in unit tests. Every call to it and
/// every log line is kept, in order, as one text "kind what"; answers and failures come from a
/// script, and the test plays the rest of the device. A `call` names calls by a pattern of the
/// shell that their texts must begin with. Any thread; the mutex is never held while code of the
/// daemon or of the test runs.
#pragma once

#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "alarmd/platform/CorvelMessaging.h"
#include "alarmd/platform/Oipc.h"
#include "alarmd/platform/SqliteUtil.h"

namespace recording {

using Table = std::map<std::string, SqliteUtil::Row>;  ///< by the first column

/// The device and the script.
struct State {
    using Callback = std::function<int(const char* value)>;
    std::vector<std::string> calls;
    std::map<std::string, int> failures;  ///< how many calls of a kind are to fail
    std::function<void(const std::string& call)> listener;
    std::map<std::string, std::string> answers;    ///< to reads of "service property"
    std::map<std::string, std::string> published;  ///< by property
    std::map<std::string, Callback> callbacks;     ///< by property, or by "service event"
    std::map<std::string, Table> tables;           ///< of the one database that there is
    CorvelMessaging::CorvelMessageHandler* handler = nullptr;
};

class Platform {
  public:
    /// Back to an empty device without a script. Nothing of the daemon may be alive.
    void reset() { *locked() = {}; }

    std::vector<std::string> calls(const std::string& call);
    void forgetCalls() { locked()->calls.clear(); }
    /// Waits until the condition holds. False after a deadline.
    bool waitUntil(const std::function<bool()>& condition);
    bool waitFor(const std::string& call, std::size_t times = 1);

    /// What reads of "service property" get, an int being a text that is one.
    void answer(const std::string& source, const std::string& text) {
        locked()->answers[source] = text;
    }
    /// Lets the next `times` such calls fail.
    void fail(const std::string& call, int times = 1) { locked()->failures[call] += times; }
    /// Tells it of every call from now on, on the thread that makes it; {} ends that.
    void listen(const decltype(State::listener)& listener) { locked()->listener = listener; }

    /// Writes a property, or sends an event with one argument to who subscribed to
    /// "service event". What the daemon returns.
    int send(const std::string& name, const char* value);
    std::string published(const std::string& property) { return locked()->published.at(property); }
    void deliver(const std::string& name, const std::string& body);
    std::vector<SqliteUtil::Row> rows(const std::string& table);

    /// For the implementations: keeps the call and, unless the script lets it fail, applies
    /// `effect` in the same step; then tells the listener. The call's status.
    int record(const std::string& call, const std::function<void(State&)>& effect = {});

  private:
    /// The state, and the mutex as long as this lives.
    struct Locked {
        std::unique_lock<std::mutex> lock;
        State& state;
        State& operator*() const { return state; }
        State* operator->() const { return &state; }
    };
    Locked locked() { return {std::unique_lock<std::mutex>(m_mutex), m_state}; }

    std::mutex m_mutex;
    State m_state;
};

Platform& platform();

}  // namespace recording
