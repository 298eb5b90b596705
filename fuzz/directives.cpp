/// Directives, one "name" line with a body each and a zero byte between them, to the whole daemon
/// on the recording platform while a timer rings.
#include <cjson/cJSON.h>

#include <algorithm>
#include <memory>
#include <set>

#include "alarmd/AlarmEngine.h"
#include "alarmd/Constants.h"
#include "fuzz/Device.h"

namespace {

using namespace alarmd;
using fuzz::require;
using Json = std::unique_ptr<cJSON, decltype(&cJSON_Delete)>;

const std::string k_set = "SetNotification";
constexpr std::size_t k_mostMessages = 16;

Json parse(const std::string& text) {
    return Json(cJSON_Parse(text.c_str()), &cJSON_Delete);
}

std::string bodyOf(const std::string& id, const char* type, const std::string& time) {
    return R"({"notificationId":")" + id + R"(","clientId":"c","notificationType":")" + type
           + R"(","notificationTime":")" + time + "\"}";
}

std::string textOf(const cJSON* json, const char* key) {
    bool found = true;
    return getRequiredStringKey(json, key, found);
}

/// Adds what the entries of a directive's play order may look like.
void addEntries(const cJSON* directive, std::set<std::string>& entries) {
    const cJSON* item = nullptr;
    cJSON_ArrayForEach(item,
                       cJSON_GetObjectItemCaseSensitive(directive, ALARM_EVENT_ASSET_PLAY_ORDER)) {
        const char* asset = cJSON_GetStringValue(item);
        for (const auto& entry :
             fuzz::split(ALARMD_ASSETS_PATH + std::string(asset == nullptr ? "" : asset), ',')) {
            entries.insert(entry);
        }
    }
}

void checkRow(AlarmDB& db, const SqliteUtil::Row& row, const std::set<std::string>& entries) {
    const std::string& playList = row.at(6);
    require(playList.size() <= std::size_t{ALARMD_MAX_PLAY_LIST}, "a play list is too long");
    for (const auto& entry : fuzz::split(playList, ',')) {
        require(entries.count(entry) != 0, "an entry of a play list is not whole");
    }
    const TimedEvent event = db.readAlertById(row.at(0));
    require(event.matches(row.at(0)) && event.getClient() == row.at(1)
                && event.getType() == row.at(2) && event.getTimeStr() == row.at(3)
                && event.getAssetPlayOrder() == playList
                && std::to_string(event.getLoopCount()) == row.at(9),
            "what is stored reads as something else");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    recording::Platform& device = fuzz::emptyDevice();
    device.answer("com.orun42.system deviceHasTime", "true");
    // The device refuses these. An asset is an object of its own.
    device.fail("download *..", static_cast<int>(std::count(data, data + size, '{')));

    AlarmEngine engine(ALARMD_DB_FILE);
    require(engine.init(), "the daemon does not start");
    device.deliver(k_set, bodyOf("ringing", EVT_TYPE_TIMER, timeInStringFormat(toSeconds(now()))));
    require(device.waitFor("publish Status=TIMER") && device.waitFor("send *.EditAcknowledged"),
            "a timer does not ring");
    device.forgetCalls();

    std::set<std::string> entries = {"", "/var/local/earcon/1000ms_blank.mp3",
                                     "/var/local/earcon/4000ms_blank.mp3",
                                     "/var/local/earcon/6000ms_blank.mp3"};
    auto messages = fuzz::split(fuzz::toText(data, size), '\0');
    messages.resize(std::min(messages.size(), k_mostMessages));
    std::set<std::string> ids;
    for (const auto& message : messages) {
        const std::size_t end = message.find('\n');
        const std::string body = end == std::string::npos ? "" : message.substr(end + 1);
        const Json directive = parse(body);
        addEntries(directive.get(), entries);
        ids.insert(textOf(directive.get(), ALARM_EVENT_ID));
        device.deliver(message.substr(0, end), body);
    }
    device.deliver(k_set, bodyOf("the last one", EVT_TYPE_REMINDER, "2100-01-01T00:00:00Z"));
    require(device.waitFor(R"(send *.EditAcknowledged \{"notificationId":"the last one")"
                           R"(,"disposition":"SET")"),
            "the daemon takes no directives any more");
    // Each message may have set one that is due by now, and the timer thread may be on its way to
    // the next one while a stop finds nothing that rings.
    const auto isSilent = [&] {
        device.send(ALARMD_ACK_PROP, "");
        return device.published(ALARMD_STATUS_PROP_NAME) == ALARMD_STATUS_NONE;
    };
    require(device.waitUntil(isSilent), "what rings cannot be stopped");
    engine.terminate();

    AlarmDB db(ALARMD_DB_FILE);
    for (const auto& row : device.rows(AlarmDB::k_alarmTableName)) {
        checkRow(db, row, entries);
        ids.erase(row.at(0));
    }
    for (const auto& row : device.rows(AlarmDB::k_retainedEvtTable)) {
        ids.erase(row.at(0));
    }
    for (const auto& call : device.calls("send")) {
        const Json sent = parse(call.substr(call.find('{')));
        require(sent != nullptr, "what the cloud is told is no JSON");
        require(messages.size() > 1 || textOf(sent.get(), ALARM_EVENT_DISPOSITION) != "SET"
                    || ids.count(textOf(sent.get(), ALARM_EVENT_ID)) == 0,
                "a notification that was acknowledged is lost");
    }
    return 0;
}
