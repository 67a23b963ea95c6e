// A client that posts, queries, subscribes and unsubscribes at random.
//   soakclient SEED
//
// It obeys lines on its standard input. After "stop" it posts no more, and prints "stopped" when all posts
// have arrived. After "report" it prints the values that its listener received last, as KEY=VALUE lines, and
// "reported". It leaves at the end of the input.

#include <atomic>
#include <cstdlib>
#include <iostream>
#include <map>
#include <mutex>
#include <random>
#include <string>
#include <thread>

#include "common/EventThread.h"
#include "statusmanager/StatusManager.h"

namespace
{

constexpr unsigned keys = 100;

StatusKeys allKeys()
{
    StatusKeys all;
    for (unsigned key = 0; key < keys; ++key)
        all.push_back("soak." + std::to_string(key));
    return all;
}

class Listener : public IStatusUpdateListener
{
public:
    void onStatusUpdate(StatusMap updates) override
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        for (auto& [key, value] : updates)
            mKnown[key] = std::move(value);
    }
    void onEventUpdate(std::string, std::string) override {}

    StatusMap known()
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mKnown;
    }

private:
    std::mutex mMutex;
    StatusMap mKnown;
};

class Roamer
{
public:
    Roamer(StatusManager& manager, unsigned seed) : mManager(manager), mRandom(seed) {}

    void step()
    {
        const std::string key = "soak." + std::to_string(mRandom() % keys);
        switch (mRandom() % 20)
        {
        case 0:
            mManager.sync(-1);
            break;
        case 1:
            mManager.getClientInfoValue(key);
            break;
        case 2:
            mManager.getClientInfo();
            break;
        case 3:
            mManager.incrementCounter("soak");
            break;
        case 4:
            mManager.restartTimer(key);
            mManager.getTimerElapsed(key);
            break;
        case 5:
            mManager.postEvent("soak", key, static_cast<uint32_t>(mRandom() % 10));
            break;
        case 6:
            mManager.resetStatus(key);
            break;
        case 7:
            anotherListener(key);
            break;
        default:
            mManager.postStatus(key, std::to_string(mRandom()) + std::string(mRandom() % 200, 'x'));
        }
    }

private:
    void anotherListener(const std::string& key)
    {
        Listener listener;
        Orvane::EventThread thread("another", 0);
        mManager.registerListener(&listener, &thread);
        mManager.registerForStatus(&listener, key);
        mManager.registerForEvent(&listener, "soak");
        mManager.unregisterListener(&listener);
        thread.stop();
    }

    StatusManager& mManager;
    std::mt19937 mRandom;
};

void report(Listener& listener)
{
    for (const auto& [key, value] : listener.known())
        std::cout << key << '=' << value << '\n';
    std::cout << "reported" << std::endl;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2)
        return 2;
    StatusManager& manager = *StatusManager::getInstance(false);
    Orvane::EventThread thread("soak", 0);
    Listener listener;
    manager.registerListener(&listener, &thread);
    manager.registerForStatus(&listener, allKeys());

    std::atomic<bool> stopped{false};
    std::thread roaming(
        [&]
        {
            Roamer roamer(manager, static_cast<unsigned>(strtoul(argv[1], nullptr, 10)));
            while (!stopped)
                roamer.step();
            manager.sync(-1);
        });
    for (std::string line; std::getline(std::cin, line);)
    {
        if (line == "stop")
        {
            stopped = true;
            roaming.join();
            std::cout << "stopped" << std::endl;
        }
        else if (line == "report")
            report(listener);
    }
    stopped = true;
    if (roaming.joinable())
        roaming.join();
    manager.unregisterListener(&listener);
    thread.stop();
    return 0;
}
