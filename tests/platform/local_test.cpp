#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <utility>

#include "alarmd/platform/DeviceMetrics.h"
#include "alarmd/platform/Identity.h"
#include "alarmd/platform/Singleton.h"

/// The guard file of an instance that ends just when the next one is about to lock it.
static const char* g_endingGuard = nullptr;
extern "C" int flock(int fd, int operation) {
    if (g_endingGuard != nullptr) {
        unlink(std::exchange(g_endingGuard, nullptr));
    }
    return static_cast<int>(syscall(SYS_flock, fd, operation));
}

namespace {

TEST(Guard, IsHeldByOneAndAStaleFileIsTakenOver) {
    const char* path = "/var/run/guard_test.pid";
    for (const char* ending : {"", path}) {
        std::ofstream(path) << "a stale file, longer than any process id\n";
        g_endingGuard = *ending != '\0' ? ending : nullptr;
        const int guard = orun42_daemon_checksingleton(path);
        ASSERT_GE(guard, 0);
        EXPECT_LT(orun42_daemon_checksingleton(path), 0);
        std::stringstream contents;
        contents << std::ifstream(path).rdbuf();
        EXPECT_EQ(std::to_string(getpid()) + "\n", contents.str());
        orun42_daemon_cleansingleton(path, guard);
        EXPECT_FALSE(std::filesystem::exists(path));
    }
}

TEST(Identity, ReadsOneLineThatFits) {
    std::filesystem::create_directories("/var/local/idme");
    const std::string whole(32, 'G');
    for (const std::string& text : {whole, whole + "\n", whole + "\nsecond line\n"}) {
        char buffer[33] = "untouched";
        EXPECT_NE(0, idme_get_property("missing", buffer, 32));
        std::ofstream("/var/local/idme/dsn") << 'G' << text;
        EXPECT_NE(0, idme_get_property("dsn", buffer, 32));
        EXPECT_STREQ("untouched", buffer);
        std::ofstream("/var/local/idme/dsn") << text;
        EXPECT_EQ(0, idme_get_property("dsn", buffer, 32));
        EXPECT_EQ(whole, buffer);
    }
}

TEST(Metrics, AreDatagramsOfJson) {
    sockaddr_un address{AF_UNIX, "/var/run/metrics-collector.sock"};
    const int collector = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0);
    const void* at = &address;
    EXPECT_NE(0, record_device_metric("p", "s", "n", 1, nullptr, 1, 0)) << "nobody listens";
    ASSERT_EQ(0, bind(collector, static_cast<const sockaddr*>(at), sizeof(address)));
    const auto received = [collector] {
        char text[1000];
        const ssize_t size = recv(collector, text, sizeof(text), 0);
        return std::string(text, size < 0 ? 0 : static_cast<std::size_t>(size));
    };
    std::string key = "deviceId";
    std::string value = "G\"\xff";
    GHashTable* dimensions = g_hash_table_new(g_str_hash, g_str_equal);
    g_hash_table_insert(dimensions, key.data(), value.data());
    EXPECT_EQ(0, record_device_metric("p", "s", "n", -2147483647, dimensions, 1, 0));
    g_hash_table_destroy(dimensions);
    EXPECT_EQ(R"({"program":"p","source":"s","name":"n","value":-2147483647,)"
              "\"dimensions\":{\"deviceId\":\"G\\\"\xEF\xBF\xBD\"}}",
              received());
    EXPECT_EQ(0, record_device_metric("p", "s", "n", 0, nullptr, 1, 0));
    EXPECT_EQ(R"({"program":"p","source":"s","name":"n","value":0,"dimensions":{}})", received());
    metrics::MetricTimeEvent event("T");
    event.emit("too early");
    void* anyHandle = &event;
    event.setOipcHandle(static_cast<OipcHandleStruct*>(anyHandle));
    event.emit("e");
    const std::string text = received();
    const std::string before = R"({"timer":"T","monotonicMs":)";
    EXPECT_EQ(before + std::to_string(std::atoll(text.c_str() + before.size())) + R"(,"text":"e"})",
              text);
    for (int sent = 0; record_device_metric("p", "s", "n", 0, nullptr, 1, 0) == 0; ++sent) {
        ASSERT_LT(sent, 100000) << "a full collector is an error and never a wait";
    }
    close(collector);
}

}  // namespace
