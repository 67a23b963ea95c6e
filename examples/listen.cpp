// Prints status values and events as they come: listen NAME...
// Each NAME is both a status key and the name of an event. Runs until SIGINT or SIGTERM.

#include <cstdio>
#include <string>

#include "StopSignal.h"
#include "common/EventThread.h"
#include "statusmanager/StatusManager.h"

namespace
{

/// Needs no lock: its event thread makes all calls, one at a time.
class Printer : public IStatusUpdateListener
{
public:
    void onStatusUpdate(StatusMap updates) override
    {
        // The first callback has the current values; it is empty if there are none. An empty value was reset.
        for (const auto& [key, value] : updates)
            print("value", key, value);
    }

    void onEventUpdate(std::string name, std::string value) override { print("event", name, value); }

private:
    static void print(const char* kind, const std::string& name, const std::string& value)
    {
        std::printf("%s %s=%s\n", kind, name.c_str(), value.c_str());
        std::fflush(stdout);
    }
};

} // namespace

int main(int argc, char** argv)
{
    if (argc < 2)
    {
        std::fprintf(stderr, "usage: listen NAME...\n");
        return 2;
    }
    StatusManager* manager = StatusManager::getInstance(false);
    StopSignal::install();

    // In this order: the thread is destroyed first, so it has stopped before the listener is destroyed.
    Printer printer;
    Orvane::EventThread thread("listen", 0);

    const StatusKeys names(argv + 1, argv + argc);
    manager->registerListener(&printer, &thread);
    manager->registerForStatus(&printer, names);
    manager->registerForEvent(&printer, names);
    StopSignal::wait();
    manager->unregisterListener(&printer); // no callback is queued after this
    return 0;
}
