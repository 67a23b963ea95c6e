// The functions of status.h with a broker that is silent, late, or not there.

#include <atomic>
#include <chrono>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <thread>
#include <utility>

#include "common/TrackedNew.h"
#include "statusmanager/StatusManager.h"
#include "tests/c/Opened.h"
#include "tests/support/LogCapture.h"
#include "tests/support/OwnProcess.h"
#include "tests/support/ScriptedBroker.h"

namespace
{

using namespace std::chrono_literals;
using Frames = ScriptedBroker::Frames;

constexpr int shortMs = 30;

// The number of agents and other tracked objects that exist.
unsigned liveTracked()
{
    unsigned count = 0;
    for (const auto* site = Orvane::AllocationSite::first(); site != nullptr; site = site->next())
        count += site->live();
    return count;
}

class SilentBroker : public testing::Test
{
protected:
    // The broker's answer to each request for values.
    void answerWithDoor(const std::string& value)
    {
        broker.answerWith([value](const std::string& request)
                          { return Frames{request == "Sync" ? "SyncAck" : "{\"door\":\"" + value + "\"}"}; });
    }

    // From now on, the first answers to a "Sync" are "SyncLost".
    void losePosts(int times = 1)
    {
        const auto left = std::make_shared<std::atomic<int>>(times);
        broker.answerWith(
            [left](const std::string& request)
            {
                if (request != "Sync")
                    return Frames{"{}"};
                return Frames{(*left)-- > 0 ? "SyncLost" : "SyncAck"};
            });
    }

    // Calls a question, which must time out, until one is under way: a slow machine may not get that far in
    // time.
    template <class Question>
    void leaveUnderWay(Question question)
    {
        broker.keepSilent();
        const std::size_t before = broker.requests().size();
        EXPECT_TRUE(eventually(
            [&]
            {
                EXPECT_EQ(question(), STATUS_ETIMEOUT);
                return broker.requests().size() != before;
            }));
    }

    // A question that is under way until the broker replies.
    void leaveQuestionUnderWay()
    {
        leaveUnderWay([this] { return opened.resultOfGet("door", shortMs); });
    }

    LogCapture log;
    ScriptedBroker broker;
    Opened opened;
};

} // namespace

TEST_F(SilentBroker, aQuestionTimesOutAndItsLateAnswerIsDropped)
{
    leaveQuestionUnderWay();
    answerWithDoor("new");
    broker.reply({"{\"door\":\"late\"}"});
    EXPECT_EQ(opened.get("door"), "new");
}

TEST_F(SilentBroker, aQuestionWhoseTurnDoesNotComeIsNeverAsked)
{
    leaveQuestionUnderWay();
    const std::size_t before = broker.requests().size();
    EXPECT_EQ(status_counter_increment(opened, "starts", shortMs, nullptr), STATUS_ETIMEOUT);
    EXPECT_EQ(opened.sync(shortMs), STATUS_ETIMEOUT);
    answerWithDoor("new");
    broker.reply({"{}"});
    EXPECT_EQ(opened.get("door"), "new");
    for (std::size_t at = before; at < broker.requests().size(); ++at)
        EXPECT_EQ(broker.requests()[at].front().find("incrementCounter"), std::string::npos);
}

TEST_F(SilentBroker, questionsThatTimeOutLeaveNothingBehind)
{
    leaveQuestionUnderWay();
    const unsigned objects = liveTracked();
    for (int count = 0; count < 200; ++count)
        EXPECT_EQ(opened.resultOfGet("door", 1), STATUS_ETIMEOUT);
    EXPECT_EQ(liveTracked(), objects);
    answerWithDoor("new");
    broker.reply({"{}"});
    EXPECT_EQ(opened.get("door"), "new");
}

TEST_F(SilentBroker, aSyncThatTimesOutBreaksNothing)
{
    leaveUnderWay([this] { return opened.sync(shortMs); });
    answerWithDoor("new");
    broker.reply({"SyncAck"});
    EXPECT_EQ(opened.sync(), STATUS_OK);
    EXPECT_EQ(opened.get("door"), "new");
}

TEST_F(SilentBroker, anAnswerComesWheneverTheBrokerGivesIt)
{
    broker.keepSilent();
    const std::size_t before = broker.requests().size();
    EXPECT_EQ(status_ask(opened, STATUS_ASK_VALUE, "door", 7), STATUS_OK);
    EXPECT_TRUE(broker.waitForRequests(before + 1));
    EXPECT_EQ(opened.resultOfGet("door", shortMs), STATUS_ETIMEOUT); // its turn does not come
    EXPECT_FALSE(opened.isReadable());
    answerWithDoor("new");
    broker.reply({"{\"door\":\"open\"}"});
    EXPECT_EQ(opened.take(), (Taken{STATUS_ANSWER, 0, 7, 0, "door", "open", {}}));
}

TEST_F(SilentBroker, nothingElseWaitsForIt)
{
    leaveQuestionUnderWay();
    EXPECT_EQ(opened.subscribe({"door"}), STATUS_OK);
    EXPECT_EQ(opened.subscribeEvents({"bell"}), STATUS_OK);
    EXPECT_EQ(opened.unsubscribeEvents({"bell"}), STATUS_OK);
    EXPECT_EQ(status_post(opened, "k", "v"), STATUS_OK);
    EXPECT_EQ(opened.takeNow(), Taken{});
    {
        const Opened another;
        EXPECT_EQ(status_post(another, "k", "v"), STATUS_OK);
    }
    answerWithDoor("open");
    broker.reply({"{}"});
    EXPECT_EQ(opened.take(), change("door", "open"));
    EXPECT_EQ(opened.take(), synced());
    EXPECT_TRUE(broker.waitForPosts(2));
}

TEST_F(SilentBroker, postsThatCannotBeSentAreLimited)
{
    const Opened another;
    leaveQuestionUnderWay();
    int posts = 0;
    int result = STATUS_OK;
    while ((result = status_post(opened, "k", "v")) == STATUS_OK && posts <= STATUS_PENDING_MOST)
        ++posts;
    EXPECT_EQ(result, STATUS_EFULL);
    EXPECT_EQ(posts, STATUS_PENDING_MOST - 2); // the open ones count, too
    EXPECT_EQ(status_post_event(another, "bell", "", 1000), STATUS_EFULL);
    answerWithDoor("open");
    broker.reply({"{}"});
    EXPECT_EQ(opened.sync(), STATUS_OK);
    EXPECT_EQ(status_post(another, "k", "v"), STATUS_OK);
}

TEST_F(SilentBroker, postsThatCannotBeSentAreLimitedInBytes)
{
    leaveQuestionUnderWay();
    const std::string value(STATUS_VALUE_BYTES, 'v');
    int posts = 0;
    while (status_post(opened, "k", value.c_str()) == STATUS_OK && posts <= 1000)
        ++posts;
    EXPECT_EQ(posts, STATUS_PENDING_BYTES / (STATUS_VALUE_BYTES + 23));
    answerWithDoor("open");
    broker.reply({"{}"});
    EXPECT_EQ(opened.sync(), STATUS_OK);
}

TEST_F(SilentBroker, subscriptionsThatCannotBeMadeAreLimited)
{
    leaveQuestionUnderWay();
    int calls = 0;
    while (opened.unsubscribeEvents({"bell"}) == STATUS_OK && calls <= STATUS_PENDING_MOST)
        ++calls;
    EXPECT_EQ(calls, STATUS_PENDING_MOST - 1); // the open status counts, too
    EXPECT_EQ(opened.unsubscribe({"door"}), STATUS_EFULL);
    EXPECT_EQ(opened.subscribeEvents({"bell"}), STATUS_EFULL);
    status_t* another = nullptr;
    EXPECT_EQ(status_open(patienceMs, &another), STATUS_EFULL);
    answerWithDoor("open");
    broker.reply({"{}"});
    EXPECT_EQ(opened.sync(), STATUS_OK);
    EXPECT_EQ(opened.subscribeEvents({"bell"}), STATUS_OK);
}

TEST_F(SilentBroker, aClosedStatusLeavesNoQuestionBehind)
{
    leaveQuestionUnderWay();
    const auto askAndClose = []
    {
        const Opened another;
        for (int count = 0; count < 10; ++count)
            EXPECT_EQ(status_ask(another, STATUS_ASK_ALL, nullptr, 0), STATUS_OK);
    };
    askAndClose();
    const unsigned objects = liveTracked();
    askAndClose();
    EXPECT_EQ(liveTracked(), objects + 1); // only the end of its listener's registration waits
    answerWithDoor("new");
    broker.reply({"{}"});
    EXPECT_EQ(opened.get("door"), "new");
}

TEST_F(SilentBroker, aQuestionUnderWayEndsWhenItsStatusIsClosed)
{
    broker.keepSilent();
    status_t* status = nullptr;
    ASSERT_EQ(status_open(patienceMs, &status), STATUS_OK);
    const std::size_t before = broker.requests().size();
    std::thread asker([&] { EXPECT_EQ(status_sync(status, -1), STATUS_ECLOSED); });
    EXPECT_TRUE(broker.waitForRequests(before + 1));
    EXPECT_EQ(status_close(status), STATUS_OK);
    asker.join();
    broker.answerWith(Frames{"SyncAck"});
    broker.reply({"SyncAck"});
    EXPECT_EQ(opened.sync(), STATUS_OK);
}

TEST_F(SilentBroker, aManagerWhoseRequestChannelIsBrokenIsUnusable)
{
    broker.keepSilent();
    EXPECT_FALSE(StatusManager::getInstance(false)->sync(shortMs)); // other code of the process
    EXPECT_EQ(opened.sync(), STATUS_EUNUSABLE);
    EXPECT_EQ(opened.resultOfGet("door"), STATUS_EUNUSABLE);
    EXPECT_EQ(status_counter_increment(opened, "starts", patienceMs, nullptr), STATUS_EUNUSABLE);
    EXPECT_EQ(opened.subscribe({"door"}), STATUS_OK);
    EXPECT_EQ(opened.take(), synced(STATUS_EUNUSABLE));
    EXPECT_EQ(status_post(opened, "k", "v"), STATUS_OK);
    EXPECT_TRUE(broker.waitForPost("{\"postStatus\":{\"k\":\"v\"}}"));
}

TEST_F(SilentBroker, lostPostsAreToldToEachStatusOnce)
{
    const Opened another;
    losePosts();
    EXPECT_EQ(opened.sync(), STATUS_ELOST);
    EXPECT_EQ(another.sync(), STATUS_ELOST);
    EXPECT_EQ(opened.sync(), STATUS_OK);
    EXPECT_EQ(another.sync(), STATUS_OK);
    const Opened later;
    EXPECT_EQ(later.sync(), STATUS_OK);
}

// As several brokers answer that end soon after each other.
TEST_F(SilentBroker, postsMayBeLostSeveralTimesInARow)
{
    losePosts(4);
    EXPECT_EQ(opened.sync(), STATUS_ELOST);
    EXPECT_EQ(opened.sync(), STATUS_OK);
}

// Such a question asks for a "Sync" as well, to confirm that nothing is there.
TEST_F(SilentBroker, lostPostsAreToldAlsoAfterAQuestionAboutNothing)
{
    losePosts();
    EXPECT_EQ(opened.resultOfGet("unknown"), STATUS_ENOENT);
    EXPECT_EQ(status_ask(opened, STATUS_ASK_SYNC, nullptr, 1), STATUS_OK);
    EXPECT_EQ(opened.take().result, STATUS_ELOST);
    EXPECT_EQ(opened.sync(), STATUS_OK);
}

// ------------------------------------------------------------------------------------------------- no broker

namespace
{

using NoBroker = OwnProcess;

void opensOnceABrokerIsThere()
{
    status_t* status = nullptr;
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(status_open(shortMs, &status), STATUS_ETIMEOUT);
    EXPECT_EQ(status_open(0, &status), STATUS_ETIMEOUT);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, testDeadline);
    EXPECT_EQ(status, nullptr);
    const ScriptedBroker broker;
    const Opened opened;
    EXPECT_EQ(opened.sync(), STATUS_OK);
}

void endsWhileItWaits()
{
    status_t* status = nullptr;
    EXPECT_EQ(status_open(shortMs, &status), STATUS_ETIMEOUT);
}

void endsWhileAQuestionIsUnderWay()
{
    auto& broker = *new ScriptedBroker; // outlives main()
    status_t* status = nullptr;
    EXPECT_EQ(status_open(patienceMs, &status), STATUS_OK);
    broker.keepSilent();
    EXPECT_EQ(status_sync(status, shortMs), STATUS_ETIMEOUT);
    EXPECT_EQ(status_ask(status, STATUS_ASK_ALL, nullptr, 0), STATUS_OK);
}

} // namespace

TEST_F(NoBroker, aStatusOpensOnceABrokerIsThere)
{
    EXPECT_IN_OWN_PROCESS(opensOnceABrokerIsThere());
}

TEST_F(NoBroker, aProcessMayEndWhileItConnects)
{
    EXPECT_IN_OWN_PROCESS(endsWhileItWaits());
}

TEST_F(NoBroker, aProcessMayEndWhileAQuestionIsUnderWay)
{
    EXPECT_IN_OWN_PROCESS(endsWhileAQuestionIsUnderWay());
}
