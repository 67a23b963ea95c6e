#include "broker/AnswerTurn.h"

#include <gtest/gtest.h>

namespace
{

class AnswerTurnTest : public testing::Test
{
protected:
    bool isBehind() const { return turn.isBehind(AnswerTurn::longRequest); }

    AnswerTurn turn;
};

} // namespace

TEST_F(AnswerTurnTest, oneThatHasGotNoAnswerIsBehind)
{
    EXPECT_TRUE(isBehind());
}

TEST_F(AnswerTurnTest, oneThatHasGotAShortAnswerIsNot)
{
    turn.answered(AnswerTurn::longAnswer - 1);
    EXPECT_FALSE(isBehind());
    turn.answered(AnswerTurn::longAnswer - 1);
    EXPECT_FALSE(isBehind());
}

TEST_F(AnswerTurnTest, aLongRequestIsBehind)
{
    turn.answered(0);
    EXPECT_TRUE(turn.isBehind(AnswerTurn::longRequest + 1));
    EXPECT_FALSE(isBehind()) << "only this one";
}

TEST_F(AnswerTurnTest, afterALongAnswerSomeShortOnesAreNeeded)
{
    turn.answered(AnswerTurn::longAnswer);
    for (unsigned answer = 0; answer < AnswerTurn::mostBehind; ++answer)
    {
        EXPECT_TRUE(isBehind()) << answer;
        turn.answered(0);
    }
    EXPECT_FALSE(isBehind());
}
