#include "tests/recording/Platform.h"

#include <fnmatch.h>

#include <algorithm>
#include <boost/make_shared.hpp>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <thread>

namespace recording {

/// Far above what anything takes, sanitizers and a busy machine included.
constexpr std::chrono::seconds k_deadline(30);

static bool matches(const std::string& made, const std::string& call) {
    return fnmatch(("@(" + call + ")*").c_str(), made.c_str(), FNM_EXTMATCH) == 0;
}

/// The daemon's log lines end here instead of in the C library.
extern "C" __attribute__((format(printf, 2, 3))) void syslog(int, const char* format, ...) {
    char line[4096];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    platform().record(std::string("log ") + line);
}

Platform& platform() {
    static Platform instance;
    return instance;
}

std::vector<std::string> Platform::calls(const std::string& call) {
    std::vector<std::string> result;
    const Locked state = locked();
    std::copy_if(state->calls.begin(), state->calls.end(), std::back_inserter(result),
                 [&](const std::string& made) { return matches(made, call); });
    return result;
}

bool Platform::waitUntil(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + k_deadline;
    bool holds = false;
    while (!(holds = condition()) && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::microseconds(50));
    }
    return holds;
}

bool Platform::waitFor(const std::string& call, std::size_t times) {
    return waitUntil([&] { return calls(call).size() >= times; });
}

int Platform::record(const std::string& call, const std::function<void(State&)>& effect) {
    Locked state = locked();
    state->calls.push_back(call);
    const auto failure =
        std::find_if(state->failures.begin(), state->failures.end(),
                     [&](const auto& f) { return f.second > 0 && matches(call, f.first); });
    const bool fails = failure != state->failures.end();
    if (fails) {
        --failure->second;
    } else if (effect) {
        effect(*state);
    }
    const auto listener = state->listener;
    state.lock.unlock();
    if (listener) {
        listener(call);
    }
    return fails ? 1 : 0;
}

std::vector<SqliteUtil::Row> Platform::rows(const std::string& table) {
    std::vector<SqliteUtil::Row> rows;
    const Locked state = locked();
    for (const auto& [id, row] : state->tables[table]) {
        rows.push_back(row);
    }
    return rows;
}

int Platform::send(const std::string& name, const char* value) {
    record("call " + name);
    const State::Callback callback = locked()->callbacks.at(name);
    return callback(value);
}

void Platform::deliver(const std::string& name, const std::string& body) {
    using namespace CorvelMessaging;
    record("deliver " + name);
    CorvelMessageHandler* const handler = locked()->handler;
    handler->onMessage(boost::make_shared<Message>(
        MessageType("DeviceNotifications", name), MessageBody("application/json", body),
        MessageAttachment(), MessageVoiceRequest(), MessageRequestReplyContext(),
        static_cast<unsigned char>(0)));
}

}  // namespace recording
