/// What all unit tests stand on: an empty device and its folders, in a sandbox.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "alarmd/Constants.h"
#include "alarmd/Log.h"
#include "alarmd/TimedEvent.h"
#include "tests/recording/Platform.h"

namespace alarmd {

using Texts = std::vector<std::string>;

/// The time string of an instant that is so many seconds from now.
inline std::string in(Seconds seconds) {
    return timeInStringFormat(toSeconds(now()) + seconds);
}

class Fixture : public testing::Test {
  protected:
    Fixture() {
        if (std::getenv("ALARMD_SANDBOX") == nullptr) {
            std::fputs("This wipes /var/local/alarmd: run it with tools/sandbox.\n", stderr);
            std::abort();
        }
        device.reset();
        device.answer("identity devicetype", "TYPE1");
        device.answer("identity dsn", "SERIAL1");
        for (const char* folder : {"/var/local/alarmd", "/var/local/earcon"}) {
            std::filesystem::remove_all(folder);
            std::filesystem::create_directories(folder + std::string("/assets"));
        }
        g_orun42_log_mask = 0xFFFFFFFF;
    }

    static void writeFile(const std::string& path, const std::string& text = "") {
        std::ofstream(path) << text;
    }
    static bool exists(const std::string& path) { return std::filesystem::exists(path); }
    static std::string asset(const std::string& name) { return ALARMD_ASSETS_PATH + name; }
    static std::string earcon(const std::string& name) { return ALARMD_EARCON_PATH + name; }

    static SqliteUtil::Row row(const std::string& id, const std::string& type,
                               const std::string& time, const std::string& loopCount = "2") {
        return {id, "client-" + id, type, time, "", "0", "", "-1", "", loopCount};
    }
    void seed(const std::vector<SqliteUtil::Row>& rows, std::size_t columns = 10) {
        Texts names{"id",
                    "client",
                    "type",
                    "time",
                    "earcon",
                    "is_dynamic",
                    "assetPlayOrder",
                    "durationInSeconds",
                    "shortAlertAsset",
                    "loopCount"};
        names.resize(columns);
        device.seed(ALARMD_DB_FILE, "Notifications", {names, rows});
    }
    /// The ids stored in a table, joined by blanks.
    std::string stored(const std::string& table = "Notifications") {
        std::string ids;
        for (const SqliteUtil::Row& row : device.rows(ALARMD_DB_FILE, table)) {
            ids += (ids.empty() ? "" : " ") + row[0];
        }
        return ids;
    }
    bool logged(const std::string& lineStart) { return !device.calls("log " + lineStart).empty(); }

    /// The calls in order, joined by ", ", without JSON documents and metric dimensions.
    std::string course(const std::string& call) {
        std::string joined;
        for (std::string text : device.calls(call)) {
            text = text.substr(0, text.find(text.find(" {") < text.find('{') ? " {" : "{"));
            for (const char* common : {"metrics-collector alarmd ", "time-event "}) {
                text.erase(0, text.find(common) == 0 ? std::string(common).size() : 0);
            }
            joined += (joined.empty() ? "" : ", ") + text;
        }
        return joined;
    }

    recording::Platform& device = recording::platform();
};

}  // namespace alarmd
