#include "alarmd/Log.h"

#include <pthread.h>

#include <boost/chrono/duration.hpp>
#include <boost/thread/exceptions.hpp>
#include <boost/thread/thread.hpp>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <exception>
#include <string>

#include "alarmd/Lock.h"

static_assert(sizeof(g_orun42_log_mask) == sizeof(std::uint32_t),
              "the logging library takes the mask for one 32-bit word");

std::atomic<std::uint32_t> g_orun42_log_mask{0};

namespace alarmd {

namespace {

/// Beside as much that is being written.
constexpr std::size_t MOST_WAITING_BYTES = 2U << 20U;
constexpr boost::chrono::seconds FLUSH_LIMIT(1);

struct LogEntry {
    int priority;
    std::string text;
};

/// The lines that wait for their thread.
class LogQueue {
  public:
    /// False when nobody takes lines out, so that the caller has to write this one.
    bool push(int priority, std::string&& text);
    void start();
    void flush();

  private:
    void run();
    bool takeAll(std::deque<LogEntry>& entries, std::size_t& lost);

    std::atomic<bool> m_isStarted{false};
    std::atomic<bool> m_isEnding{false};
    WakeCondition m_changed;
    boost::thread m_thread;
    Mutex m_mutex{LockRank::Log};
    std::deque<LogEntry> m_entries GUARDED_BY(m_mutex);
    std::size_t m_bytes GUARDED_BY(m_mutex) = 0;
    std::size_t m_lost GUARDED_BY(m_mutex) = 0;
};

/// Never destroyed: its thread may still hang in syslog when the process ends.
LogQueue& queue() {
    static LogQueue* const instance = new LogQueue;
    return *instance;
}

bool LogQueue::push(int priority, std::string&& text) {
    if (!m_isStarted) {
        return false;
    }
    {
        Lock lock(m_mutex);
        if (!m_entries.empty() && m_bytes + text.size() > MOST_WAITING_BYTES) {
            ++m_lost;
            return true;
        }
        m_bytes += text.size();
        m_entries.push_back({priority, std::move(text)});
    }
    m_changed.notifyAll();
    return true;
}

void LogQueue::start() {
    try {
        m_thread = boost::thread([this] { run(); });
        m_isStarted = true;
    } catch (const boost::thread_resource_error& error) {
        LOGW("alarmd:startLogThread:reason=noThread,exc=%s:", error.what());
    }
}

void LogQueue::flush() {
    m_isEnding = true;
    m_changed.notifyAll();
    if (!m_thread.try_join_for(FLUSH_LIMIT)) {
        m_thread.detach();
    }
}

bool LogQueue::takeAll(std::deque<LogEntry>& entries, std::size_t& lost) {
    const WakeCondition::Ticket ticket = m_changed.ticket();
    const bool isEnding = m_isEnding;
    Lock lock(m_mutex);
    if (m_entries.empty() && !isEnding) {
        m_changed.wait(m_mutex, ticket);
    }
    entries.swap(m_entries);
    m_bytes = 0;
    lost = m_lost;
    m_lost = 0;
    return !isEnding || !entries.empty();
}

void LogQueue::run() {
    pthread_setname_np(pthread_self(), "alarm-log");
    std::deque<LogEntry> entries;
    std::size_t lost = 0;
    while (takeAll(entries, lost)) {
        for (const LogEntry& entry : entries) {
            ::syslog(entry.priority, "%s", entry.text.c_str());
        }
        entries.clear();
        if (lost != 0 && isLogged(LOG_BIT_WARNING)) {
            ::syslog(LOG_WARNING, "W alarmd:logLinesLost:count=%zu:the log's reader was too slow",
                     lost);
        }
    }
}

}  // namespace

void logLine(int priority, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    char* text = nullptr;
    const int size = ::vasprintf(&text, format, arguments);
    va_end(arguments);
    if (size < 0) {
        return;  // no memory for it
    }
    if (!queue().push(priority, std::string(text, static_cast<std::size_t>(size)))) {
        ::syslog(priority, "%s", text);
    }
    std::free(text);
}

void startLogThread() {
    queue().start();
    static_cast<void>(std::atexit([] { queue().flush(); }));
    // An exception that leaves a thread does not pass there, and the lines before it tell why.
    static const std::terminate_handler next = std::set_terminate([] {
        queue().flush();
        next();
    });
}

}  // namespace alarmd
