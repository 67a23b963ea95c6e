// Uses only the framework library. Exits with 0 if every result is right.

#include <common/EventAgent.h>
#include <common/EventThread.h>
#include <common/Mutex.h>
#include <common/Stopwatch.h>

namespace
{

class Adder : public Orvane::Tracked
{
public:
    int add(int number)
    {
        const Orvane::AutoLock lock(mMutex);
        return mSum += number;
    }

private:
    Orvane::Mutex mMutex{true};
    int mSum = 40;
};

} // namespace

int main()
{
    veskcommon::Stopwatch stopwatch("start-up");
    stopwatch.start();
    Adder adder;
    Orvane::EventThread thread("framework-user", 0);
    auto* agent = OV_NEW Orvane::SyncRetEventAgent1<Adder, int, int>(&adder, &Adder::add, 2);
    const bool good = agent->send(&thread) == 42 && stopwatch.getName() == "start-up";
    return good ? 0 : 1;
}
