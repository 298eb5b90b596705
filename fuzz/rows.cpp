/// Databases that others wrote: a whole file, or rows of the notifications' table, one a line with
/// "|" between the cells. The first letter of a cell is its type: t text, b blob, i integer, r
/// real; anything else is NULL. The first line decides how many columns the table has.
#include <sqlite3.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>

#include "alarmd/AlarmDB.h"
#include "alarmd/Constants.h"
#include "fuzz/Target.h"

namespace {

using namespace alarmd;
using fuzz::require;
using Statement = std::unique_ptr<sqlite3_stmt, decltype(&sqlite3_finalize)>;

constexpr std::size_t k_mostColumns = 12;

void bindCell(sqlite3_stmt* insert, int column, const std::string& cell) {
    const char* const value = cell.c_str() + 1;
    const int size = static_cast<int>(cell.size()) - 1;
    switch (cell[0]) {
        case 't':
            sqlite3_bind_text(insert, column, value, size, SQLITE_TRANSIENT);
            break;
        case 'b':
            sqlite3_bind_blob(insert, column, value, size, SQLITE_TRANSIENT);
            break;
        case 'i':
            sqlite3_bind_int64(insert, column, std::strtoll(value, nullptr, 10));
            break;
        case 'r':
            sqlite3_bind_double(insert, column, std::strtod(value, nullptr));
            break;
        default:
            sqlite3_bind_null(insert, column);
    }
}

/// Stores the rows in a table without any constraint; the number of its columns.
std::size_t store(const std::vector<std::string>& lines) {
    const std::size_t columns = std::min(fuzz::split(lines[0], '|').size(), k_mostColumns);
    std::string names;
    std::string values;
    for (std::size_t i = 0; i < columns; ++i) {
        names += (i == 0 ? "" : ",")
                 + (i < AlarmDB::k_alarmColumns.size() ? AlarmDB::k_alarmColumns[i]
                                                       : "more" + std::to_string(i));
        values += i == 0 ? "?" : ",?";
    }
    sqlite3* database = nullptr;
    sqlite3_open(ALARMD_DB_FILE, &database);
    const std::string start =
        "PRAGMA journal_mode = OFF; BEGIN; CREATE TABLE Notifications (" + names + ")";
    sqlite3_exec(database, start.c_str(), nullptr, nullptr, nullptr);
    sqlite3_stmt* prepared = nullptr;
    sqlite3_prepare_v2(database, ("INSERT INTO Notifications VALUES (" + values + ")").c_str(), -1,
                       &prepared, nullptr);
    Statement insert(prepared, &sqlite3_finalize);
    for (const auto& line : lines) {
        auto cells = fuzz::split(line, '|');
        cells.resize(columns);
        for (std::size_t i = 0; i < columns; ++i) {
            bindCell(prepared, static_cast<int>(i) + 1, cells[i]);
        }
        sqlite3_step(prepared);
        sqlite3_reset(prepared);
    }
    insert.reset();
    require(sqlite3_exec(database, "COMMIT", nullptr, nullptr, nullptr) == SQLITE_OK,
            "the rows cannot be stored");
    sqlite3_close(database);
    return columns;
}

/// What the timer thread waits for.
struct Choice {
    TimePoint time;
    std::string type, id, client, earcon, playOrder, shortAsset;
    bool isDynamic = false;
    int loopCount = 0;
};

bool choose(AlarmDB& db, Choice& c) {
    return db.getNextEvent(c.time, c.type, c.id, c.client, c.earcon, c.isDynamic, c.playOrder,
                           c.loopCount, c.shortAsset);
}

/// Rings or gives up on what was chosen, and ends it in one of the ways there are.
void playAndEnd(AlarmDB& db, const Choice& chosen, std::size_t way) {
    if (way % 4 == 0) {
        require(db.giveUpCurrentEvent(chosen.id, chosen.client, chosen.time), "it is not current");
        return;
    }
    require(db.playingCurrentEvent(chosen.id, chosen.time).matches(chosen.id), "it does not ring");
    std::string json;
    require(db.isPlayingEvent() && db.jsonForActiveEvents(1, json), "it is said not to ring");
    bool wasPlaying = false;
    if (way % 4 == 1) {
        require(db.deleteCurrentEvent().matches(chosen.id), "it cannot be acknowledged");
    } else {
        if (way % 4 == 2) {
            db.endEvent(chosen.id, wasPlaying);
        } else {
            // On failure it has ended all the same.
            static_cast<void>(db.deleteNotifications({chosen.id}, wasPlaying));
        }
        require(wasPlaying, "it did not ring");
    }
    require(!db.isPlayingEvent(), "it cannot be stopped");
}

std::string readFile() {
    std::ifstream file(ALARMD_DB_FILE, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), {});
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::emptyFolders();
    const std::string input = fuzz::toText(data, size);
    const bool isFile = input.rfind("SQLite format 3", 0) == 0;
    std::size_t columns = 0;
    if (isFile) {
        std::ofstream(ALARMD_DB_FILE, std::ios::binary) << input;
    } else {
        columns = store(fuzz::split(input, '\n'));
    }
    try {
        AlarmDB db(ALARMD_DB_FILE);
        std::string json;
        db.jsonForAllEvents(json);
        db.moveExpiredEventsForLaterStopNotice(size % 2 == 0);
        Choice chosen;
        for (std::size_t pass = 0; choose(db, chosen); ++pass) {
            require(pass <= size, "the choice has no end");
            playAndEnd(db, chosen, pass + size / 2);
        }
        if (!isFile && (columns == 6 || columns == 9 || columns == 10)) {
            for (const TimedEvent& event : db.getAllAlerts()) {
                const std::string& type = event.getType();
                require(!event.isLive() || event.matches(EVT_EMPTY)
                            || (type != EVT_TYPE_ALARM && type != EVT_TYPE_TIMER
                                && type != EVT_TYPE_REMINDER),
                        "one never rings");
            }
            bool wasPlaying = false;
            require(db.setEvent("new", "c", EVT_TYPE_ALARM, "2100-01-01T00:00:00Z", "", false, "",
                                2, "", wasPlaying)
                        && choose(db, chosen) && chosen.id == "new",
                    "nothing can be set any more");
        }
        AlarmDB::StopNotices notices;
        require(isFile || db.getSavedStopNotices(notices), "the notices cannot be read");
    } catch (const std::runtime_error& error) {
        require(isFile, "a table of others is refused");
        require(std::strcmp(error.what(), "Could not open existing DB") != 0 || readFile() == input,
                "a file that is refused is changed");
    }
    return 0;
}
