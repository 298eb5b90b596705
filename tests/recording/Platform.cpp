#include "tests/recording/Platform.h"

#include <fnmatch.h>

#include <algorithm>
#include <boost/make_shared.hpp>
#include <chrono>
#include <cstdarg>
#include <cstdio>

namespace {

/// Far above what anything takes, sanitizers and a busy machine included.
constexpr std::chrono::seconds k_deadline(30);

bool isNamed(const std::string& call, const std::string& name) {
    return fnmatch(("@(" + name + ")*").c_str(), call.c_str(), FNM_EXTMATCH) == 0;
}

/// Takes what the script holds for this call.
template <typename Entries, typename Value>
void take(Entries& entries, const std::string& call, Value& value) {
    const auto found = std::find_if(entries.begin(), entries.end(),
                                    [&](const auto& entry) { return isNamed(call, entry.first); });
    if (found != entries.end()) {
        value = std::move(found->second);
        entries.erase(found);
    }
}

}  // namespace

// The daemon's log lines end here instead of in the C library.
extern "C" __attribute__((format(printf, 2, 3))) void syslog(int, const char* format, ...) {
    va_list arguments;
    char* line = nullptr;
    va_start(arguments, format);
    if (vasprintf(&line, format, arguments) >= 0) {
        recording::platform().record(std::string("log ") + line);
        std::free(line);
    }
    va_end(arguments);
}

namespace recording {

Platform& platform() {
    static Platform instance;
    return instance;
}

void Platform::reset() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_calls.clear();
    m_failures.clear();
    m_actions.clear();
    m_listener = {};
    m_state = State();
}

std::vector<std::string> Platform::calls(const std::string& call) {
    std::vector<std::string> result;
    const std::lock_guard<std::mutex> lock(m_mutex);
    std::copy_if(m_calls.begin(), m_calls.end(), std::back_inserter(result),
                 [&](const std::string& made) { return isNamed(made, call); });
    return result;
}

void Platform::forgetCalls() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_calls.clear();
}

bool Platform::waitUntil(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + k_deadline;
    std::unique_lock<std::mutex> lock(m_mutex);
    while (true) {
        const std::size_t seen = m_calls.size();
        lock.unlock();
        const bool holds = condition();
        lock.lock();
        if (holds || std::chrono::steady_clock::now() > deadline) {
            return holds;
        }
        m_changed.wait_until(lock, deadline, [&] { return m_calls.size() != seen; });
    }
}

bool Platform::waitFor(const std::string& call, std::size_t times) {
    return waitUntil([&] { return calls(call).size() >= times; });
}

void Platform::answer(const std::string& source, const std::string& value) {
    record("answer", [&](State& state) { state.answers[source] = value; });
}

void Platform::fail(const std::string& call, int times, int code) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_failures.insert(m_failures.end(), static_cast<std::size_t>(times), {call, code});
}

void Platform::during(const std::string& call, std::function<void()> action) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_actions.emplace_back(call, std::move(action));
}

void Platform::listen(std::function<void(const std::string& call)> listener) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_listener = std::move(listener);
}

int Platform::record(const std::string& call, const std::function<void(State&)>& effect) {
    std::function<void()> action = [] {};
    std::function<void(const std::string&)> listener;
    int code = 0;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_calls.push_back(call);
        take(m_failures, call, code);
        take(m_actions, call, action);
        listener = m_listener;
        if (code == 0 && effect) {
            effect(m_state);
        }
        m_changed.notify_all();
    }
    action();
    if (listener) {
        listener(call);
    }
    return code;
}

std::vector<SqliteUtil::Row> Platform::rows(const std::string& file, const std::string& table) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_state.files[file][table].rows;
}

void Platform::seed(const std::string& file, const std::string& table, const Table& content) {
    record("seed", [&](State& state) { state.files[file][table] = content; });
}

State::Callback Platform::callback(const std::string& source) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_state.callbacks.at(source);
}

std::string Platform::published(const std::string& property) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_state.published.at(property);
}

void Platform::deliver(const std::string& name, const std::string& body) {
    using namespace CorvelMessaging;
    CorvelMessageHandler* handler = nullptr;
    record("deliver " + name, [&](State& state) { handler = state.handler; });
    handler->onMessage(boost::make_shared<Message>(
        MessageType("DeviceNotifications", name), MessageBody("application/json", body),
        MessageAttachment(), MessageVoiceRequest(), MessageRequestReplyContext(),
        static_cast<unsigned char>(0)));
}

}  // namespace recording
