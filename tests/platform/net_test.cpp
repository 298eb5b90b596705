#include <curl/curl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <future>
#include <iterator>

#include "alarmd/platform/FileDownloader.h"
#include "tests/harness/Timeline.h"

extern std::atomic<int> g_syncs;

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

std::string answerTo(const std::string& path) {
    const std::string moved = "302 Found\r\nLocation: ";
    const std::string whole = "200 OK\r\n\r\n";
    const std::string hundred = "200 OK\r\nContent-Length: 100\r\n\r\nonly this";
    static const std::map<std::string, std::string> answers{
        {"/missing", "404 Not Found\r\n\r\nabc"},
        {"/huge", "200 OK\r\nContent-Length: 16777217\r\n\r\nx"},
        {"/endless", whole + std::string((16 << 20) + 1, 'x')},
        {"/toftp", moved + "ftp://127.0.0.1/\r\n\r\n"},
        {"/tofile", moved + "file:///etc/hostname\r\n\r\n"},
        {"/circle", moved + "/circle\r\n\r\n"},
        {"/more", "200 OK\r\nContent-Length: 4\r\n\r\nmore than that"},
        {"/cut", hundred},
        {"/stall", hundred}};
    if (path > "/0" && path <= "/9") {  // that many redirects
        return moved + "/" + std::to_string(std::stoi(path.substr(1)) - 1) + "\r\n\r\n";
    }
    const auto answer = answers.find(path);
    return answer != answers.end() ? answer->second : whole + std::string(100000, path[1]);
}

/// A server at a free port, and a folder that holds an old file where the downloads go.
class Download : public testing::Test {
  protected:
    Download() {
        setenv("no_proxy", "127.0.0.1", 1);
        std::ofstream(m_path) << "old";
        sockaddr_in address{};
        socklen_t size = sizeof(address);
        void* at = &address;
        EXPECT_EQ(0, listen(m_socket, 200));
        EXPECT_EQ(0, getsockname(m_socket, static_cast<sockaddr*>(at), &size));
        m_url = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port));
        m_server = std::async(std::launch::async, [this] { serve(); });
    }
    ~Download() override {
        shutdown(m_socket, SHUT_RDWR);
        m_server.wait();
        close(m_socket);
        fs::remove_all(m_folder);
    }
    void serve() const {
        for (int fd; (fd = accept(m_socket, nullptr, nullptr)) >= 0; close(fd)) {
            std::string request;
            for (char c; request.find("\r\n\r\n") == std::string::npos && read(fd, &c, 1) == 1;) {
                request += c;
            }
            const std::string path = request.substr(4, request.find(' ', 4) - 4);
            const std::string answer = "HTTP/1.0 " + answerTo(path);
            send(fd, answer.data(), answer.size(), MSG_NOSIGNAL);
            for (char c; path == "/stall" && read(fd, &c, 1) == 1;) {
            }
        }
    }
    std::string contents() const {
        std::ifstream file(m_path);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    auto files() const { return std::distance(fs::directory_iterator(m_folder), {}); }

    std::string m_template = testing::TempDir() + "netXXXXXX";
    const std::string m_folder = mkdtemp(m_template.data());
    const std::string m_path = m_folder + "/asset.partial";
    const int m_socket = socket(AF_INET, SOCK_STREAM, 0);
    std::string m_url;
    std::future<void> m_server;
    otaup::FileDownloader m_downloader;
};

TEST_F(Download, FailsByEachRuleAndLeavesTheOldFile) {
    fs::create_directory(m_folder + "/folder");
    fs::create_symlink(m_path, m_folder + "/link");
    const std::tuple<std::string, std::string, int, const char*> cases[] = {
        {m_url + "/missing", m_path, CURLE_HTTP_RETURNED_ERROR, "404"},
        {m_url + "/6", m_path, CURLE_TOO_MANY_REDIRECTS, "redirects"},
        {m_url + "/circle", m_path, CURLE_TOO_MANY_REDIRECTS, "redirects"},
        {m_url + "/tofile", m_path, CURLE_UNSUPPORTED_PROTOCOL, "file"},
        {m_url + "/toftp", m_path, CURLE_UNSUPPORTED_PROTOCOL, "ftp"},
        {"file:///etc/hostname", m_path, CURLE_UNSUPPORTED_PROTOCOL, "file"},
        {m_url + "/endless", m_path, CURLE_FILESIZE_EXCEEDED, "16 MiB"},
        {m_url + "/huge", m_path, CURLE_FILESIZE_EXCEEDED, "exceeded"},
        {m_url + "/cut", m_path, CURLE_PARTIAL_FILE, "91 bytes"},
        {m_url + "/stall", m_path, CURLE_OPERATION_TIMEDOUT, "too slow"},
        {m_url + "/a", m_folder + "/folder/../b", CURLE_WRITE_ERROR, "\"..\""},
        {m_url + "/a", m_folder + "/folder", CURLE_WRITE_ERROR, "regular"},
        {m_url + "/a", m_folder + "/link", CURLE_WRITE_ERROR, "regular"},
        {m_url + "/a", m_folder + "/none/b", CURLE_WRITE_ERROR, "No such file"},
    };
    for (const auto& [url, path, code, text] : cases) {
        const auto result = m_downloader.download(url, path);
        EXPECT_EQ(code, result.code()) << url << " to " << path;
        EXPECT_NE(std::string::npos, result.errorString().find(text)) << result.errorString();
        EXPECT_EQ("old", contents());
        EXPECT_EQ(3, files());
    }
}

TEST_F(Download, AppearsWholeAndOnDiskAlsoWhenTwoWriteOnePath) {
    EXPECT_EQ(0, m_downloader.download(m_url + "/5", m_path).code());
    EXPECT_EQ(std::string(100000, '0'), contents());
    EXPECT_EQ(0, m_downloader.download(m_url + "/more", m_path).code());
    EXPECT_EQ("more", contents());
    for (int round = 0; round < 20; ++round) {
        const int before = g_syncs;
        auto other = std::async(std::launch::async,
                                [&] { return m_downloader.download(m_url + "/a", m_path); });
        EXPECT_EQ(0, m_downloader.download(m_url + "/b", m_path).code());
        EXPECT_EQ(0, other.get().code());
        EXPECT_EQ(4, g_syncs - before) << "each its file and the folder";
        EXPECT_EQ(std::string(100000, contents().at(0)), contents());
        EXPECT_EQ(1, files());
    }
}

TEST_F(Download, WaitsForItsTurnAndIsCancelledAtOnce) {
    for (const int code : {int{CURLE_OK}, int{CURLE_ABORTED_BY_CALLBACK}}) {
        otaup::FileDownloader stalled;
        const auto start = [this](otaup::FileDownloader& downloader, const std::string& what) {
            return std::async(std::launch::async, [this, &downloader, what] {
                return downloader.download(m_url + what, m_path).code();
            });
        };
        auto first = start(stalled, "/stall");  // keeps the server from all others
        EXPECT_TRUE(harness::await([this] { return files() == 2; }));
        std::vector<std::future<int>> others;
        while (others.size() < 150) {
            others.push_back(start(m_downloader, "/a"));
        }
        EXPECT_TRUE(harness::await([this] { return files() >= 130; }));
        EXPECT_EQ(std::future_status::timeout, first.wait_for(100ms));
        EXPECT_EQ(130, files()) << "the old one, the first, and 128 at once";
        (code == CURLE_OK ? stalled : m_downloader).cancel();
        for (auto& other : others) {
            EXPECT_EQ(std::future_status::ready,
                      other.wait_for(code == CURLE_OK ? harness::k_deadline : 500ms));
            EXPECT_EQ(code, other.get());
        }
        stalled.cancel();
        EXPECT_EQ(CURLE_ABORTED_BY_CALLBACK, first.get());
    }
    const auto result = m_downloader.download(m_url + "/a", m_path);
    EXPECT_EQ("The download was cancelled", result.errorString());
    EXPECT_EQ(1, files());
}

}  // namespace
