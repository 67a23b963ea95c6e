// The process's one manager as a client of the broker. Each case runs in its own child process.

#include <gtest/gtest.h>

#include "statusmanager/StatusManagerProxy.h"
#include "statusmanager/StatusManagerStub.h"
#include "tests/support/LogCapture.h"
#include "tests/support/OwnProcess.h"
#include "tests/support/ScriptedBroker.h"

namespace
{

using Instance = OwnProcess;

void theBrokersClientStays()
{
    ScriptedBroker broker;
    StatusManager* const first = StatusManager::getInstance(false);
    EXPECT_NE(dynamic_cast<StatusManagerProxy*>(first), nullptr);
    EXPECT_EQ(StatusManager::getInstance(true), first);
    EXPECT_EQ(StatusManager::getInstance(false), first);
    EXPECT_EQ(broker.requests(), std::vector<ScriptedBroker::Frames>{{"Sync"}}); // from one client
}

void theInertManagerStays()
{
    StatusManager* const first = StatusManager::getInstance(true);
    EXPECT_EQ(StatusManager::getInstance(false), first); // returns at once without a broker
    EXPECT_NE(dynamic_cast<StatusManagerStub*>(first), nullptr);
}

} // namespace

TEST_F(Instance, thatIsTheBrokersClientStaysSoWhenTheInertOneIsAskedFor)
{
    EXPECT_IN_OWN_PROCESS(theBrokersClientStays());
}

TEST_F(Instance, thatIsInertStaysSoWhenTheBrokersClientIsAskedFor)
{
    EXPECT_IN_OWN_PROCESS(theInertManagerStays());
}
