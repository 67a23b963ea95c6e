// The functions of status.h, with the fake instead of a broker.

#include <algorithm>
#include <atomic>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

#include "statusmanager/helpers/FakeStatusManager.h"
#include "tests/c/Opened.h"

namespace
{

class StatusTest : public testing::Test
{
protected:
    // A question that was under way at a close would still use the device.
    void TearDown() override { static_cast<void>(opened.sync()); }

    status::FakeStatusManager device;
    Opened opened;
};

} // namespace

TEST_F(StatusTest, postsReachTheManagerInOrder)
{
    EXPECT_EQ(status_post(opened, "door", "open"), STATUS_OK);
    EXPECT_EQ(opened.post({{"a", "1"}, {"b", "2"}}), STATUS_OK);
    EXPECT_EQ(status_reset(opened, "door"), STATUS_OK);
    const std::vector<StatusMap> posts{{{"door", "open"}}, {{"a", "1"}, {"b", "2"}}, {{"door", ""}}};
    EXPECT_EQ(device.posts(), posts);
}

TEST_F(StatusTest, theLastOfTwoEqualKeysCounts)
{
    const status_pair_t pairs[]{{"door", "open"}, {"door", "closed"}};
    EXPECT_EQ(status_post_many(opened, pairs, 2), STATUS_OK);
    EXPECT_EQ(device.posted(), (StatusMap{{"door", "closed"}}));
}

TEST_F(StatusTest, eventsReachTheManagerWhenTheyAreDue)
{
    EXPECT_EQ(status_post_event(opened, "later", "2", 20), STATUS_OK);
    EXPECT_EQ(status_post_event(opened, "bell", "1", 0), STATUS_OK);
    EXPECT_TRUE(eventually([&] { return device.events().size() == 2; }));
    EXPECT_EQ(device.events()[0].name, "bell");
    EXPECT_EQ(device.events()[1].name, "later");
    EXPECT_EQ(device.events()[1].value, "2");
}

TEST_F(StatusTest, aValueIsAskedFor)
{
    device.change({{"door", "open"}, {"reset", ""}});
    EXPECT_EQ(opened.get("door"), "open");
    EXPECT_EQ(opened.get("reset"), "");
    EXPECT_EQ(opened.resultOfGet("unknown"), STATUS_ENOENT);
}

TEST_F(StatusTest, severalValuesAreAskedFor)
{
    device.change({{"a", "1"}, {"b", ""}, {"c", "3"}});
    const char* const keys[]{"c", "unknown", "b"};
    status_values_t* values = nullptr;
    ASSERT_EQ(status_get_many(opened, keys, 3, patienceMs, &values), STATUS_OK);
    EXPECT_EQ(mapOf(*values), (StatusMap{{"b", ""}, {"c", "3"}}));
    EXPECT_STREQ(values->pairs[0].key, "b"); // sorted
    status_free(values);
}

TEST_F(StatusTest, allValuesAreAskedFor)
{
    status_values_t* values = nullptr;
    ASSERT_EQ(status_get_all(opened, patienceMs, &values), STATUS_OK);
    EXPECT_EQ(values->count, 0U);
    EXPECT_EQ(values->pairs, nullptr);
    status_free(values);
    device.change({{"a", "1"}, {"b", ""}});
    ASSERT_EQ(status_get_all(opened, patienceMs, &values), STATUS_OK);
    EXPECT_EQ(mapOf(*values), (StatusMap{{"a", "1"}, {"b", ""}}));
    status_free(values);
}

TEST_F(StatusTest, aQuestionSeesEarlierPosts)
{
    for (int count = 0; count < 100; ++count)
    {
        const std::string value = std::to_string(count);
        status_post(opened, "door", value.c_str());
        EXPECT_EQ(opened.get("door"), value);
    }
}

TEST_F(StatusTest, countersCount)
{
    uint32_t value = 1;
    EXPECT_EQ(status_counter_get(opened, "starts", patienceMs, &value), STATUS_OK);
    EXPECT_EQ(value, 0U);
    EXPECT_EQ(status_counter_set(opened, "starts", 4294967294U), STATUS_OK);
    EXPECT_EQ(status_counter_increment(opened, "starts", patienceMs, &value), STATUS_OK);
    EXPECT_EQ(value, 4294967295U);
    EXPECT_EQ(status_counter_increment(opened, "starts", patienceMs, nullptr), STATUS_OK);
    EXPECT_EQ(status_counter_get(opened, "starts", patienceMs, &value), STATUS_OK);
    EXPECT_EQ(value, 0U);
}

TEST_F(StatusTest, syncReturnsWhenThePostsHaveArrived)
{
    status_post(opened, "door", "open");
    EXPECT_EQ(opened.sync(), STATUS_OK);
}

TEST_F(StatusTest, withNoTimeNothingIsAsked)
{
    uint32_t value = 0;
    EXPECT_EQ(status_counter_increment(opened, "starts", 0, &value), STATUS_ETIMEOUT);
    EXPECT_EQ(opened.resultOfGet("door", 0), STATUS_ETIMEOUT);
    EXPECT_EQ(opened.sync(0), STATUS_ETIMEOUT);
    EXPECT_EQ(opened.sync(), STATUS_OK);
    EXPECT_EQ(device.getCounterValue("starts"), 0U);
}

TEST_F(StatusTest, aNegativeTimeOutIsNoLimit)
{
    EXPECT_EQ(opened.sync(-1), STATUS_OK);
    Opened another(-1);
    EXPECT_EQ(another.sync(-1000), STATUS_OK);
}

// --------------------------------------------------------------------------------------------- subscriptions

TEST_F(StatusTest, aSubscriptionBeginsWithTheValuesThereAre)
{
    device.change({{"a", "1"}, {"b", "2"}, {"other", "3"}});
    ASSERT_EQ(opened.subscribe({"a", "b", "unknown"}), STATUS_OK);
    EXPECT_EQ(opened.take(), change("a", "1"));
    EXPECT_EQ(opened.take(), change("b", "2"));
    EXPECT_EQ(opened.take(), synced());
    device.change({{"unknown", "4"}, {"other", "5"}});
    EXPECT_EQ(opened.take(), change("unknown", "4"));
    device.change("a", "");
    EXPECT_EQ(opened.take(), change("a", ""));
    EXPECT_FALSE(opened.isReadable());
    EXPECT_EQ(opened.takeNow(), Taken{});
}

TEST_F(StatusTest, aSubscriptionToUnknownKeysIsSyncedAtOnce)
{
    ASSERT_EQ(opened.subscribe({"a"}), STATUS_OK);
    EXPECT_EQ(opened.take(), synced());
}

TEST_F(StatusTest, aKeySubscribedAgainTellsItsValueAgain)
{
    device.change("a", "1");
    ASSERT_EQ(opened.subscribe({"a", "a"}), STATUS_OK);
    ASSERT_EQ(opened.subscribe({"a"}), STATUS_OK);
    EXPECT_EQ(opened.take(), change("a", "1"));
    EXPECT_EQ(opened.take(), synced());
    EXPECT_EQ(opened.take(), change("a", "1"));
    EXPECT_EQ(opened.take(), synced());
}

TEST_F(StatusTest, anEndedSubscriptionTellsNothingMore)
{
    ASSERT_EQ(opened.subscribe({"a", "b"}), STATUS_OK);
    EXPECT_EQ(opened.take(), synced());
    device.change({{"a", "1"}, {"b", "1"}});
    EXPECT_EQ(opened.unsubscribe({"a", "unknown"}), STATUS_OK);
    EXPECT_EQ(opened.take(), change("b", "1"));
    device.change({{"a", "2"}, {"b", "2"}});
    EXPECT_EQ(opened.take(), change("b", "2"));
    EXPECT_FALSE(opened.isReadable());
}

TEST_F(StatusTest, aSubscriptionThatEndsAtOnceIsStillSynced)
{
    device.change("a", "1");
    ASSERT_EQ(opened.subscribe({"a"}), STATUS_OK);
    ASSERT_EQ(opened.unsubscribe({"a"}), STATUS_OK);
    EXPECT_EQ(opened.take(), synced());
    device.change("a", "2");
    EXPECT_EQ(opened.sync(), STATUS_OK);
    EXPECT_FALSE(opened.isReadable());
}

TEST_F(StatusTest, eventsComeOnlyWhileTheyAreSubscribed)
{
    device.occur("bell", "0");
    ASSERT_EQ(opened.subscribeEvents({"bell", "horn", "bell"}), STATUS_OK);
    device.occur("bell", "1");
    device.occur("other", "2");
    device.occur("horn", "");
    EXPECT_EQ(opened.take(), event("bell", "1"));
    EXPECT_EQ(opened.take(), event("horn", ""));
    device.occur("bell", "3");
    EXPECT_EQ(opened.unsubscribeEvents({"bell"}), STATUS_OK);
    device.occur("bell", "4");
    EXPECT_FALSE(opened.isReadable());
    EXPECT_EQ(opened.takeNow(), Taken{});
}

TEST_F(StatusTest, eachOpenStatusHasItsOwnSubscriptions)
{
    const Opened another;
    ASSERT_EQ(opened.subscribe({"a"}), STATUS_OK);
    ASSERT_EQ(another.subscribe({"b"}), STATUS_OK);
    EXPECT_EQ(opened.take(), synced());
    EXPECT_EQ(another.take(), synced());
    device.change({{"a", "1"}, {"b", "2"}});
    EXPECT_EQ(opened.take(), change("a", "1"));
    EXPECT_EQ(another.take(), change("b", "2"));
    EXPECT_FALSE(opened.isReadable());
    EXPECT_FALSE(another.isReadable());
}

// -------------------------------------------------------------------------------- questions that do not wait

TEST_F(StatusTest, anAnswerBringsTheTagBack)
{
    device.change({{"a", "1"}, {"b", "2"}});
    const char* const keys[]{"a", "b", "c"};
    EXPECT_EQ(status_ask(opened, STATUS_ASK_VALUE, "a", 1), STATUS_OK);
    EXPECT_EQ(status_ask(opened, STATUS_ASK_VALUE, "c", 2), STATUS_OK);
    EXPECT_EQ(status_ask(opened, STATUS_ASK_ALL, nullptr, 3), STATUS_OK);
    EXPECT_EQ(status_ask_many(opened, keys, 3, 4), STATUS_OK);
    EXPECT_EQ(status_ask(opened, STATUS_ASK_INCREMENT, "starts", 5), STATUS_OK);
    EXPECT_EQ(status_ask(opened, STATUS_ASK_COUNTER, "starts", 6), STATUS_OK);
    EXPECT_EQ(status_ask(opened, STATUS_ASK_TIMER_ELAPSED, "work", 7), STATUS_OK);
    EXPECT_EQ(status_ask(opened, STATUS_ASK_TIMER_STARTED, "work", 8), STATUS_OK);
    EXPECT_EQ(status_ask(opened, STATUS_ASK_SYNC, nullptr, UINT64_MAX), STATUS_OK);
    const StatusMap all{{"a", "1"}, {"b", "2"}};
    EXPECT_EQ(opened.take(), (Taken{STATUS_ANSWER, 0, 1, 0, "a", "1", {}}));
    EXPECT_EQ(opened.take(), (Taken{STATUS_ANSWER, STATUS_ENOENT, 2, 0, "c", "", {}}));
    EXPECT_EQ(opened.take(), (Taken{STATUS_ANSWER, 0, 3, 0, "", "", all}));
    EXPECT_EQ(opened.take(), (Taken{STATUS_ANSWER, 0, 4, 0, "", "", all}));
    EXPECT_EQ(opened.take(), (Taken{STATUS_ANSWER, 0, 5, 1, "starts", "", {}}));
    EXPECT_EQ(opened.take(), (Taken{STATUS_ANSWER, 0, 6, 1, "starts", "", {}}));
    EXPECT_EQ(opened.take(), (Taken{STATUS_ANSWER, 0, 7, 0, "work", "", {}}));
    EXPECT_EQ(opened.take(), (Taken{STATUS_ANSWER, 0, 8, 0, "work", "", {}}));
    EXPECT_EQ(opened.take(), (Taken{STATUS_ANSWER, 0, UINT64_MAX, 0, "", "", {}}));
}

TEST_F(StatusTest, questionsAreLimitedUntilTheirAnswersAreTaken)
{
    for (int count = 0; count < STATUS_ASKED_MOST; ++count)
        ASSERT_EQ(status_ask(opened, STATUS_ASK_COUNTER, "starts", 0), STATUS_OK);
    EXPECT_EQ(status_ask(opened, STATUS_ASK_COUNTER, "starts", 0), STATUS_EFULL);
    EXPECT_EQ(opened.subscribe({"a"}), STATUS_EFULL);
    EXPECT_EQ(opened.take().kind, STATUS_ANSWER);
    EXPECT_EQ(status_ask(opened, STATUS_ASK_COUNTER, "starts", 0), STATUS_OK);
}

TEST_F(StatusTest, answersThatAreNotTakenComeWithoutValuesBeyondTheirLimit)
{
    const std::string value(STATUS_VALUE_BYTES, 'v');
    StatusMap values;
    for (int key = 0; key < 100; ++key)
        values[std::to_string(key)] = value; // 6.5 MB
    device.change(values);
    EXPECT_EQ(status_ask(opened, STATUS_ASK_ALL, nullptr, 1), STATUS_OK);
    EXPECT_EQ(status_ask(opened, STATUS_ASK_ALL, nullptr, 2), STATUS_OK);
    EXPECT_EQ(opened.sync(), STATUS_OK); // both are answered
    EXPECT_EQ(opened.take().values.size(), 100U);
    EXPECT_EQ(opened.take(), (Taken{STATUS_ANSWER, STATUS_EFULL, 2, 0, "", "", {}}));
    EXPECT_EQ(status_ask(opened, STATUS_ASK_ALL, nullptr, 3), STATUS_OK);
    EXPECT_EQ(opened.take().values.size(), 100U);
}

// ------------------------------------------------------------------------------------------------ unanswered

TEST_F(StatusTest, aManagerThatCanAskNoMoreIsUnusable)
{
    device.failSync();
    EXPECT_EQ(opened.sync(), STATUS_EUNUSABLE);
    EXPECT_EQ(opened.resultOfGet("unknown"), STATUS_EUNUSABLE);
    uint32_t value = 7;
    EXPECT_EQ(status_counter_get(opened, "starts", patienceMs, &value), STATUS_EUNUSABLE);
    EXPECT_EQ(value, 7U);
    EXPECT_EQ(opened.subscribe({"a"}), STATUS_OK);
    EXPECT_EQ(opened.take(), synced(STATUS_EUNUSABLE));
    EXPECT_EQ(status_ask(opened, STATUS_ASK_ALL, nullptr, 1), STATUS_OK);
    EXPECT_EQ(opened.take().result, STATUS_EUNUSABLE);
    EXPECT_EQ(status_post(opened, "door", "open"), STATUS_OK);
}

// --------------------------------------------------------------------------------------------------- threads

TEST_F(StatusTest, threadsMayShareAStatus)
{
    constexpr unsigned threads = 4;
    constexpr unsigned rounds = 200;
    std::vector<std::thread> all;
    all.reserve(threads);
    for (unsigned thread = 0; thread < threads; ++thread)
    {
        all.emplace_back(
            [&, thread]
            {
                const std::string key = "key" + std::to_string(thread);
                for (unsigned round = 0; round < rounds; ++round)
                {
                    const std::string value = std::to_string(round);
                    EXPECT_EQ(opened.subscribe({key.c_str()}), STATUS_OK);
                    EXPECT_EQ(status_post(opened, key.c_str(), value.c_str()), STATUS_OK);
                    EXPECT_EQ(opened.get(key.c_str()), value);
                    EXPECT_EQ(status_counter_increment(opened, "starts", patienceMs, nullptr), STATUS_OK);
                    EXPECT_EQ(opened.unsubscribe({key.c_str()}), STATUS_OK);
                    while (opened.takeNow().kind != 0)
                        continue;
                }
            });
    }
    for (std::thread& thread : all)
        thread.join();
    EXPECT_EQ(device.getCounterValue("starts"), threads * rounds);
}

// There is room for one call only. So a call that fails has begun to subscribe to the same event as another
// one that succeeds meanwhile.
TEST_F(StatusTest, aSubscriptionThatFailsTakesNothingFromAnotherThreads)
{
    constexpr uint32_t hour = 3600000;
    for (int count = 2; count < STATUS_PENDING_MOST; ++count) // the open status counts, too
        ASSERT_EQ(status_post_event(opened, "later", "", hour), STATUS_OK);
    std::vector<std::string> texts{"bell"};
    for (int count = 0; count < 2000; ++count)
        texts.push_back("event" + std::to_string(count));
    std::vector<const char*> names;
    for (const std::string& text : texts)
        names.push_back(text.c_str());
    for (int round = 0; round < 300; ++round)
    {
        std::atomic<bool> hasBegun{false};
        int result = STATUS_EFULL;
        std::thread other(
            [&]
            {
                hasBegun = true;
                result = opened.subscribeEvents(names);
            });
        while (!hasBegun)
            continue;
        for (int step = round % 100; step > 0; --step) // another moment of the other call in each round
            status_strerror(status_post(opened, nullptr, nullptr));
        const int ownResult = opened.subscribeEvents({"bell"});
        other.join();
        device.occur("bell");
        const bool isSubscribed = result == STATUS_OK || ownResult == STATUS_OK;
        ASSERT_EQ(opened.takeNow().kind, isSubscribed ? static_cast<int>(STATUS_EVENT) : 0);
        EXPECT_TRUE(eventually([&] { return opened.unsubscribeEvents(names) == STATUS_OK; }));
    }
}

// ----------------------------------------------------------------------------------------------------- texts

TEST(StatusResults, haveTexts)
{
    EXPECT_STREQ(status_strerror(STATUS_OK), "success");
    EXPECT_STREQ(status_strerror(1), "success");
    std::vector<std::string> texts;
    for (int result = 0; result >= STATUS_ESYSTEM; --result)
        texts.emplace_back(status_strerror(result));
    std::sort(texts.begin(), texts.end());
    EXPECT_EQ(std::unique(texts.begin(), texts.end()), texts.end());
    EXPECT_EQ(std::count(texts.begin(), texts.end(), "unknown result"), 0);
    EXPECT_STREQ(status_strerror(STATUS_ESYSTEM - 1), "unknown result");
}
