#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
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
    for (const char* ending : {path, static_cast<const char*>(nullptr)}) {
        std::ofstream(path) << "stale";
        g_endingGuard = ending;
        const int guard = orun42_daemon_checksingleton(path);
        ASSERT_GE(guard, 0);
        EXPECT_LT(orun42_daemon_checksingleton(path), 0);
        orun42_daemon_cleansingleton(path, guard);
        EXPECT_FALSE(std::filesystem::exists(path));
    }
}

TEST(Identity, ReadsOneLineThatFits) {
    std::filesystem::create_directories("/var/local/idme");
    const std::string whole(32, 'G');
    char buffer[33] = "";
    for (const char* rest : {"", "\n", "\nsecond line\n", "G"}) {
        std::ofstream("/var/local/idme/dsn") << whole << rest;
        EXPECT_EQ(*rest == 'G', idme_get_property("dsn", buffer, 32) != 0);
        EXPECT_EQ(whole, buffer);
    }
    EXPECT_NE(0, idme_get_property("missing", buffer, 32));
}

TEST(Metrics, AreDatagramsOfJsonThatNeverWait) {
    GHashTable* dimensions = g_hash_table_new(g_str_hash, g_str_equal);
    const auto record = [dimensions] {
        return record_device_metric("p", "s", "n", -2147483647, dimensions, 1, 0);
    };
    EXPECT_NE(0, record()) << "nobody listens";
    const int collector = socket(AF_UNIX, SOCK_DGRAM, 0);
    const sockaddr_un address{AF_UNIX, "/var/run/metrics-collector.sock"};
    const void* at = &address;
    ASSERT_EQ(0, bind(collector, static_cast<const sockaddr*>(at), sizeof(address)));
    const auto receive = [collector] {
        char text[1000];
        return std::string(text,
                           static_cast<std::size_t>(recv(collector, text, 1000, MSG_DONTWAIT)));
    };
    std::string key = "deviceId", value = "G\"\xff";
    g_hash_table_insert(dimensions, key.data(), value.data());
    EXPECT_EQ(0, record());
    EXPECT_EQ(receive(), R"({"program":"p","source":"s","name":"n","value":-2147483647,)"
                         "\"dimensions\":{\"deviceId\":\"G\\\"\xEF\xBF\xBD\"}}");
    metrics::MetricTimeEvent event("T");
    event.emit("too early");
    void* anyHandle = &event;
    event.setOipcHandle(static_cast<OipcHandleStruct*>(anyHandle));
    event.emit("e");
    const std::string text = receive(), before = R"({"timer":"T","monotonicMs":)";
    const std::string time = std::to_string(std::atoll(text.c_str() + before.size()));
    EXPECT_EQ(text, before + time + R"(,"text":"e"})");
    int sent = 0;
    while (record() == 0 && ++sent < 100000) {
    }
    EXPECT_LT(sent, 100000) << "a full collector is an error";
    g_hash_table_destroy(dimensions);
    close(collector);
}

}  // namespace
