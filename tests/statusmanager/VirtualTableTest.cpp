// The order of virtual operations belongs to the binary interface: new operations go to the end.

#include <gtest/gtest.h>

#include "statusmanager/StatusManagerStub.h"
#include "tests/support/VirtualSlot.h"

namespace
{

using Listener = IStatusUpdateListener*;

// Selects an overload by its arguments.
template <class T, class R, class... A>
int slotOf(R (T::*member)(A...))
{
    return virtualSlot(member);
}

} // namespace

TEST(VirtualTable, ofTheListenerInterface)
{
    EXPECT_EQ(slotOf(&IStatusUpdateListener::onStatusUpdate), 0);
    EXPECT_EQ(slotOf(&IStatusUpdateListener::onEventUpdate), 1);
}

TEST(VirtualTable, ofTheManager)
{
    using M = StatusManager;
    EXPECT_EQ(slotOf(&M::updateSystemTime), 0);
    EXPECT_EQ(slotOf(&M::getClientInfo), 1);
    EXPECT_EQ(slotOf(&M::getClientInfoValue), 2);
    EXPECT_EQ(slotOf(&M::getClientInfoValues), 3);
    EXPECT_EQ(slotOf(&M::startTimer), 4);
    EXPECT_EQ(slotOf(&M::stopTimer), 5);
    EXPECT_EQ(slotOf(&M::resetTimer), 6);
    EXPECT_EQ(slotOf(&M::restartTimer), 7);
    EXPECT_EQ(slotOf(&M::getTimerElapsed), 8);
    EXPECT_EQ(slotOf(&M::getTimerElapsedSeconds), 9);
    EXPECT_EQ(slotOf(&M::getTimerLastStarted), 10);
    EXPECT_EQ(slotOf(&M::getCounterValue), 11);
    EXPECT_EQ(slotOf(&M::incrementCounter), 12);
    EXPECT_EQ(slotOf(&M::setCounterValue), 13);
    EXPECT_EQ(slotOf(&M::registerListener), 14);
    EXPECT_EQ(slotOf(&M::unregisterListener), 15);
    EXPECT_EQ((slotOf<M, void, Listener, std::string>(&M::registerForStatus)), 16);
    EXPECT_EQ((slotOf<M, void, Listener, StatusKeys>(&M::registerForStatus)), 17);
    EXPECT_EQ((slotOf<M, void, Listener, const std::string&>(&M::unregisterForStatus)), 18);
    EXPECT_EQ((slotOf<M, void, Listener, const StatusKeys&>(&M::unregisterForStatus)), 19);
    EXPECT_EQ((slotOf<M, void, std::string, std::string>(&M::postStatus)), 20);
    EXPECT_EQ((slotOf<M, void, StatusMap>(&M::postStatus)), 21);
    EXPECT_EQ((slotOf<M, void, std::string>(&M::resetStatus)), 22);
    EXPECT_EQ((slotOf<M, void, StatusKeys>(&M::resetStatus)), 23);
    EXPECT_EQ((slotOf<M, void, Listener, std::string>(&M::registerForEvent)), 24);
    EXPECT_EQ((slotOf<M, void, Listener, EventKeys>(&M::registerForEvent)), 25);
    EXPECT_EQ((slotOf<M, void, Listener, const std::string&>(&M::unregisterForEvent)), 26);
    EXPECT_EQ((slotOf<M, void, Listener, const EventKeys&>(&M::unregisterForEvent)), 27);
    EXPECT_EQ(slotOf(&M::postEvent), 28);
    EXPECT_EQ(slotOf(&M::sync), 29);
}

TEST(VirtualTable, ofTheManagerEndsWithTheDestructor)
{
    struct Extended : public StatusManager
    {
        virtual void next() {}
    };
    EXPECT_EQ(slotOf(&Extended::next), 32); // 30 and 31 are the destructor's
}

TEST(VirtualTable, ofTheStubAddsTenOperationsBehindTheDestructor)
{
    using S = StatusManagerStub;
    EXPECT_EQ((slotOf<S, std::string, std::string>(&S::getClientInfoValue)), 32);
    EXPECT_EQ((slotOf<S, StatusMap, StatusKeys>(&S::getClientInfoValues)), 33);
    EXPECT_EQ((slotOf<S, uint64_t, std::string>(&S::getTimerElapsed)), 34);
    EXPECT_EQ((slotOf<S, uint64_t, std::string>(&S::getTimerLastStarted)), 35);
    EXPECT_EQ((slotOf<S, uint32_t, std::string>(&S::getCounterValue)), 36);
    EXPECT_EQ((slotOf<S, uint32_t, std::string>(&S::incrementCounter)), 37);
    EXPECT_EQ((slotOf<S, void, Listener, std::string>(&S::unregisterForStatus)), 38);
    EXPECT_EQ((slotOf<S, void, Listener, StatusKeys>(&S::unregisterForStatus)), 39);
    EXPECT_EQ((slotOf<S, void, Listener, std::string>(&S::unregisterForEvent)), 40);
    EXPECT_EQ((slotOf<S, void, Listener, EventKeys>(&S::unregisterForEvent)), 41);
}
