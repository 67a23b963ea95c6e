#include <future>
#include <gtest/gtest.h>

#include "common/Calls.h"
#include "statusmanager/StatusManagerStub.h"
#include "tests/support/FakeClock.h"
#include "tests/support/LogCapture.h"
#include "tests/support/RecordingListener.h"
#include "tests/support/Wait.h"

namespace
{

class InspectedStub : public StatusManagerStub
{
public:
    using StatusManagerStub::mThread;

    std::size_t storedCounters()
    {
        return mCounters.size(); // the manager's thread is idle here, so reading is safe
    }
};

// Keeps a thread from all other work while it lives.
class Occupation
{
public:
    explicit Occupation(Orvane::EventDispatcher& dispatcher)
    {
        Orvane::postCall(OV_SITE, dispatcher, this, &Occupation::occupy);
        mBegin.wait();
    }
    ~Occupation()
    {
        end();
        mIsOver.wait();
    }

    Occupation(const Occupation&) = delete;
    Occupation& operator=(const Occupation&) = delete;

    void end() { mEnd.open(); }

private:
    void occupy()
    {
        mBegin.open();
        mEnd.wait();
        mIsOver.open();
    }

    Gate mBegin;
    Gate mEnd;
    Gate mIsOver;
};

class StubTest : public testing::Test
{
protected:
    LogCapture log{"*=5:ffffffff"};
    InspectedStub inspected;
    StatusManagerStub& stub = inspected;
    StatusManager& manager = inspected;
    RecordingListener listener;
};

} // namespace

TEST_F(StubTest, postedValuesAreNeitherStoredNorListed)
{
    manager.postStatus("k", "v");
    manager.postStatus(StatusMap{{"l", "w"}});
    EXPECT_TRUE(manager.getClientInfo().empty());
    EXPECT_EQ(manager.getClientInfoValue("k"), "");
    EXPECT_TRUE(manager.getClientInfoValues({"k", "l"}).empty());
}

TEST_F(StubTest, aResetReachesTheLocalStoreOfTheBase)
{
    manager.resetStatus("k");
    manager.resetStatus(StatusKeys{"l"});
    EXPECT_EQ(manager.getClientInfoValues({"k", "l"}), (StatusMap{{"k", ""}, {"l", ""}}));
    EXPECT_TRUE(manager.getClientInfo().empty()); // the stub's own
}

TEST_F(StubTest, throughTheStubEveryKeyHasTheEmptyValue)
{
    manager.resetStatus("k");
    manager.getClientInfoValues({});
    EXPECT_EQ(stub.getClientInfoValue("k"), "");
    EXPECT_TRUE(stub.getClientInfoValues(StatusKeys{"k"}).empty());
}

TEST_F(StubTest, throughTheManagerACounterIsTheBases)
{
    EXPECT_EQ(manager.getCounterValue("c"), 0U);
    EXPECT_EQ(manager.incrementCounter("d"), 0U);
    EXPECT_EQ(inspected.storedCounters(), 2U);
}

TEST_F(StubTest, throughTheStubACounterIsInert)
{
    EXPECT_EQ(stub.getCounterValue("c"), 0U);
    EXPECT_EQ(stub.incrementCounter("c"), 0U);
    EXPECT_EQ(stub.getCounterValue(""), 0U);
    EXPECT_EQ(inspected.storedCounters(), 0U);
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(StubTest, throughTheManagerATimerIsTheBases)
{
    EXPECT_EQ(manager.getTimerElapsed(""), 0U);
    EXPECT_EQ(manager.getTimerElapsedSeconds(""), 0U);
    EXPECT_EQ(manager.getTimerLastStarted(""), 0U);
    EXPECT_EQ(log.count(2, "Timer name is empty"), 3U);
}

TEST_F(StubTest, throughTheStubATimerIsInert)
{
    EXPECT_EQ(stub.getTimerElapsed(""), 0U);
    EXPECT_EQ(stub.getTimerLastStarted(""), 0U);
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(StubTest, timerAndCounterCommandsAreInert)
{
    manager.startTimer("");
    manager.stopTimer("");
    manager.resetTimer("");
    manager.restartTimer("");
    manager.setCounterValue("", 5);
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(StubTest, theClockIsNotTouched)
{
    FakeClock::reset();
    manager.updateSystemTime(5);
    EXPECT_FALSE(FakeClock::lastSetting());
}

TEST_F(StubTest, syncIsTrueAtOnceWhateverTheTimeOut)
{
    Occupation occupation(inspected.mThread);
    for (const int timeout : {-1, 0, 100})
    {
        auto synced = std::async(std::launch::async, [&] { return manager.sync(timeout); });
        const bool isReady = synced.wait_for(testDeadline) == std::future_status::ready;
        EXPECT_TRUE(isReady) << timeout;
        if (!isReady)
            occupation.end(); // without this, it would wait for ever
        EXPECT_TRUE(synced.get());
    }
}

TEST_F(StubTest, aListenerNeverHearsAnythingAndMayBeUnregistered)
{
    Orvane::EventThread thread("listener", 0);
    manager.registerListener(&listener, &thread);
    manager.registerForStatus(&listener, "k");
    manager.registerForStatus(&listener, StatusKeys{"k"});
    manager.registerForEvent(&listener, "e");
    manager.registerForEvent(&listener, EventKeys{"e"});
    manager.postStatus("k", "v");
    manager.postEvent("e", "v", 0);
    manager.resetStatus("k");
    manager.getClientInfoValue("k"); // queued behind the reset
    EXPECT_EQ(thread.getPendingCount(), 0U);
    manager.unregisterListener(&listener);
    thread.stop();
    EXPECT_TRUE(listener.updates().empty());
    EXPECT_TRUE(listener.events().empty());
}

TEST_F(StubTest, throughTheManagerUnsubscribingMeetsAnEmptyRegistry)
{
    manager.registerListener(&listener, nullptr);
    manager.unregisterForStatus(&listener, "k");
    manager.unregisterForStatus(&listener, StatusKeys{"k"});
    manager.unregisterForEvent(&listener, "e");
    manager.unregisterForEvent(&listener, EventKeys{"e"});
    EXPECT_EQ(log.count(2, "Cannot unregister for status value, listener not registered with Status Manager"),
              2U);
    EXPECT_EQ(log.count(2, "Cannot unregister for event, listener not registered with Status Manager"), 2U);
}

TEST_F(StubTest, throughTheStubUnsubscribingIsInert)
{
    stub.unregisterForStatus(&listener, std::string("k"));
    stub.unregisterForStatus(&listener, StatusKeys{"k"});
    stub.unregisterForEvent(&listener, std::string("e"));
    stub.unregisterForEvent(&listener, EventKeys{"e"});
    EXPECT_TRUE(log.lines().empty());
}

// Before that, the thread may be inside an operation of the stub.
TEST(StubTrace, theBasesDestructionBeginsWhenTheManagersThreadHasEnded)
{
    LogCapture log("StatusManager*=6:ffffffff");
    auto stub = std::make_unique<InspectedStub>();
    Occupation occupation(stub->mThread);
    log.clear();
    auto destroyed = std::async(std::launch::async, [&] { stub.reset(); });
    EXPECT_TRUE(log.waitFor(6, "end")); // the end of the stub's scope
    EXPECT_EQ(destroyed.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    EXPECT_EQ(log.texts(), (std::vector<std::string>{"begin", "end"}));
    occupation.end();
    EXPECT_EQ(destroyed.wait_for(testDeadline), std::future_status::ready);
    EXPECT_EQ(log.texts(), (std::vector<std::string>{"begin", "end", "begin", "end"}));
    EXPECT_NE(log.lines().front().function.find("~StatusManagerStub"), std::string::npos);
    EXPECT_NE(log.lines().back().function.find("::~StatusManager()"), std::string::npos);
}

TEST(StubTrace, itsOwnOperationsTraceOnTheCallersThreadUnderItsOwnFile)
{
    const LogCapture log("StatusManagerStub=7:ffffffff");
    StatusManagerStub stub;
    static_cast<StatusManager&>(stub).postStatus(StatusMap());
    const std::vector<LogLine> lines = log.lines();
    ASSERT_EQ(lines.size(), 4U);
    EXPECT_EQ(lines[0].function, "StatusManagerStub::StatusManagerStub()");
    EXPECT_EQ(lines[0].level, 6);
    EXPECT_EQ(lines[2].function, "virtual void StatusManagerStub::postStatus(StatusMap)");
    EXPECT_EQ(lines[2].level, 7);
    EXPECT_EQ(lines[2].file, "/StatusManagerStub.cpp");
    EXPECT_EQ(lines[2].text, "begin");
    EXPECT_EQ(lines[3].text, "end");
}
