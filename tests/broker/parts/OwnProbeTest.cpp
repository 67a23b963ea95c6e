#include "broker/OwnProbe.h"

#include <gtest/gtest.h>

namespace
{

using namespace std::chrono_literals;

class OwnProbeTest : public testing::Test
{
protected:
    TimePoint now = Clock::now();
    OwnProbe probe;
};

} // namespace

TEST_F(OwnProbeTest, oneThatWasNotAskedLacksNothing)
{
    EXPECT_TRUE(probe.isDue(1, now));
    EXPECT_FALSE(probe.lacks(1));
    EXPECT_FALSE(probe.owes());
}

TEST_F(OwnProbeTest, lacksWhatItWasAskedForUntilItAnswers)
{
    probe.asked(7, now);
    EXPECT_FALSE(probe.isDue(7, now)) << "that was asked already";
    EXPECT_TRUE(probe.lacks(7));
    EXPECT_TRUE(probe.owes());
    probe.answered(7, now);
    EXPECT_FALSE(probe.lacks(7));
    EXPECT_FALSE(probe.owes());
}

TEST_F(OwnProbeTest, anAnswerToAnEarlierQuestionIsNoneToALaterOne)
{
    probe.asked(7, now);
    probe.asked(8, now);
    probe.answered(7, now);
    EXPECT_FALSE(probe.lacks(7));
    EXPECT_TRUE(probe.lacks(8));
}

TEST_F(OwnProbeTest, anAnswerToALaterQuestionIsOneToTheEarlier)
{
    probe.asked(7, now);
    probe.asked(8, now);
    probe.answered(8, now);
    EXPECT_FALSE(probe.lacks(7));
}

TEST_F(OwnProbeTest, anAnswerThatWasNotAskedForDoesNotCount)
{
    probe.asked(7, now);
    probe.answered(100, now);
    EXPECT_TRUE(probe.isDue(8, now));
    probe.asked(8, now);
    EXPECT_TRUE(probe.lacks(8));
}

TEST_F(OwnProbeTest, oneThatDoesNotAnswerIsNotAskedAgainUntilItDoes)
{
    probe.asked(7, now);
    now += OwnProbe::longest - 1ms;
    EXPECT_TRUE(probe.isDue(8, now));
    probe.asked(8, now);
    now += 1ms;
    EXPECT_FALSE(probe.isDue(9, now)) << "the first answer is owed for too long";
    probe.answered(8, now);
    EXPECT_TRUE(probe.isDue(9, now));
}

TEST_F(OwnProbeTest, aConnectionThatIsClosedLacksNothing)
{
    probe.asked(7, now);
    probe.end();
    EXPECT_FALSE(probe.lacks(7));
}
