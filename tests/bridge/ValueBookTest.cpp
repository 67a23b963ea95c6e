#include "bridge/ValueBook.h"

#include <gtest/gtest.h>
#include <vector>

namespace
{

using std::chrono::seconds;
using Pairs = std::vector<std::pair<std::string, std::string>>;

class ValueBookTest : public testing::Test
{
protected:
    Pairs takeAllDue()
    {
        Pairs all;
        while (const ValueBook::Due due = book.takeDue(now))
            all.emplace_back(*due.key, *due.value);
        return all;
    }

    Pairs takeAll()
    {
        Pairs all;
        std::string last;
        while (const ValueBook::Due due = book.takeBehind(last, all.empty(), now))
        {
            last = *due.key;
            all.emplace_back(*due.key, *due.value);
        }
        return all;
    }

    TimePoint now = TimePoint() + std::chrono::hours(1);
    ValueBook book{[](const std::string& key) { return key == "slow" ? seconds(10) : seconds(0); }};
};

TEST_F(ValueBookTest, aChangeIsDueAtOnce)
{
    book.change("door", "open", now);
    EXPECT_EQ(takeAllDue(), (Pairs{{"door", "open"}}));
    EXPECT_EQ(takeAllDue(), Pairs());
    EXPECT_EQ(book.nextDue(), TimePoint::max());
}

TEST_F(ValueBookTest, onlyTheLatestValueOfAKeyWaits)
{
    for (const char* value : {"1", "2", "3"})
        book.change("count", value, now);
    EXPECT_EQ(takeAllDue(), (Pairs{{"count", "3"}}));
}

TEST_F(ValueBookTest, anEqualValueIsNotSentAgain)
{
    book.change("door", "open", now);
    takeAllDue();
    book.change("door", "open", now);
    EXPECT_EQ(takeAllDue(), Pairs());
}

TEST_F(ValueBookTest, aSlowKeyGoesOutOnceInItsInterval)
{
    book.change("slow", "1", now);
    EXPECT_EQ(takeAllDue(), (Pairs{{"slow", "1"}}));
    int sent = 0;
    for (int i = 2; i < 102; ++i) // 100 s at 1 Hz
    {
        now += seconds(1);
        book.change("slow", std::to_string(i), now);
        sent += static_cast<int>(takeAllDue().size());
    }
    EXPECT_EQ(sent, 10);
}

TEST_F(ValueBookTest, theLatestValueOfASlowKeyIsSentInTheEnd)
{
    book.change("slow", "1", now);
    takeAllDue();
    book.change("slow", "2", now + seconds(1));
    book.change("slow", "3", now + seconds(2));
    EXPECT_EQ(book.nextDue(), now + seconds(10));
    now += seconds(10);
    EXPECT_EQ(takeAllDue(), (Pairs{{"slow", "3"}}));
}

TEST_F(ValueBookTest, aSnapshotBringsOnlyDifferences)
{
    book.replace({{"a", "1"}, {"b", "2"}}, now);
    takeAllDue();
    book.replace({{"a", "1"}, {"b", "3"}, {"c", "4"}}, now);
    EXPECT_EQ(takeAllDue(), (Pairs{{"b", "3"}, {"c", "4"}}));
}

TEST_F(ValueBookTest, aKeyThatIsMissingInASnapshotIsReset)
{
    book.replace({{"a", "1"}, {"b", "2"}}, now);
    takeAllDue();
    book.replace({{"a", "1"}}, now);
    EXPECT_EQ(takeAllDue(), (Pairs{{"b", ""}}));
    book.change("b", "3", now);
    EXPECT_EQ(takeAllDue(), (Pairs{{"b", "3"}}));
}

TEST_F(ValueBookTest, aSessionBeginsWithAllValuesThatAreNotReset)
{
    book.replace({{"a", "1"}, {"b", ""}, {"slow", "2"}}, now);
    takeAllDue();
    book.change("slow", "3", now);
    book.clearQueue();
    EXPECT_EQ(takeAll(), (Pairs{{"a", "1"}, {"slow", "3"}}));
    EXPECT_EQ(book.nextDue(), TimePoint::max());
}

TEST_F(ValueBookTest, aChangeDuringTheBeginningOfASessionIsDueAfterIt)
{
    book.replace({{"a", "1"}, {"b", "2"}}, now);
    book.clearQueue();
    book.takeBehind("", true, now);
    book.change("a", "3", now);
    EXPECT_EQ(takeAllDue(), (Pairs{{"a", "3"}}));
}

TEST_F(ValueBookTest, aValueThatTheBeginningSendsIsNotDueAnyMore)
{
    book.replace({{"a", "1"}, {"b", "2"}}, now);
    book.clearQueue();
    book.change("b", "3", now);
    EXPECT_EQ(takeAll(), (Pairs{{"a", "1"}, {"b", "3"}}));
    EXPECT_EQ(takeAllDue(), Pairs());
}

} // namespace
