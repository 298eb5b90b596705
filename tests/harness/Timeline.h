/// What a test has seen so far, in the order in which it came.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace harness {

/// Long enough for a sanitized daemon on a busy machine: only a failing test waits it out.
constexpr std::chrono::seconds k_deadline{30};

using Lines = std::vector<std::string>;

struct Entry {
    std::string name;  ///< of the property, event or message; empty for a datagram
    std::string text;  ///< the value, argument, body or datagram
    int id;            ///< reconciliation id of a message
    std::chrono::system_clock::time_point at;
};

/// Filled by one thread, looked at and emptied by the test.
class Timeline {
  public:
    void add(const std::string& name, const std::string& text, int id = 0) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_entries.push_back({name, text, id, std::chrono::system_clock::now()});
        m_added.notify_all();
    }

    /// Waits for an entry of that name whose text holds `part`, and takes it, wherever it stands.
    /// When none comes an exception ends the test.
    Entry take(const std::string& name, const std::string& part = "") {
        std::unique_lock<std::mutex> lock(m_mutex);
        auto found = m_entries.end();
        const auto isThere = [&] {
            found = std::find_if(m_entries.begin(), m_entries.end(), [&](const Entry& entry) {
                return entry.name == name && entry.text.find(part) != std::string::npos;
            });
            return found != m_entries.end();
        };
        if (m_added.wait_for(lock, k_deadline, isThere)) {
            const Entry taken = *found;
            m_entries.erase(found);
            return taken;
        }
        lock.unlock();
        std::string others;
        for (const std::string& line : find("")) {
            others += "\n" + line;
        }
        throw std::runtime_error("nothing came as '" + name + "' with '" + part + "', but"
                                 + others);
    }

    /// What was not taken and holds `part`, one line each: name, text and, unless it is 0, "#id".
    Lines find(const std::string& part) const {
        const std::lock_guard<std::mutex> lock(m_mutex);
        Lines found;
        for (const Entry& entry : m_entries) {
            const std::string id = entry.id == 0 ? "" : " #" + std::to_string(entry.id);
            const std::string line = entry.name + " " + entry.text + id;
            if (line.find(part) != std::string::npos) {
                found.push_back(line);
            }
        }
        return found;
    }

    Lines takeAll() {
        const Lines all = find("");
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_entries.erase(m_entries.begin(), m_entries.begin() + static_cast<long>(all.size()));
        return all;
    }

  private:
    mutable std::mutex m_mutex;
    std::condition_variable m_added;
    std::vector<Entry> m_entries;
};

/// The reading end of a Unix datagram socket: the system log, or the metrics collector.
class Datagrams {
  public:
    explicit Datagrams(const std::string& path) : m_socket(socket(AF_UNIX, SOCK_DGRAM, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(bind(m_socket, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        m_reader = std::thread([this] {
            std::string text(1U << 18U, '\0');
            for (ssize_t size; (size = recv(m_socket, text.data(), text.size(), 0)) > 0;) {
                timeline.add("", text.substr(0, static_cast<std::size_t>(size)));
            }
        });
    }
    ~Datagrams() {
        shutdown(m_socket, SHUT_RD);
        m_reader.join();
        close(m_socket);
    }

    Timeline timeline;

  private:
    int m_socket;
    std::thread m_reader;
};

/// Waits for a condition that nobody announces; false when it has not become true in time.
template <typename Condition>
bool await(Condition condition) {
    const auto deadline = std::chrono::steady_clock::now() + k_deadline;
    while (!condition() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return condition();
}

}  // namespace harness
