// Prints status values and events as they come: listen NAME...
// Each NAME is both a status key and the name of an event. Runs until SIGINT or SIGTERM.

#include <cstdio>
#include <string>

#include "StopSignal.h"
#include "common/EventThread.h"
#include "statusmanager/StatusManager.h"

namespace
{

/// Called on its event thread only, one call at a time: it needs no lock.
class Printer : public IStatusUpdateListener
{
public:
    void onStatusUpdate(StatusMap updates) override
    {
        // The first callback brings the present values, and is empty when there are none. An empty value was
        // reset.
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

    // In this order, so that the thread, which is destroyed first, has stopped before the listener goes.
    Printer printer;
    Orvane::EventThread thread("listen", 0);

    const StatusKeys names(argv + 1, argv + argc);
    manager->registerListener(&printer, &thread);
    manager->registerForStatus(&printer, names);
    manager->registerForEvent(&printer, names);
    StopSignal::wait();
    manager->unregisterListener(&printer); // from here on nothing is sent to the printer
    return 0;
}
