// The functions of status.h with a real broker.

#include <csignal>
#include <gtest/gtest.h>
#include <memory>
#include <string>

#include "tests/c/Opened.h"
#include "tests/support/BrokerProcess.h"
#include "tests/support/LogCapture.h"
#include "tests/support/RawClient.h"

namespace
{

class StatusWithBroker : public testing::Test
{
protected:
    // Posts as another process would, until the change has come.
    void expectChangeOf(const std::string& key, const std::string& value)
    {
        RawPoster poster;
        poster.post("{\"postStatus\":{\"" + key + "\":\"" + value + "\"}}");
        Taken item;
        do
        {
            item = opened.take();
        } while (item.kind == STATUS_CHANGE && !(item == change(key, value)));
        EXPECT_EQ(item, change(key, value));
    }

    BrokerProcess broker;
    Opened opened;
};

} // namespace

TEST_F(StatusWithBroker, valuesAreSharedByAllProcesses)
{
    EXPECT_EQ(opened.post({{"door", "open"}, {"window", "T\xc3\xbcr \"1\"\n"}}), STATUS_OK);
    EXPECT_EQ(opened.sync(), STATUS_OK);
    RawRequester other;
    EXPECT_EQ(other.ask("{\"getClientInfoValue\":\"door\"}"), "{\"statusValue\":\"open\"}");
    EXPECT_EQ(opened.get("window"), "T\xc3\xbcr \"1\"\n");
    EXPECT_EQ(status_reset(opened, "door"), STATUS_OK);
    EXPECT_EQ(opened.get("door"), "");
    EXPECT_EQ(opened.resultOfGet("unknown"), STATUS_ENOENT);
}

TEST_F(StatusWithBroker, aSubscriptionTellsTheValueThatIsThereAndThenChangesOfOthers)
{
    EXPECT_EQ(status_post(opened, "door", "open"), STATUS_OK);
    ASSERT_EQ(opened.subscribe({"door"}), STATUS_OK);
    EXPECT_EQ(opened.take(), change("door", "open"));
    Taken item;
    do
    {
        item = opened.take(); // the own post may come again
    } while (item == change("door", "open"));
    EXPECT_EQ(item, synced());
    expectChangeOf("door", "shut");
}

TEST_F(StatusWithBroker, eventsAreTold)
{
    ASSERT_EQ(opened.subscribeEvents({"bell"}), STATUS_OK);
    // The process connects to the notifications in the background, and misses events from before.
    EXPECT_TRUE(eventually(
        [&]
        {
            status_post_event(opened, "bell", "rang", 0);
            return opened.isReadable(10);
        }));
    EXPECT_EQ(opened.take(), event("bell", "rang"));
}

TEST_F(StatusWithBroker, timersRun)
{
    EXPECT_EQ(status_timer_restart(opened, "work"), STATUS_OK);
    uint64_t elapsed = 0;
    uint64_t started = 0;
    EXPECT_TRUE(eventually(
        [&]
        {
            EXPECT_EQ(status_timer_elapsed(opened, "work", patienceMs, &elapsed), STATUS_OK);
            return elapsed >= 1000;
        }));
    EXPECT_EQ(status_timer_started(opened, "work", patienceMs, &started), STATUS_OK);
    EXPECT_GT(started, 1000000000000000U);
    EXPECT_EQ(status_timer_stop(opened, "work"), STATUS_OK);
    uint64_t stopped = 0;
    EXPECT_EQ(status_timer_elapsed(opened, "work", patienceMs, &stopped), STATUS_OK);
    EXPECT_GE(stopped, elapsed);
    EXPECT_EQ(status_timer_reset(opened, "work"), STATUS_OK);
    EXPECT_EQ(status_timer_elapsed(opened, "work", patienceMs, &elapsed), STATUS_OK);
    EXPECT_EQ(elapsed, 0U);
}

TEST_F(StatusWithBroker, countersCountForTheWholeDevice)
{
    uint32_t value = 0;
    EXPECT_EQ(status_counter_set(opened, "starts", 41), STATUS_OK);
    EXPECT_EQ(status_counter_increment(opened, "starts", patienceMs, &value), STATUS_OK);
    EXPECT_EQ(value, 42U);
    RawRequester other;
    EXPECT_EQ(other.ask("{\"incrementCounter\":\"starts\"}"), "43");
    EXPECT_EQ(status_counter_get(opened, "starts", patienceMs, &value), STATUS_OK);
    EXPECT_EQ(value, 43U);
}

TEST_F(StatusWithBroker, messagesNextToTheLengthThatIsRefusedArriveWhole)
{
    for (const std::size_t length : {511U, 513U, 1023U, 1025U, 5119U, 5121U})
    {
        const std::string value(length - 23, 'v'); // {"postStatus":{"k":""}}
        EXPECT_EQ(status_post(opened, "k", value.c_str()), STATUS_OK);
        EXPECT_EQ(opened.get("k"), value);
    }
}

TEST_F(StatusWithBroker, aBurstThatIsNotTakenEndsWithTheLatestValue)
{
    constexpr int posts = 3 * STATUS_QUEUED_MOST;
    ASSERT_EQ(opened.subscribe({"k"}), STATUS_OK);
    EXPECT_EQ(opened.take(), synced());
    expectChangeOf("k", "connected");
    for (int count = 1; count <= posts; ++count)
    {
        const std::string value = std::to_string(count);
        int result = STATUS_EFULL;
        while (result == STATUS_EFULL && (result = status_post(opened, "k", value.c_str())) == STATUS_EFULL)
            EXPECT_EQ(opened.sync(), STATUS_OK);
        ASSERT_EQ(result, STATUS_OK);
    }
    EXPECT_EQ(opened.sync(), STATUS_OK);
    int taken = 0;
    Taken item;
    while (item.value != std::to_string(posts))
    {
        item = opened.take();
        ASSERT_EQ(item.kind, STATUS_CHANGE);
        ++taken;
    }
    EXPECT_LE(taken, posts);
}

// While the broker takes no posts, its connection and libzmq hold some, and then posts are dropped.
TEST_F(StatusWithBroker, aSyncTellsThatPostsWereDropped)
{
    const LogCapture log;
    const Opened another;
    EXPECT_EQ(opened.sync(), STATUS_OK);
    ASSERT_EQ(::kill(broker.process().pid(), SIGSTOP), 0);
    const std::string value(8000, 'v');
    EXPECT_TRUE(eventually(
        [&]
        {
            for (int count = 0; count < 100; ++count)
                static_cast<void>(status_post(opened, "k", value.c_str()));
            return log.has(0, "StatusBroker does not take posts as fast as they are made, some are dropped "
                              "from now on");
        }));
    ASSERT_EQ(::kill(broker.process().pid(), SIGCONT), 0);
    EXPECT_EQ(opened.sync(), STATUS_ELOST);
    EXPECT_EQ(another.sync(), STATUS_ELOST);
    // The broker may have closed the connection, too.
    EXPECT_TRUE(eventually([&] { return opened.sync() == STATUS_OK; }));
    EXPECT_EQ(status_post(opened, "k", "again"), STATUS_OK);
    EXPECT_EQ(opened.get("k"), "again");
}

TEST(StatusAndRestart, workGoesOnWithTheNextBroker)
{
    auto broker = std::make_unique<BrokerProcess>();
    const Opened opened;
    EXPECT_EQ(status_post(opened, "door", "open"), STATUS_OK);
    EXPECT_EQ(opened.sync(), STATUS_OK);
    broker->kill();
    EXPECT_EQ(opened.resultOfGet("door", 50), STATUS_ETIMEOUT);
    EXPECT_EQ(opened.sync(50), STATUS_ETIMEOUT);
    broker = std::make_unique<BrokerProcess>();
    EXPECT_EQ(opened.resultOfGet("door"), STATUS_ENOENT); // this broker keeps no state
    EXPECT_EQ(opened.sync(), STATUS_ELOST);
    EXPECT_EQ(opened.sync(), STATUS_OK);
    EXPECT_EQ(status_post(opened, "door", "shut"), STATUS_OK);
    EXPECT_EQ(opened.get("door"), "shut");
}
