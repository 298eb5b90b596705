/// What the daemon costs, each figure beside a bare reference that is measured in the same run, by
/// turns with it, so that whatever else the machine does falls upon both.
///
/// This is a program of its own and no set of micro-benchmarks: what counts here are the times of
/// whole processes between two messages on the bus, of which there are thirty or fifty and not
/// millions, and counters of the kernel over a minute.
#include <sys/statfs.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <stdexcept>

#include "bench/Device.h"
#include "tests/harness/System.h"

namespace bench {
namespace {

using std::chrono::seconds;

constexpr int k_rings = 30;
constexpr int k_sets = 50;
constexpr int k_warmUps = 5;
constexpr int k_lists = 20;
constexpr int k_starts = 10;
constexpr double k_aim = 1.5;
/// "Flat", with room for the noise of a disk.
constexpr double k_flat = 1.1;

constexpr const char* k_daemon = "com.quintel.alarmd";
constexpr const char* k_bareName = "com.quintel.bare";

struct Options {
    int idleSeconds = 60;
    std::vector<std::string> sections;

    bool wants(const std::string& section) const {
        return sections.empty()
               || std::find(sections.begin(), sections.end(), section) != sections.end();
    }
};

std::string counted(int count) {
    std::string text = std::to_string(count);
    if (text.size() > 3) {
        text.insert(text.size() - 3, ",");
    }
    return text + " stored";
}

// --- Lateness of a ring ---

/// The daemon rings at whole seconds, the reference in between. Each ring is one message at the
/// same peer, stamped by the same line.
void measureRings(Device& device, Table& table, int reads, const std::string& beside, double aim) {
    device.fill(10);
    device.start();
    device.settle();
    const std::time_t first = std::time(nullptr) + 3;
    for (int i = 0; i < k_rings; ++i) {
        device.peer.deliver("SetNotification",
                            harness::setBody("ring" + std::to_string(i), "TIMER", first + i));
    }
    device.settle();
    harness::Process bare(bareCommand(
        {"ring", std::to_string(first), std::to_string(k_rings), std::to_string(reads)}));
    Samples own;
    Samples reference;
    for (int i = 0; i < k_rings; ++i) {
        const Clock::time_point due = Clock::from_time_t(first + i);
        own.add(device.peer.timeline.take("setPlayList").at - due);
        device.acknowledge();
        reference.add(device.peer.timeline.take("bareRing").at - due
                      - std::chrono::milliseconds(500));
    }
    bare.end(0);
    device.stop();
    table.add({"ring, ms late", own, beside, reference, aim});
}

// --- A set ---

Clock::duration setOne(Device& device, const std::string& id) {
    const std::string body = harness::setBody(id, "TIMER", 1950000000);
    const Clock::time_point begin = Clock::now();
    device.peer.deliver("SetNotification", body);
    return device.peer.timeline.take("EditAcknowledged", "\"" + id + "\",\"disposition\":\"SET\"")
               .at
           - begin;
}

Clock::duration setOneBare(Device& device, BareStore& store, const std::string& id,
                           Samples& inserts) {
    const Clock::time_point begin = Clock::now();
    device.caller.get(k_bareName, "any");
    const Clock::time_point insert = Clock::now();
    store.insert(id);
    inserts.add(Clock::now() - insert);
    device.caller.get(k_bareName, "any");
    return Clock::now() - begin;
}

Samples measureSets(Device& device, Table& table, int stored, Samples& inserts) {
    device.fill(stored);
    device.start();
    device.settle();
    const Bare bare({"serve", k_bareName, "16"});
    BareStore store;
    Samples own;
    Samples reference;
    for (int i = -k_warmUps; i < k_sets; ++i) {
        const std::string id = "set" + std::to_string(i);
        const Clock::duration daemonTook = setOne(device, id);
        const Clock::duration bareTook = setOneBare(device, store, id, inserts);
        if (i >= 0) {
            own.add(daemonTook);
            reference.add(bareTook);
        }
    }
    device.stop();
    table.add(
        {"set, ms, " + counted(stored), own, "two round trips and an insert", reference, k_aim});
    return own;
}

void measureSets(Device& device, Table& table) {
    Samples inserts;
    const Samples few = measureSets(device, table, 10, inserts);
    measureSets(device, table, 1000, inserts);
    const Samples many = measureSets(device, table, 100000, inserts);
    table.add({"set, ms, " + counted(100000), many, "itself with " + counted(10), few, k_flat});
    table.add({"the bare insert alone, ms", inserts, "", {}});
}

// --- ListAlerts ---

void measureLists(Device& device, Table& table, int stored) {
    device.fill(stored);
    device.start();
    device.settle();
    const std::size_t size = device.caller.get(k_daemon, "ListAlerts").size();
    const Bare bare({"serve", k_bareName, std::to_string(size)});
    Samples own;
    Samples reference;
    for (int i = 0; i < k_lists; ++i) {
        Clock::time_point begin = Clock::now();
        device.caller.get(k_daemon, "ListAlerts");
        own.add(Clock::now() - begin);
        begin = Clock::now();
        device.caller.get(k_bareName, "any");
        reference.add(Clock::now() - begin);
    }
    device.stop();
    table.add({"ListAlerts, ms, " + counted(stored), own,
               "Get of " + std::to_string(size) + " bytes", reference});
}

// --- Start-up ---

void measureStarts(Device& device, Table& table, int stored) {
    device.fill(stored);
    device.start();  // once, so that what only a first start does is done
    device.settle();
    device.stop();
    Samples named;
    Samples started;
    Samples armed;
    Samples reference;
    device.caller.names.takeAll();
    device.log.timeline.takeAll();
    for (int i = 0; i < k_starts; ++i) {
        Clock::time_point begin = Clock::now();
        device.start();
        named.add(device.caller.names.take(k_daemon).at - begin);
        device.caller.awaitProperty(k_daemon, "AlarmdStarted");
        started.add(Clock::now() - begin);
        armed.add(device.log.timeline.take("", "timer thread begins").at - begin);
        device.settle();
        device.stop();
        begin = Clock::now();
        const Bare bare({"serve", k_bareName, "16"});
        reference.add(device.caller.names.take(k_bareName).at - begin);
    }
    const std::string beside = "bare program takes a name";
    table.add({"start to name, ms, " + counted(stored), named, beside, reference});
    table.add({"start to AlarmdStarted, ms, " + counted(stored), started, beside, reference});
    table.add({"start to timer thread, ms, " + counted(stored), armed, beside, reference});
}

// --- An idle minute ---

/// The sum of the numbers behind `keys` in a file of "key: number" lines.
double sumOf(const std::string& file, const Lines& keys) {
    std::ifstream in(file);
    double sum = 0;
    for (std::string line; std::getline(in, line);) {
        for (const std::string& key : keys) {
            if (line.rfind(key + ":", 0) == 0) {
                sum += std::stod(line.substr(key.size() + 1));
            }
        }
    }
    return sum;
}

double switchesOf(pid_t pid) {
    double sum = 0;
    for (const auto& task :
         std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task")) {
        sum += sumOf(task.path().string() + "/status",
                     {"voluntary_ctxt_switches", "nonvoluntary_ctxt_switches"});
    }
    return sum;
}

Samples memoryOf(pid_t pid, const std::string& kind) {
    Samples kib;
    kib.add(sumOf("/proc/" + std::to_string(pid) + "/smaps_rollup", {kind}));
    return kib;
}

void measureIdle(Device& device, Table& table, int stored, int idleSeconds) {
    device.fill(stored);
    device.start();
    device.settle();
    const Bare bare({"idle"});
    pid_t pid = 0;
    std::ifstream("/run/alarmd.pid") >> pid;
    std::this_thread::sleep_for(seconds(2));
    if (idleSeconds > 0) {
        const double ownBefore = switchesOf(pid);
        const double bareBefore = switchesOf(bare.pid());
        std::this_thread::sleep_for(seconds(idleSeconds));
        Samples own;
        Samples reference;
        own.add(switchesOf(pid) - ownBefore);
        reference.add(switchesOf(bare.pid()) - bareBefore);
        table.add(
            {"context switches, idle for " + std::to_string(idleSeconds) + " s", own, "", {}, 0});
        table.add({"context switches, the empty program", reference, "", {}});
    }
    for (const char* kind : {"Rss", "Pss"}) {
        table.add({std::string(kind) + ", KiB, " + counted(stored), memoryOf(pid, kind),
                   "empty, same libraries", memoryOf(bare.pid(), kind), k_aim});
    }
    device.stop();
}

// --- The program ---

/// Ends the program unless /var/local is its own and on a disk.
void checkPlace() {
    constexpr auto tmpfs = 0x01021994;
    struct statfs place {};
    std::error_code error;
    if (statfs("/var/local", &place) != 0
        || std::filesystem::read_symlink("/dev/log", error) != "/run/log.sock") {
        throw std::runtime_error("start this with bench/run, which gives it folders of its own");
    }
    if (place.f_type == tmpfs) {
        throw std::runtime_error("/var/local is a tmpfs: writes to it cost nothing");
    }
}

void printPlace() {
    utsname system{};
    uname(&system);
    double load[3] = {};
    getloadavg(load, 3);
    std::printf("%ld cores, Linux %s, load %.2f, build type %s, store on ",
                sysconf(_SC_NPROCESSORS_ONLN), system.release, load[0], BUILD_TYPE);
    std::fflush(stdout);
    std::cout << harness::Process({"stat", "-f", "-c", "%T", "/var/local"}).read('\n') << "\n\n";
}

void measure(const Options& options) {
    checkPlace();
    printPlace();
    Table table;
    Device device;
    if (options.wants("ring")) {
        measureRings(device, table, 0, "sleep, write", k_aim);
        measureRings(device, table, 2, "sleep, read, read, write", -1);
    }
    if (options.wants("set")) {
        measureSets(device, table);
    }
    if (options.wants("list")) {
        for (const int stored : {10, 1000, 10000}) {
            measureLists(device, table, stored);
        }
    }
    if (options.wants("start")) {
        for (const int stored : {10, 100000}) {
            measureStarts(device, table, stored);
        }
    }
    if (options.wants("idle")) {
        measureIdle(device, table, 10, options.idleSeconds);
        measureIdle(device, table, 100000, 0);
    }
    table.print();
}

bool parse(int argc, char** argv, Options& options) {
    const Lines known{"ring", "set", "list", "start", "idle"};
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--idle") == 0 && i + 1 < argc) {
            options.idleSeconds = std::atoi(argv[++i]);
        } else if (std::find(known.begin(), known.end(), argv[i]) != known.end()) {
            options.sections.emplace_back(argv[i]);
        } else {
            return false;
        }
    }
    return options.idleSeconds > 0;
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
    bench::Options options;
    if (!bench::parse(argc, argv, options)) {
        std::cerr << "usage: bench [--idle SECONDS] [ring] [set] [list] [start] [idle]\n";
        return 2;
    }
    testing::FLAGS_gtest_throw_on_failure = true;  // what the harness expects is expected here, too
    try {
        bench::measure(options);
    } catch (const std::exception& error) {
        std::cerr << "bench: " << error.what() << '\n';
        return 1;
    }
}
