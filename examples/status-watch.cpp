// Prints status values and events as they change, and how long each set of values took to arrive. Runs until
// a signal comes, or for a number of seconds.
//
// Worth copying: a listener with its own thread for the callbacks, and the order in which both end.

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "FeedKeys.h"
#include "StopSignal.h"
#include "common/EventThread.h"
#include "statusmanager/StatusManager.h"

namespace
{

/// Needs no lock: its event thread makes all calls.
class Printer : public IStatusUpdateListener
{
public:
    void onStatusUpdate(StatusMap updates) override
    {
        // The first callback after a subscription has the current values, which may be none.
        if (updates.empty())
            return;
        ++mUpdates;
        std::printf("status %s", latency(updates).c_str());
        for (const auto& [key, value] : updates)
            std::printf("  %s=%s", key.c_str(), value.c_str());
        std::printf("\n");
        std::fflush(stdout);
    }

    void onEventUpdate(std::string name, std::string value) override
    {
        std::printf("event              %s: %s\n", name.c_str(), value.c_str());
        std::fflush(stdout);
    }

    /// The number of callbacks with values. Call it only after the event thread has stopped.
    unsigned updates() const { return mUpdates; }

private:
    // The time from reading the values to this callback; blank if there is no time stamp. Both ends use this
    // machine's wall clock. For a value posted before this program started, it is the value's age.
    static std::string latency(const StatusMap& updates)
    {
        using namespace std::chrono;
        const auto stamp = updates.find(FeedKeys::time);
        char text[32] = "           ";
        if (stamp != updates.end())
        {
            const microseconds posted(std::strtoll(stamp->second.c_str(), nullptr, 10));
            const duration<double, std::milli> age = system_clock::now().time_since_epoch() - posted;
            std::snprintf(text, sizeof(text), "%8.2f ms", age.count());
        }
        return text;
    }

    unsigned mUpdates = 0;
};

StatusKeys keysOfTheFeed()
{
    return {FeedKeys::time,      FeedKeys::uptime,   FeedKeys::load, FeedKeys::memory,
            FeedKeys::processes, FeedKeys::received, FeedKeys::sent, FeedKeys::temperature};
}

void watch(StatusManager& manager, Printer& printer, const StatusKeys& keys, unsigned seconds)
{
    // All callbacks run on this thread, one at a time, and so do not delay the library.
    Orvane::EventThread thread("status-watch", 0);
    manager.registerListener(&printer, &thread);
    manager.registerForStatus(&printer, keys);
    manager.registerForEvent(&printer, FeedKeys::loadEvent);

    if (seconds == 0)
        StopSignal::wait();
    else
        StopSignal::waitUntil(std::chrono::steady_clock::now() + std::chrono::seconds(seconds));

    // After this, no callback is queued. The thread is destroyed next, so no callback is running. Only then
    // may the listener be destroyed.
    manager.unregisterListener(&printer);
}

} // namespace

int main(int argc, char** argv)
{
    CLI::App app("Prints status values and events as they change.\n"
                 "Exits 0 if it saw as many sets of values as --expect says, 1 if not.");
    std::vector<std::string> keys;
    unsigned seconds = 0;
    unsigned expect = 1;
    app.add_option("KEY", keys, "status keys to watch; those of device-feed when none is given");
    app.add_option("--seconds", seconds, "how long to watch; 0 for no limit")
        ->check(CLI::Range(0U, 31536000U))
        ->capture_default_str();
    app.add_option("--expect", expect, "how many sets of values must be seen")->capture_default_str();
    CLI11_PARSE(app, argc, argv);

    // Blocks until a broker has answered. The object is never destroyed; do not delete it.
    StatusManager& manager = *StatusManager::getInstance(false);
    StopSignal::install();

    Printer printer;
    watch(manager, printer, keys.empty() ? keysOfTheFeed() : StatusKeys(keys.begin(), keys.end()), seconds);

    std::printf("status-watch: saw %u sets of values\n", printer.updates());
    return printer.updates() >= expect ? 0 : 1;
}
