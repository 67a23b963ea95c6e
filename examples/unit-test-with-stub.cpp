// Tests code that uses the status manager, without a broker. Exits 0 if all tests pass.

#include <cstdio>
#include <string>

#include "statusmanager/StatusManager.h"

namespace
{

// The code under test. It gets the manager as an argument, and a test can read more than its posts.
class Door
{
public:
    explicit Door(StatusManager& manager) : mManager(manager) {}

    void open()
    {
        ++mOpenings;
        mManager.postStatus("door", "open");
    }

    unsigned openings() const { return mOpenings; }

private:
    StatusManager& mManager;
    unsigned mOpenings = 0;
};

// The inert manager sends nothing, keeps nothing and never waits. The first getInstance() of the process
// decides the kind of manager; later calls of getInstance(false) return the same object.
bool countsItsOpenings()
{
    StatusManager* inert = StatusManager::getInstance(true);
    Door door(*inert);
    door.open();
    door.open();
    return door.openings() == 2 && StatusManager::getInstance(false) == inert;
}

// A separate StatusManager keeps values in this process, so that a test can check the posts. Its timers and
// counters stay at 0.
bool saysThatItIsOpen()
{
    StatusManager local;
    Door door(local);
    door.open();
    return local.getClientInfoValue("door") == "open"; // queued after the post, so it sees the value
}

bool check(const char* name, bool passed)
{
    std::printf("%s %s\n", passed ? "passed" : "FAILED", name);
    return passed;
}

} // namespace

int main()
{
    const bool counts = check("countsItsOpenings", countsItsOpenings());
    const bool says = check("saysThatItIsOpen", saysThatItIsOpen());
    return counts && says ? 0 : 1;
}
