// Connecting to a real broker that may not run. Each case runs in its own child process.

#include <filesystem>
#include <fstream>
#include <future>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "statusmanager/StatusManagerProxy.h"
#include "statusmanager/helpers/Instance.h"
#include "tests/support/BrokerProcess.h"
#include "tests/support/OwnProcess.h"

namespace
{

using namespace std::chrono_literals;

using Connecting = OwnProcess;

void yieldsNothingAndTheProcessEnds()
{
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(status::connectWithin(50ms), nullptr);
    EXPECT_EQ(status::connectWithin(0ms), nullptr);
    EXPECT_EQ(status::connectWithin(-1s), nullptr);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, testDeadline);
}

void yieldsTheManager()
{
    const BrokerProcess broker;
    StatusManager* const manager = status::connectWithin(testDeadline);
    ASSERT_NE(dynamic_cast<StatusManagerProxy*>(manager), nullptr);
    EXPECT_EQ(StatusManager::getInstance(false), manager);
    EXPECT_EQ(&status::manager(), manager);
    EXPECT_EQ(status::connectWithin(testDeadline), manager);
    EXPECT_TRUE(manager->sync(10000));
}

// The number of this process's threads that are connecting.
std::size_t attempts()
{
    std::size_t count = 0;
    for (const auto& thread : std::filesystem::directory_iterator("/proc/self/task"))
    {
        std::string name;
        std::ifstream(thread.path() / "comm") >> name;
        if (name == "connectWithin")
            ++count;
    }
    return count;
}

void goesOnBetweenTheCalls()
{
    EXPECT_EQ(status::connectWithin(5ms), nullptr);
    EXPECT_TRUE(eventually([] { return attempts() == 1; }));
    for (int count = 0; count < 5; ++count)
        EXPECT_EQ(status::connectWithin(5ms), nullptr);
    EXPECT_EQ(attempts(), 1U); // all calls wait for the same attempt
    const BrokerProcess broker;
    StatusManager* manager = nullptr;
    EXPECT_TRUE(eventually([&] { return (manager = status::connectWithin(0ms)) != nullptr; }));
    EXPECT_EQ(StatusManager::getInstance(false), manager);
    EXPECT_TRUE(eventually([] { return attempts() == 0; }));
}

void yieldsTheSameToAll()
{
    std::vector<std::future<StatusManager*>> calls;
    for (int count = 0; count < 8; ++count)
        calls.push_back(std::async(std::launch::async, [] { return status::connectWithin(testDeadline); }));
    const BrokerProcess broker;
    for (std::future<StatusManager*>& call : calls)
        EXPECT_EQ(call.get(), StatusManager::getInstance(false));
}

} // namespace

TEST_F(Connecting, withoutABrokerYieldsNothingInTimeAndLetsTheProcessEnd)
{
    EXPECT_IN_OWN_PROCESS(yieldsNothingAndTheProcessEnds());
}

TEST_F(Connecting, toABrokerYieldsTheProcessesManager)
{
    EXPECT_IN_OWN_PROCESS(yieldsTheManager());
}

TEST_F(Connecting, goesOnBetweenTheCalls)
{
    EXPECT_IN_OWN_PROCESS(goesOnBetweenTheCalls());
}

TEST_F(Connecting, onSeveralThreadsYieldsTheSameManager)
{
    EXPECT_IN_OWN_PROCESS(yieldsTheSameToAll());
}
