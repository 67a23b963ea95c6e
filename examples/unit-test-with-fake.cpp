// Tests a daemon's code without a broker; the fake simulates the rest of the device. Exits 0 if all tests
// pass.

#include <chrono>
#include <cstdio>

#include "common/EventThread.h"
#include "statusmanager/Helpers.h"
#include "statusmanager/helpers/FakeStatusManager.h"

namespace
{

// The code under test. It does not know of tests, and gets the process's manager itself.
class DoorLight
{
public:
    DoorLight() : mDoor(status::on({"door"}, mThread, [](const StatusMap& values) { follow(values); })) {}

private:
    static void follow(const StatusMap& values)
    {
        const auto door = values.find("door");
        if (door != values.end())
            status::post("light", door->second == "open" ? "on" : "off");
    }

    Orvane::EventThread mThread{"door light", 0};
    status::Subscription mDoor;
};

constexpr std::chrono::seconds deadline(10);

bool becomes(const char* key, const std::string& wanted)
{
    return status::waitFor(
               key, [&](const std::string& value) { return value == wanted; }, deadline)
        .has_value();
}

// Each test makes a new fake before the code under test asks for the manager.
bool followsTheDoor()
{
    status::FakeStatusManager device;
    const DoorLight light;
    device.change("door", "open"); // as if another process had posted it
    if (!becomes("light", "on"))
        return false;
    device.change("door", "shut");
    return becomes("light", "off");
}

bool postsNothingButTheLight()
{
    status::FakeStatusManager device;
    const DoorLight light;
    device.change({{"door", "open"}, {"window", "open"}});
    return becomes("light", "on") && device.posted() == StatusMap{{"light", "on"}};
}

bool check(const char* name, bool passed)
{
    std::printf("%s %s\n", passed ? "passed" : "FAILED", name);
    return passed;
}

} // namespace

int main()
{
    const bool follows = check("followsTheDoor", followsTheDoor());
    const bool only = check("postsNothingButTheLight", postsNothingButTheLight());
    return follows && only ? 0 : 1;
}
