// The construction and the end of a broker client when memory runs out.

#include "tests/memory/Belongings.h"
#include "tests/memory/ClientWorld.h"

using FailingMemory::failEach;
using FailingMemory::Failure;
using FailingMemory::runsOut;

TEST_F(ClientMemory, aClientIsConstructedOrItsCallerGetsAnException)
{
    ScriptedBroker broker;
    const Belongings before;
    const unsigned struck = failEach(
        [&](const Failure& failure)
        {
            std::unique_ptr<StatusManagerProxy> proxy;
            bool ranOut = false;
            const auto construct = [&] { proxy = std::make_unique<StatusManagerProxy>(); };
            const bool hasStruck = failure.during([&] { ranOut = runsOut(construct); });
            EXPECT_TRUE(hasStruck || !ranOut);
            EXPECT_EQ(proxy == nullptr, ranOut);
            EXPECT_TRUE(ranOut || proxy->sync(-1));
            {
                const Pulse pulse(broker);
                proxy.reset();
            }
            EXPECT_TRUE(before.areAllThereIs()) << "something was left behind";
            return hasStruck;
        });
    EXPECT_GT(struck, 0U);
}

TEST_F(ClientMemory, aClientIsDestroyedWhateverMemoryThereIs)
{
    ScriptedBroker broker;
    const Pulse pulse(broker);
    const Belongings before;
    const unsigned struck = failEach(
        [&](const Failure& failure)
        {
            auto proxy = std::make_unique<StatusManagerProxy>();
            proxy->sync(-1);
            const bool hasStruck = failure.during([&] { proxy.reset(); });
            EXPECT_TRUE(before.areAllThereIs()) << "something was left behind";
            return hasStruck;
        });
    EXPECT_GT(struck, 0U);
}

TEST_F(ClientMemory, aClientThatWasShutDownIsDestroyedWhateverMemoryThereIs)
{
    ScriptedBroker broker;
    const Pulse pulse(broker);
    const unsigned struck = failEach(
        [&](const Failure& failure)
        {
            auto proxy = std::make_unique<Proxy>();
            proxy->shutdown();
            const unsigned before = LibzmqCalls::closes();
            const bool hasStruck = failure.during([&] { proxy.reset(); });
            EXPECT_EQ(LibzmqCalls::closes(), before) << "closed a socket twice";
            return hasStruck;
        });
    EXPECT_GT(struck, 0U);
}

TEST_F(ClientMemory, aShutDownIsCompleteOrReachesItsCallerAsAnException)
{
    ScriptedBroker broker;
    const Pulse pulse(broker);
    const Belongings before;
    const unsigned struck = failEach(
        [&](const Failure& failure)
        {
            auto proxy = std::make_unique<Proxy>();
            bool ranOut = false;
            const bool hasStruck = failure.during([&] { ranOut = runsOut([&] { proxy->shutdown(); }); });
            EXPECT_EQ(ranOut, hasStruck);
            proxy->shutdown();
            proxy.reset();
            EXPECT_TRUE(before.areAllThereIs()) << "something was left behind";
            return hasStruck;
        });
    EXPECT_GT(struck, 0U);
}
