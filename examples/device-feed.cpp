// Publishes live values of this machine: posts a set of status values at a fixed interval, and an event when
// the load crosses a threshold. Runs until a signal comes, or for a number of rounds.
//
// Worth copying: getInstance(), one postStatus() per set of values, postEvent(), a timer and a counter, and
// sync() before the process ends.

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <thread>

#include "FeedKeys.h"
#include "StopSignal.h"
#include "statusmanager/StatusManager.h"

namespace
{

// ----------------------------------------------------------------------------- reading from /proc and /sys

std::string firstWord(const std::string& path)
{
    std::string word;
    std::ifstream(path) >> word;
    return word;
}

std::string availableMemory()
{
    std::ifstream file("/proc/meminfo");
    std::string name;
    std::string value;
    std::string rest;
    while (file >> name >> value && std::getline(file, rest))
    {
        if (name == "MemAvailable:")
            return value;
    }
    return {};
}

std::size_t runningProcesses()
{
    std::error_code ignored; // processes may end while this loop runs
    std::size_t count = 0;
    for (std::filesystem::directory_iterator entry("/proc", ignored), end; entry != end;
         entry.increment(ignored))
    {
        const std::string name = entry->path().filename();
        count += static_cast<std::size_t>(
            std::all_of(name.begin(), name.end(), [](char digit) { return digit >= '0' && digit <= '9'; }));
    }
    return count;
}

struct Traffic
{
    uint64_t received = 0;
    uint64_t sent = 0;
};

// Adds up all interfaces. A line is "name: received-bytes, 7 more numbers, sent-bytes, ...".
Traffic networkTraffic()
{
    Traffic total;
    std::ifstream file("/proc/net/dev");
    std::string line;
    while (std::getline(file, line))
    {
        const std::size_t colon = line.find(':');
        if (colon == std::string::npos)
            continue; // one of the two header lines
        std::istringstream numbers(line.substr(colon + 1));
        Traffic one;
        uint64_t skipped = 0;
        numbers >> one.received;
        for (int i = 0; i < 7; ++i)
            numbers >> skipped;
        numbers >> one.sent;
        total.received += one.received;
        total.sent += one.sent;
    }
    return total;
}

// Reads the first thermal zone, in thousandths of a degree. Returns nothing on machines without one.
std::optional<std::string> temperature()
{
    long thousandths = 0;
    if (!(std::ifstream("/sys/class/thermal/thermal_zone0/temp") >> thousandths))
        return std::nullopt;
    return std::to_string(thousandths / 1000);
}

std::string microsecondsNow()
{
    using namespace std::chrono;
    return std::to_string(duration_cast<microseconds>(system_clock::now().time_since_epoch()).count());
}

StatusMap readDevice()
{
    const Traffic traffic = networkTraffic();
    StatusMap values{
        {FeedKeys::uptime, firstWord("/proc/uptime")},
        {FeedKeys::load, firstWord("/proc/loadavg")},
        {FeedKeys::memory, availableMemory()},
        {FeedKeys::processes, std::to_string(runningProcesses())},
        {FeedKeys::received, std::to_string(traffic.received)},
        {FeedKeys::sent, std::to_string(traffic.sent)},
    };
    if (const auto celsius = temperature())
        values[FeedKeys::temperature] = *celsius;
    values[FeedKeys::time] = microsecondsNow(); // last: a watcher computes the latency from it
    return values;
}

// ---------------------------------------------------------------------------------------------- publishing

/// Posts an event whenever the load has crossed the threshold. The first check also posts an event, so that
/// watchers know the initial side.
class LoadEvents
{
public:
    void check(StatusManager& manager, const std::string& load)
    {
        const char* side = std::strtod(load.c_str(), nullptr) > mThreshold ? "above" : "below";
        if (mSide == side)
            return;
        mSide = side;
        constexpr uint32_t noDelay = 0;
        manager.postEvent(FeedKeys::loadEvent, mSide + ", " + load, noDelay);
    }

private:
    const double mThreshold = std::max(1U, std::thread::hardware_concurrency()); // the number of cores
    std::string mSide;                                                           // empty: not known yet
};

// Only posts, because a query would stop the feed while no broker answers.
uint32_t postUntilStopped(StatusManager& manager, std::chrono::milliseconds interval, uint32_t limit)
{
    LoadEvents loadEvents;
    uint32_t rounds = 0;
    auto next = std::chrono::steady_clock::now();
    do
    {
        const StatusMap values = readDevice();
        // One map is one message, so watchers see the values of one round together. The message stays far
        // below 512 bytes; messages of a multiple of 512 bytes lose their end.
        manager.postStatus(values);
        loadEvents.check(manager, values.at(FeedKeys::load));
        manager.setCounterValue(FeedKeys::counter, ++rounds);
        // If the process was stopped for a while, the missed rounds are skipped, not posted in a burst.
        next = std::max(next + interval, std::chrono::steady_clock::now());
    } while ((limit == 0 || rounds != limit) && !StopSignal::waitUntil(next));
    return rounds;
}

} // namespace

int main(int argc, char** argv)
{
    CLI::App app("Posts live values of this machine to the status broker.");
    unsigned interval = 500;
    uint32_t count = 0;
    app.add_option("--interval", interval, "milliseconds between two rounds")
        ->check(CLI::Range(1U, 3600000U))
        ->capture_default_str();
    app.add_option("--count", count, "rounds to post; 0 for no limit")->capture_default_str();
    CLI11_PARSE(app, argc, argv);

    // Blocks until a broker has answered. The object is never destroyed; do not delete it.
    StatusManager& manager = *StatusManager::getInstance(false);
    StopSignal::install();

    manager.restartTimer(FeedKeys::timer);
    const uint32_t rounds = postUntilStopped(manager, std::chrono::milliseconds(interval), count);
    manager.stopTimer(FeedKeys::timer);

    // A post is only queued when its call returns. When sync() returns true, the broker has taken all posts.
    // A process that ends without sync() may lose the last ones.
    constexpr int timeoutMs = 2000;
    if (!manager.sync(timeoutMs))
    {
        std::fprintf(stderr, "device-feed: the broker did not answer; the last values may be lost\n");
        return 1;
    }
    std::printf("device-feed: posted %u rounds in %.1f s\n", static_cast<unsigned>(rounds),
                static_cast<double>(manager.getTimerElapsed(FeedKeys::timer)) / 1e6);
    return 0;
}
