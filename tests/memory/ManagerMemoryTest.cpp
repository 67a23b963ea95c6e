// Guarantees of the local manager that span several operations, when memory runs out.

#include <gtest/gtest.h>

#include "tests/memory/LocalWorld.h"

using FailingMemory::Extent;
using FailingMemory::failEach;
using FailingMemory::failEachCleanly;
using FailingMemory::Failure;
using FailingMemory::runsOut;
using FailingMemory::Spared;

namespace
{

class ManagerMemory : public testing::Test
{
protected:
    static constexpr unsigned keys = 3;

    // Makes the call on the manager's thread, where memory may run out.
    template <class Call>
    static bool onManagersThread(World& world, Call call)
    {
        const Spared spared;
        bool ranOut = false;
        world.manager.onThread([&] { ranOut = runsOut(call); });
        return ranOut;
    }

    FailingMemory::QuietLog log;
};

} // namespace

TEST_F(ManagerMemory, aListenerThatCannotBeToldOfAValueDoesNotKeepOthersFromBeingTold)
{
    const unsigned struck = failEach(
        [](const Failure& failure)
        {
            World world(keys);
            StatusMap update = values(0, keys, "new");
            const auto tell = [&] { world.manager.handleStatusUpdate(std::move(update)); };
            const bool hasStruck = failure.during([&] { onManagersThread(world, tell); });
            world.settle();
            const bool isFirstTold = World::knownTo(world.first, name("key", 0)) == name("new", 0);
            const bool isSecondTold = World::knownTo(world.second, name("key", 0)) == name("new", 0);
            EXPECT_TRUE(isFirstTold || isSecondTold || failure.extent == Extent::Onward);
            return hasStruck;
        });
    EXPECT_GT(struck, 0U);
}

// A listener may have received a value that is not stored in the end.
TEST_F(ManagerMemory, aPostOfWhichNotAllCanBeToldIsTakenBackAndARepeatedOneTellsAll)
{
    bool isTakenBackAfterSomeAreTold = false;
    failEach(
        [&](const Failure& failure)
        {
            World world(keys);
            const auto post = [&] { world.manager.postStatus(values(0, keys + 1, "new")); };
            const State notAtAll = world.state();
            bool ranOut = false;
            const bool hasStruck = failure.during(
                [&]
                {
                    ranOut = onManagersThread(world, post);
                    world.settle();
                });
            const State then = world.state();
            EXPECT_EQ(then == notAtAll, ranOut);
            EXPECT_EQ(then.values == values(0, keys + 1, "new"), !ranOut);
            const std::string told = World::knownTo(world.second, name("key", 0));
            EXPECT_TRUE(told == name("new", 0) || (ranOut && told == name("old", 0))) << told;
            isTakenBackAfterSomeAreTold |= ranOut && told == name("new", 0);

            post();
            world.settle();
            EXPECT_EQ(world.state().values, values(0, keys + 1, "new"));
            world.expectAllTold();
            return hasStruck;
        });
    EXPECT_TRUE(isTakenBackAfterSomeAreTold);
}

TEST_F(ManagerMemory, aListenerThatCannotBeToldOfAnEventDoesNotKeepOthersFromBeingTold)
{
    const unsigned struck = failEach(
        [](const Failure& failure)
        {
            World world(keys);
            std::string event = name("event", 0);
            std::string value = name("value", 0);
            const auto tell = [&] { world.manager.handleEventUpdate(std::move(event), std::move(value)); };
            const bool hasStruck = failure.during([&] { onManagersThread(world, tell); });
            world.settle();
            EXPECT_TRUE(world.first.events().size() + world.second.events().size() > 0 ||
                        failure.extent == Extent::Onward);
            return hasStruck;
        });
    EXPECT_GT(struck, 0U);
}

TEST_F(ManagerMemory, anUnregisteredListenersCallbacksAreDroppedAndOthersAreKept)
{
    const unsigned struck = failEach(
        [](const Failure& failure)
        {
            World world(keys);
            world.occupyListeners();
            world.manager.handleStatusUpdate(values(0, keys, "new"));
            world.manager.onThread([] {});
            bool ranOut = false;
            const auto unregister = [&] { world.manager.unregisterListener(&world.second); };
            const bool hasStruck = failure.during([&] { ranOut = runsOut(unregister); });
            world.settle();
            EXPECT_EQ(World::knownTo(world.first, name("key", 0)), name("new", 0));
            EXPECT_EQ(World::knownTo(world.second, name("key", 0)), name(ranOut ? "new" : "old", 0));
            return hasStruck;
        });
    EXPECT_GT(struck, 0U);
}

TEST_F(ManagerMemory, aCallbackThatFailsIsLostAndTheNextComes)
{
    const unsigned struck = failEach(
        [](const Failure& failure)
        {
            World world(keys, "counted");
            world.occupyListeners();
            world.manager.handleStatusUpdate(values(0, keys, "lost"));
            world.manager.onThread([] {});
            const bool hasStruck = failure.during([&] { world.settle(); });
            world.manager.handleStatusUpdate(values(0, keys, "new"));
            world.settle();
            EXPECT_EQ(World::knownTo(world.first, name("key", 0)), name("new", 0));
            EXPECT_EQ(World::knownTo(world.second, name("key", 0)), name("new", 0));
            return hasStruck;
        });
    EXPECT_GT(struck, 0U);
}

TEST_F(ManagerMemory, aManagerIsConstructedOrItsCallerGetsAnException)
{
    const unsigned struck = failEachCleanly(
        [](const Failure& failure)
        {
            std::unique_ptr<StatusManager> manager;
            bool ranOut = false;
            const auto construct = [&] { manager = std::make_unique<StatusManager>(); };
            const bool hasStruck = failure.during([&] { ranOut = runsOut(construct); });
            EXPECT_EQ(ranOut, hasStruck);
            EXPECT_EQ(manager == nullptr, ranOut);
            return hasStruck;
        });
    EXPECT_GT(struck, 0U);
}

TEST_F(ManagerMemory, aManagerIsDestroyedWithWhatIsQueuedWithoutMemory)
{
    const unsigned struck = failEachCleanly(
        [](const Failure& failure)
        {
            auto manager = std::make_unique<Manager>();
            Gate gate;
            manager->block(gate);
            for (unsigned number = 0; number < keys; ++number)
                manager->postStatus(name("key", number), name("new", 0));
            // Releases its thread when its queue is empty.
            std::thread opener(
                [&gate, &thread = manager->mThread]
                {
                    eventually([&thread] { return thread.getPendingCount() == 0; });
                    gate.open();
                });
            const bool hasStruck = failure.during([&] { manager.reset(); });
            opener.join();
            return hasStruck;
        });
    EXPECT_EQ(struck, 0U);
}
