/// A web server on loopback, as slow, as short or as silent as the test makes it.
#pragma once

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tests/harness/Timeline.h"

namespace harness {

class Server {
  public:
    Server() : m_socket(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
        socklen_t size = sizeof address;
        auto* generic = reinterpret_cast<sockaddr*>(&address);
        // A client that does not come, or says nothing, is not waited for without end.
        const timeval most{k_deadline.count(), 0};
        EXPECT_EQ(setsockopt(m_socket, SOL_SOCKET, SO_RCVTIMEO, &most, sizeof most), 0);
        EXPECT_EQ(bind(m_socket, generic, size), 0);
        EXPECT_EQ(listen(m_socket, 1000), 0);
        EXPECT_EQ(getsockname(m_socket, generic, &size), 0);
        m_url = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/";
    }
    ~Server() {
        for (const int client : m_clients) {
            close(client);
        }
        close(m_socket);
    }

    /// As a directive orders it from here.
    std::string asset(const std::string& id) const {
        return R"({"assetId":")" + id + R"(","url":")" + m_url + "\"}";
    }

    /// Waits for so many clients and their requests.
    void take(int count) {
        char request[4096];
        for (int i = 0; i < count; ++i) {
            m_clients.push_back(accept4(m_socket, nullptr, nullptr, SOCK_CLOEXEC));
            ASSERT_GT(recv(m_clients.back(), request, sizeof request, 0), 0);
        }
    }
    /// Says it to each that was taken.
    void say(const std::string& text) const {
        for (const int client : m_clients) {
            EXPECT_EQ(send(client, text.data(), text.size(), MSG_NOSIGNAL),
                      static_cast<ssize_t>(text.size()));
        }
    }

  private:
    int m_socket;
    std::vector<int> m_clients;
    std::string m_url;
};

}  // namespace harness
