#include <chrono>

#include "tests/proxy/OperationsFixture.h"
#include "tests/support/RecordingListener.h"

namespace
{

using Clock = std::chrono::steady_clock;

// ------------------------------------------------------------------------------------ posts, byte for byte

TEST_F(Operations, updateSystemTimePostsTheTimeAsANumber)
{
    client->updateSystemTime(1700000000);
    EXPECT_EQ(onePost(), (std::vector<Frames>{{R"({"updateSystemTime":1700000000})"}}));
}

TEST_F(Operations, updateSystemTimeIsUnsigned)
{
    client->updateSystemTime(4294967295U);
    EXPECT_EQ(onePost(), (std::vector<Frames>{{R"({"updateSystemTime":4294967295})"}}));
}

TEST_F(Operations, postStatusPostsAllPairsInOrderOfTheirKeys)
{
    client->postStatus(StatusMap{{"b", "2"}, {"a", "1"}});
    EXPECT_EQ(onePost(), (std::vector<Frames>{{R"({"postStatus":{"a":"1","b":"2"}})"}}));
}

TEST_F(Operations, postStatusOfAnEmptyMapPostsAnEmptyObject)
{
    client->postStatus(StatusMap{});
    EXPECT_EQ(onePost(), (std::vector<Frames>{{R"({"postStatus":{}})"}}));
}

TEST_F(Operations, postStatusOfOnePairReachesTheBroker)
{
    client->postStatus("key", "value");
    EXPECT_EQ(onePost(), (std::vector<Frames>{{R"({"postStatus":{"key":"value"}})"}}));
}

TEST_F(Operations, postStatusOfOnePairReachesTheBrokerFromTheManagersThread)
{
    client->onManagerThread([&] { client->postStatus("key", "value"); });
    EXPECT_EQ(onePost(), (std::vector<Frames>{{R"({"postStatus":{"key":"value"}})"}}));
}

TEST_F(Operations, postedTextIsEscaped)
{
    client->postStatus("k\"", "a\\\n\xc3\xa9");
    EXPECT_EQ(onePost(), (std::vector<Frames>{{R"({"postStatus":{"k\"":"a\\\n\u00e9"}})"}}));
}

TEST_F(Operations, longPostIsCutIntoFrames)
{
    client->postStatus("k", std::string(700, 'v'));
    const std::string text = R"({"postStatus":{"k":")" + std::string(700, 'v') + R"("}})";
    EXPECT_EQ(onePost(), (std::vector<Frames>{cut(text)}));
}

TEST_F(Operations, resetStatusPostsTheKeysInTheirOrder)
{
    client->resetStatus(StatusKeys{"b", "a"});
    EXPECT_EQ(onePost(), (std::vector<Frames>{{R"({"resetStatus":["b","a"]})"}}));
    EXPECT_EQ(log.count(7, "Key[0] = [b]"), 1U);
    EXPECT_EQ(log.count(7, "Key[1] = [a]"), 1U);
}

TEST_F(Operations, resetStatusOfNoKeysPostsAnEmptyArray)
{
    client->resetStatus(StatusKeys{});
    EXPECT_EQ(onePost(), (std::vector<Frames>{{R"({"resetStatus":[]})"}}));
}

TEST_F(Operations, resetStatusOfOneKeyReachesTheBroker)
{
    client->resetStatus("key");
    EXPECT_EQ(onePost(), (std::vector<Frames>{{R"({"resetStatus":["key"]})"}}));
}

TEST_F(Operations, postEventPostsNameAndValue)
{
    client->postEvent("e", "v", 0);
    EXPECT_EQ(onePost(), (std::vector<Frames>{{R"({"postEvent":{"e":"v"}})"}}));
}

TEST_F(Operations, startTimerPostsTheName)
{
    client->startTimer("boot");
    EXPECT_EQ(onePost(), (std::vector<Frames>{{R"({"startTimer":"boot"})"}}));
}

TEST_F(Operations, stopTimerPostsTheName)
{
    client->stopTimer("boot");
    EXPECT_EQ(onePost(), (std::vector<Frames>{{R"({"stopTimer":"boot"})"}}));
}

TEST_F(Operations, resetTimerPostsTheName)
{
    client->resetTimer("boot");
    EXPECT_EQ(onePost(), (std::vector<Frames>{{R"({"resetTimer":"boot"})"}}));
}

TEST_F(Operations, restartTimerPostsTheName)
{
    client->restartTimer("boot");
    EXPECT_EQ(onePost(), (std::vector<Frames>{{R"({"restartTimer":"boot"})"}}));
}

TEST_F(Operations, emptyTimerNameIsPosted)
{
    client->startTimer("");
    EXPECT_EQ(onePost(), (std::vector<Frames>{{R"({"startTimer":""})"}}));
}

TEST_F(Operations, setCounterValuePostsAnUnsignedNumber)
{
    client->setCounterValue("c", 4294967295U);
    EXPECT_EQ(onePost(), (std::vector<Frames>{{R"({"setCounterValue":{"c":4294967295}})"}}));
}

TEST_F(Operations, postsLeaveInTheOrderOfTheirCalls)
{
    std::vector<Frames> expected;
    for (int i = 0; i < 300; ++i)
    {
        client->startTimer(std::to_string(i));
        expected.push_back({R"({"startTimer":")" + std::to_string(i) + R"("})"});
    }
    ASSERT_TRUE(broker.waitForPosts(300));
    EXPECT_EQ(broker.posts(), expected);
}

TEST_F(Operations, postsAreNotKeptLocally)
{
    client->postStatus("k", "v");
    client->setCounterValue("c", 5);
    EXPECT_EQ(client->getClientInfo(), StatusMap{});
    answer("0");
    EXPECT_EQ(client->getCounterValue("c"), 0U);
}

// ---------------------------------------------------------------------------------- queries, byte for byte

TEST_F(Operations, getClientInfoAsksWithTheStringNull)
{
    client->getClientInfo();
    EXPECT_EQ(lastRequest(), R"({"getClientInfo":"null"})");
}

TEST_F(Operations, getClientInfoReturnsAllMembers)
{
    answer(R"({"b":"2","a":"1"})");
    EXPECT_EQ(client->getClientInfo(), (StatusMap{{"a", "1"}, {"b", "2"}}));
}

TEST_F(Operations, getClientInfoReadsAReplyOfManyFrames)
{
    const std::string value(5000, 'v');
    answer(R"({"a":")" + value + R"("})");
    EXPECT_EQ(client->getClientInfo(), (StatusMap{{"a", value}}));
}

TEST_F(Operations, getClientInfoValueAsksForTheKey)
{
    client->getClientInfoValue("k");
    EXPECT_EQ(lastRequest(), R"({"getClientInfoValue":"k"})");
}

TEST_F(Operations, getClientInfoValueReturnsMemberStatusValue)
{
    answer(R"({"other":"x","statusValue":"v"})");
    EXPECT_EQ(client->getClientInfoValue("k"), "v");
    EXPECT_EQ(log.count(7, "Status value for status key[k] requested"), 1U);
    EXPECT_EQ(log.count(7, "Received requested status value, status[k] = value[v]"), 1U);
}

TEST_F(Operations, getClientInfoValueIsEmptyForAMissingMember)
{
    answer(R"({"k":"v"})");
    EXPECT_EQ(client->getClientInfoValue("k"), "");
    EXPECT_EQ(log.texts(2), Texts{});
}

TEST_F(Operations, getClientInfoValuesAsksForTheKeysInTheirOrder)
{
    client->getClientInfoValues(StatusKeys{"b", "a"});
    EXPECT_EQ(lastRequest(), R"({"getClientInfoValues":["b","a"]})");
    EXPECT_EQ(log.count(7, "Status value for 2 status keys requested"), 1U);
    EXPECT_EQ(log.count(7, "Key[0] = [b]"), 1U);
    EXPECT_EQ(log.count(7, "Key[1] = [a]"), 1U);
}

TEST_F(Operations, getClientInfoValuesAsksEvenForNoKeys)
{
    client->getClientInfoValues(StatusKeys{});
    EXPECT_EQ(lastRequest(), R"({"getClientInfoValues":[]})");
}

TEST_F(Operations, getClientInfoValuesReturnsAllMembersWhateverWasAsked)
{
    answer(R"({"z":"26","a":"1"})");
    EXPECT_EQ(client->getClientInfoValues(StatusKeys{"q", "r", "s"}), (StatusMap{{"a", "1"}, {"z", "26"}}));
    EXPECT_EQ(log.count(7, "Received requested status value pairs for 2 status keys"), 1U);
    EXPECT_EQ(log.count(7, "Pair[0]: Key[a] = [1]"), 1U);
    EXPECT_EQ(log.count(7, "Pair[1]: Key[z] = [26]"), 1U);
}

TEST_F(Operations, valuesInRepliesAreConvertedToStrings)
{
    answer(R"({"a":1,"b":true,"c":null,"d":1.5})");
    EXPECT_EQ(client->getClientInfo(), (StatusMap{{"a", "1"}, {"b", "true"}, {"c", ""}, {"d", "1.5"}}));
}

TEST_F(Operations, getTimerElapsedAsksForTheName)
{
    client->getTimerElapsed("boot");
    EXPECT_EQ(lastRequest(), R"({"getTimerElapsed":"boot"})");
}

TEST_F(Operations, getTimerElapsedReadsMoreThan32Bits)
{
    answer("5000000000");
    EXPECT_EQ(client->getTimerElapsed("boot"), 5000000000U);
}

TEST_F(Operations, getTimerElapsedSecondsAsksForTheElapsedTime)
{
    client->getTimerElapsedSeconds("boot");
    EXPECT_EQ(lastRequest(), R"({"getTimerElapsed":"boot"})");
}

TEST_F(Operations, getTimerElapsedSecondsRoundsDown)
{
    answer("2999999");
    EXPECT_EQ(client->getTimerElapsedSeconds("boot"), 2U);
}

TEST_F(Operations, getTimerElapsedSecondsCountsAFullSecond)
{
    answer("3000000");
    EXPECT_EQ(client->getTimerElapsedSeconds("boot"), 3U);
}

TEST_F(Operations, getTimerLastStartedAsksAndReads)
{
    answer("1700000000123456");
    EXPECT_EQ(client->getTimerLastStarted("boot"), 1700000000123456U);
    EXPECT_EQ(lastRequest(), R"({"getTimerLastStarted":"boot"})");
}

TEST_F(Operations, getCounterValueAsksAndReads)
{
    answer("42");
    EXPECT_EQ(client->getCounterValue("c"), 42U);
    EXPECT_EQ(lastRequest(), R"({"getCounterValue":"c"})");
}

TEST_F(Operations, incrementCounterReturnsTheBrokersValue)
{
    answer("43");
    EXPECT_EQ(client->incrementCounter("c"), 43U);
    EXPECT_EQ(lastRequest(), R"({"incrementCounter":"c"})");
}

// Above 2147483647 a counter's value is what atoi() makes of it.
TEST_F(Operations, counterAbove31BitsIsReadAsAtoiDoes)
{
    for (const char* text : {"2147483647", "2147483648", "4294967295"})
    {
        answer(text);
        EXPECT_EQ(client->getCounterValue("c"), static_cast<uint32_t>(atoi(text))) << text;
    }
}

TEST_F(Operations, syncAsksWithTheBareWord)
{
    EXPECT_TRUE(client->sync(-1));
    EXPECT_EQ(broker.requests().back(), Frames{"Sync"});
    EXPECT_EQ(log.count(6, "Sending Sync on request socket and waiting for response"), 1U);
    EXPECT_EQ(log.count(6, "Received response [SyncAck] to Sync request"), 1U);
    EXPECT_EQ(log.count(7, "Successfully received SyncAck from StatusBroker"), 1U);
}

// ------------------------------------------------------------------------------------------ delayed events

TEST_F(Operations, eventFromAnotherThreadIsPostedWhenItsDelayHasPassed)
{
    const auto start = Clock::now();
    client->postEvent("a", "1", 500);
    ASSERT_TRUE(broker.waitForPost(R"({"postEvent":{"a":"1"}})"));
    EXPECT_GE(broker.lastPostTime() - start, std::chrono::milliseconds(500));
}

TEST_F(Operations, delayOfAnEventIsIgnoredOnTheManagersThread)
{
    client->onManagerThread(
        [&]
        {
            client->postEvent("a", "1", 3600000);
            EXPECT_TRUE(log.has(6, R"(Sending post message [{"postEvent":{"a":"1"}}])"));
        });
    EXPECT_TRUE(broker.waitForPost(R"({"postEvent":{"a":"1"}})"));
}

TEST_F(Operations, delayedEventIsOvertakenByLaterPosts)
{
    client->postEvent("late", "1", 50);
    client->postEvent("early", "2", 0);
    ASSERT_TRUE(broker.waitForPosts(2));
    EXPECT_EQ(broker.posts(),
              (std::vector<Frames>{{R"({"postEvent":{"early":"2"}})"}, {R"({"postEvent":{"late":"1"}})"}}));
}

TEST_F(Operations, delayedEventsDoNotOutliveTheirClient)
{
    client->postEvent("late", "1", 3600000);
    client.destroy();
    EXPECT_EQ(broker.posts(), std::vector<Frames>{});
}

// ----------------------------------------------------------------------------------------------- listeners

TEST_F(Operations, firstCallbackHoldsTheBrokersValues)
{
    answer(R"({"a":"1","b":"2"})");
    RecordingListener listener;
    Orvane::EventThread thread("listener", 0);
    client->registerListener(&listener, &thread);
    client->registerForStatus(&listener, "a");
    ASSERT_TRUE(listener.waitForUpdates(1));
    EXPECT_EQ(listener.updates(), (std::vector<StatusMap>{{{"a", "1"}}}));
    client->unregisterListener(&listener);
}

} // namespace
