// Uses the status library as an outside program does: the process's inert manager, and a local manager that
// calls a listener. Exits with 0 if every result is right.

#include <future>
#include <iostream>

#include <common/EventThread.h>
#include <common/Logging.h>
#include <statusmanager/StatusManager.h>
#include <statusmanager/StatusManagerProxy.h>
#include <statusmanager/StatusManagerStub.h>

OV_LOG_CONTROL_WORDS;

namespace
{

class Listener : public IStatusUpdateListener
{
public:
    void onStatusUpdate(StatusMap updates) override
    {
        if (updates.count("door") != 0)
            mDoor.set_value(updates["door"]);
    }

    void onEventUpdate(std::string name, std::string value) override { mEvent.set_value(name + '=' + value); }

    std::promise<std::string> mDoor;
    std::promise<std::string> mEvent;
};

bool publishAndListen(StatusManager& manager)
{
    Listener listener;
    Orvane::EventThread thread("listener", 0);
    manager.registerListener(&listener, &thread);
    manager.registerForStatus(&listener, "door");
    manager.registerForEvent(&listener, "bell");
    manager.postStatus("door", "open");
    manager.postEvent("bell", "rang", 0);
    const bool heard =
        listener.mDoor.get_future().get() == "open" && listener.mEvent.get_future().get() == "bell=rang";
    manager.unregisterListener(&listener);
    return heard;
}

bool isInert(StatusManager& manager)
{
    Listener listener;
    Orvane::EventThread thread("listener", 0);
    manager.registerListener(&listener, &thread);
    manager.postStatus("door", "open");
    const bool answered = manager.sync(1000) && manager.getClientInfo().empty();
    manager.unregisterListener(&listener);
    return answered;
}

} // namespace

int main()
{
    StatusManager local;
    StatusManager* inert = StatusManager::getInstance(true);
    const bool good =
        publishAndListen(local) && isInert(*inert) && dynamic_cast<StatusManagerStub*>(inert) != nullptr;
    OV_LOG(0, "status-user: %s", good ? "good" : "bad");
    return good ? 0 : 1;
}
