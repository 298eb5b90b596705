/// The second platform: what stands behind alarmd/platform in unit tests. Every call to it and
/// every log line is kept, in order, as one text "kind what"; answers and failures come from a
/// script, and the test plays the rest of the device. A `call` names calls by a regular expression
/// that their texts must begin with. Any thread; the mutex is never held while code of the daemon
/// or of the test runs.
#pragma once

#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "alarmd/platform/CorvelMessaging.h"
#include "alarmd/platform/Oipc.h"
#include "alarmd/platform/SqliteUtil.h"

namespace recording {

struct Table {
    std::vector<std::string> columns;
    std::vector<SqliteUtil::Row> rows;
};

/// What the device holds. Only touched under the platform's mutex.
struct State {
    struct Callback {
        OipcStringGetter getter;
        OipcStringSetter setter;
        OipcEventHandler handler;
        void* data;
    };
    std::map<std::string, std::string> answers;    ///< to reads of "service property"
    std::map<std::string, std::string> published;  ///< by property
    std::map<std::string, Callback> callbacks;     ///< by property, or by "service event"
    std::map<std::string, std::map<std::string, Table>> files;
    std::map<std::string, int> userVersions;  ///< by file
    CorvelMessaging::CorvelMessageHandler* handler = nullptr;
};

class Platform {
  public:
    /// Back to an empty device without a script. Nothing of the daemon may be alive.
    void reset();

    std::vector<std::string> calls(const std::string& call);
    void forgetCalls();
    /// Waits until the condition holds, looking again after every call. False after a deadline.
    bool waitUntil(const std::function<bool()>& condition);
    bool waitFor(const std::string& call, std::size_t times = 1);

    /// What reads of "service property" get, an int being a text that is one; "identity dsn" is of
    /// the identity store.
    void answer(const std::string& source, const std::string& value);
    /// Lets the next `times` such calls fail with `code`.
    void fail(const std::string& call, int times = 1, int code = 1);
    /// Runs `action` inside the next such call, on the thread that makes it.
    void during(const std::string& call, std::function<void()> action);
    /// Tells `listener` of every call from now on, on the thread that makes it; {} ends that.
    void listen(std::function<void(const std::string& call)> listener);

    /// Sends an event with one argument, or none, to whoever subscribed to "service event".
    void emit(const std::string& source, const char* argument);
    int write(const std::string& property, const std::string& value);
    int read(const std::string& property, char* buffer, unsigned int& size);
    std::string published(const std::string& property);
    void deliver(const std::string& name, const std::string& body);
    std::vector<SqliteUtil::Row> rows(const std::string& file, const std::string& table);
    void seed(const std::string& file, const std::string& table, const Table& content);

    /// For the implementations: keeps the call and, unless the script lets it fail, applies
    /// `effect` in the same step; then runs the test's action. The call's status.
    int record(const std::string& call, const std::function<void(State&)>& effect = {});
    State::Callback callback(const std::string& source);

  private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<std::string> m_calls;
    std::vector<std::pair<std::string, int>> m_failures;
    std::vector<std::pair<std::string, std::function<void()>>> m_actions;
    std::function<void(const std::string&)> m_listener;
    State m_state;
};

Platform& platform();

}  // namespace recording
