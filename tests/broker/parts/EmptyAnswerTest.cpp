// Which questions an empty answer has answered, with time as an argument.

#include "broker/EmptyAnswer.h"

#include <gtest/gtest.h>

using namespace std::chrono_literals;

namespace
{

using Verdict = EmptyAnswer::Verdict;

const TimePoint now = TimePoint() + 1h;

} // namespace

TEST(EmptyAnswerTest, withoutOneEveryQuestionIsAnswered)
{
    EmptyAnswer answer;
    EXPECT_EQ(answer.asked(now), Verdict::Answer);
    answer.ponged(now);
    EXPECT_EQ(answer.asked(now), Verdict::Answer) << "a PONG alone means nothing";
}

TEST(EmptyAnswerTest, oneQuestionInFrontOfPongIsDropped)
{
    EmptyAnswer answer;
    answer.sent();
    EXPECT_EQ(answer.asked(now + 1h), Verdict::Drop);
    EXPECT_EQ(answer.asked(now + 1h), Verdict::Answer) << "it answers only one question";
    answer.ponged(now + 1h);
    EXPECT_EQ(answer.asked(now + 1h), Verdict::Answer);
}

TEST(EmptyAnswerTest, aQuestionLongBehindPongIsAnswered)
{
    EmptyAnswer answer;
    answer.sent();
    answer.ponged(now);
    EXPECT_EQ(answer.asked(now + EmptyAnswer::doubt), Verdict::Answer);
    EXPECT_EQ(answer.asked(now + EmptyAnswer::doubt), Verdict::Answer);
}

TEST(EmptyAnswerTest, aQuestionSoonBehindPongIsHeldAndAnsweredAfterAWhile)
{
    EmptyAnswer answer;
    answer.sent();
    answer.ponged(now);
    const TimePoint asked = now + EmptyAnswer::doubt - 1us;
    EXPECT_EQ(answer.asked(asked), Verdict::Hold);
    EXPECT_TRUE(answer.isHolding());
    EXPECT_EQ(answer.heldUntil(), asked + EmptyAnswer::hold);
    answer.release();
    EXPECT_FALSE(answer.isHolding());
    EXPECT_EQ(answer.asked(asked), Verdict::Answer);
}

TEST(EmptyAnswerTest, aQuestionBehindOneThatIsHeldTakesItsPlace)
{
    EmptyAnswer answer;
    answer.sent();
    answer.ponged(now);
    ASSERT_EQ(answer.asked(now + 1ms), Verdict::Hold);
    EXPECT_EQ(answer.asked(now + 11ms), Verdict::Answer);
    EXPECT_FALSE(answer.isHolding());
}
