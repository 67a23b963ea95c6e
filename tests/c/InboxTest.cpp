// The bounded queue. White box: uses a class that is not exported.

#include <gtest/gtest.h>
#include <poll.h>
#include <string>
#include <vector>

#include "c/Failure.h"
#include "c/Inbox.h"

using StatusC::Inbox;
using StatusC::Item;
using StatusC::Items;

namespace
{

class InboxTest : public testing::Test
{
protected:
    void subscribe(const StatusKeys& keys) { EXPECT_EQ(inbox.open(inbox.subscribe(keys), keys), keys); }

    bool isReadable()
    {
        pollfd descriptor{inbox.descriptor(), POLLIN, 0};
        return poll(&descriptor, 1, 0) == 1;
    }

    // "key=value", or "" if there is nothing.
    std::string take()
    {
        Items taken;
        if (!inbox.take(taken))
            return {};
        return taken.front().key + "=" + taken.front().value;
    }

    // Fills the queue with changes of key "fill".
    void fill()
    {
        subscribe({"fill"});
        for (int count = 0; count < STATUS_QUEUED_MOST; ++count)
            inbox.pushChange("fill", std::to_string(count));
    }

    std::size_t takeAll()
    {
        std::size_t count = 0;
        while (!take().empty())
            ++count;
        return count;
    }

    Inbox inbox;
};

} // namespace

TEST_F(InboxTest, keepsEachChangeWhileThereIsRoom)
{
    subscribe({"a"});
    inbox.pushChange("a", "1");
    inbox.pushChange("a", "1");
    inbox.pushChange("a", "2");
    EXPECT_EQ(take(), "a=1");
    EXPECT_EQ(take(), "a=1");
    EXPECT_EQ(take(), "a=2");
    EXPECT_EQ(take(), "");
}

TEST_F(InboxTest, isReadableExactlyWhileItHasSomething)
{
    subscribe({"a"});
    EXPECT_FALSE(isReadable());
    inbox.pushChange("a", "1");
    inbox.pushChange("a", "2");
    EXPECT_TRUE(isReadable());
    take();
    EXPECT_TRUE(isReadable());
    take();
    EXPECT_FALSE(isReadable());
    inbox.pushChange("a", "3");
    EXPECT_TRUE(isReadable());
    inbox.unsubscribe({"a"});
    EXPECT_FALSE(isReadable());
}

TEST_F(InboxTest, keepsTheLatestValueOfEachKeyWhenItIsFull)
{
    subscribe({"a", "b"});
    fill();
    for (int count = 0; count < 100; ++count)
    {
        inbox.pushChange("b", std::to_string(count));
        inbox.pushChange("a", std::to_string(count));
    }
    inbox.pushChange("fill", "last");
    std::vector<std::string> taken;
    for (std::string each = take(); !each.empty(); each = take())
        taken.push_back(each);
    ASSERT_EQ(taken.size(), STATUS_QUEUED_MOST + 2U);
    EXPECT_EQ(taken.front(), "fill=0");
    EXPECT_EQ(taken[STATUS_QUEUED_MOST - 2], "fill=" + std::to_string(STATUS_QUEUED_MOST - 2));
    const std::vector<std::string> last(taken.end() - 3, taken.end());
    EXPECT_EQ(last, (std::vector<std::string>{"b=99", "a=99", "fill=last"})); // in the order of the posts
}

TEST_F(InboxTest, keepsFirstValuesBeforeTheirEndWhenItIsFull)
{
    fill();
    subscribe({"a", "b"});
    inbox.pushChange("a", "first");
    inbox.expectAnswer();
    Items synced{Item{STATUS_SYNCED}};
    inbox.pushAnswer(synced);
    inbox.pushChange("b", "1");
    inbox.pushChange("a", "second");
    inbox.pushChange("a", "third");
    inbox.pushChange("b", "2");
    for (int count = 0; count < STATUS_QUEUED_MOST; ++count)
        take();
    EXPECT_EQ(take(), "a=third");
    EXPECT_EQ(take(), "="); // the end of the first values
    EXPECT_EQ(take(), "b=2");
    EXPECT_EQ(take(), "");
    inbox.pushChange("a", "4");
    EXPECT_EQ(take(), "a=4");
}

TEST_F(InboxTest, keepsEachChangeAgainWhenThereIsRoomAgain)
{
    subscribe({"a"});
    fill();
    EXPECT_EQ(takeAll(), static_cast<std::size_t>(STATUS_QUEUED_MOST));
    inbox.pushChange("a", "1");
    inbox.pushChange("a", "2");
    EXPECT_EQ(take(), "a=1");
    EXPECT_EQ(take(), "a=2");
}

TEST_F(InboxTest, isFullOfBytesAsWell)
{
    subscribe({"a", "big"});
    const std::string big(STATUS_QUEUED_BYTES / 2, 'v');
    inbox.pushChange("big", big);
    inbox.pushChange("big", big);
    inbox.pushChange("big", "3");
    inbox.pushChange("a", "1");
    EXPECT_EQ(take(), "big=" + big);
    EXPECT_EQ(take(), "big=3");
    EXPECT_EQ(take(), "a=1");
    EXPECT_EQ(take(), "");
}

TEST_F(InboxTest, dropsAndCountsEventsWhenItIsFull)
{
    EXPECT_EQ(inbox.subscribeEvents({"bell"}), EventKeys{"bell"});
    inbox.pushEvent("bell", "1");
    fill();
    inbox.pushEvent("bell", "2");
    inbox.pushEvent("bell", "3");
    inbox.pushEvent("other", "4");
    EXPECT_EQ(inbox.dropped(), 2U);
    EXPECT_EQ(take(), "bell=1");
    EXPECT_EQ(takeAll(), STATUS_QUEUED_MOST - 1U);
    inbox.pushEvent("bell", "5");
    EXPECT_EQ(take(), "bell=5");
    EXPECT_EQ(inbox.dropped(), 2U);
}

TEST_F(InboxTest, takesAnswersAlsoWhenItIsFull)
{
    fill();
    inbox.expectAnswer();
    Items answer{Item{STATUS_ANSWER}};
    inbox.pushAnswer(answer);
    EXPECT_TRUE(answer.empty());
    EXPECT_EQ(takeAll(), STATUS_QUEUED_MOST + 1U);
}

TEST_F(InboxTest, limitsTheSubscribedKeysAndEvents)
{
    StatusKeys names;
    for (int count = 0; count < STATUS_SUBSCRIBED_MOST; ++count)
        names.push_back("name" + std::to_string(count));
    subscribe(names);
    subscribe(names); // none more
    EXPECT_THROW(inbox.subscribe({"name1", "more"}), StatusC::Failure);
    inbox.unsubscribe({"name1"});
    subscribe({"more"});
    EXPECT_EQ(inbox.subscribeEvents(names).size(), names.size());
    EXPECT_TRUE(inbox.subscribeEvents(names).empty());
    EXPECT_THROW(inbox.subscribeEvents({"more"}), StatusC::Failure);
}

TEST_F(InboxTest, ignoresChangesUntilASubscriptionIsOpened)
{
    const Inbox::Ticket ticket = inbox.subscribe({"a", "b"});
    inbox.pushChange("a", "early");
    inbox.unsubscribe({"b"});
    const Inbox::Ticket later = inbox.subscribe({"b"});
    EXPECT_EQ(inbox.open(ticket, {"a", "b"}), StatusKeys{"a"}); // b belongs to the later one
    inbox.pushChange("b", "early");
    EXPECT_EQ(inbox.open(later, {"b"}), StatusKeys{"b"});
    inbox.pushChange("b", "1");
    EXPECT_EQ(take(), "b=1");
    EXPECT_EQ(take(), "");
}

TEST_F(InboxTest, aCancelledSubscriptionLeavesEarlierOnes)
{
    subscribe({"a"});
    inbox.cancel(inbox.subscribe({"a", "b"}), {"a", "b"});
    inbox.pushChange("a", "1");
    inbox.pushChange("b", "1");
    EXPECT_EQ(take(), "a=1");
    EXPECT_EQ(take(), "");
}

TEST_F(InboxTest, anItemThatIsPutBackIsTheNextOne)
{
    subscribe({"a"});
    inbox.pushChange("a", "1");
    inbox.pushChange("a", "2");
    Items taken;
    ASSERT_TRUE(inbox.take(taken));
    inbox.putBack(taken);
    EXPECT_EQ(take(), "a=1");
    ASSERT_TRUE(inbox.take(taken));
    EXPECT_FALSE(isReadable());
    inbox.putBack(taken);
    EXPECT_TRUE(isReadable());
    EXPECT_EQ(take(), "a=2");
}

TEST_F(InboxTest, holdsNothingOnceItIsClosed)
{
    subscribe({"a"});
    inbox.pushChange("a", "1");
    inbox.close();
    EXPECT_TRUE(inbox.isClosed());
    inbox.pushChange("a", "2");
    Items answer{Item{STATUS_ANSWER}};
    inbox.pushAnswer(answer);
    Items taken;
    EXPECT_THROW(inbox.take(taken), StatusC::Failure);
    EXPECT_THROW(inbox.descriptor(), StatusC::Failure);
}
