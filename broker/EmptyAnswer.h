#ifndef BROKER_EMPTYANSWER_H
#define BROKER_EMPTYANSWER_H

#include "broker/base/Clock.h"

/// Decides about the questions that follow an empty answer, for which nobody may have asked.
///
/// A client that is waiting for an answer takes the empty one, and asks again. If its question were answered
/// as well, each of its later questions would get the answer of the one before. So a question that was sent
/// before the empty answer came must not be answered.
///
/// A PING goes in front of the empty answer. So a question in front of PONG was sent before the empty answer
/// came. One soon behind PONG may have been on its way within the client, or have been sent at that moment.
/// So it is held: if the client took the empty answer for it, the client asks again.
class EmptyAnswer
{
public:
    /// A question was sent behind the empty answer for sure that comes so long after PONG.
    static constexpr std::chrono::milliseconds doubt{25};

    /// A client asks again after 10 ms.
    static constexpr std::chrono::milliseconds hold{50};

    enum class Verdict
    {
        Answer, ///< instead of one that is held, if there is one
        Drop,   ///< the empty answer was its answer
        Hold,   ///< and answer it when heldUntil() has come, unless another comes before
    };

    /// The empty answer leaves, behind its PING.
    void sent() { mStage = Stage::Sent; }

    void ponged(TimePoint now)
    {
        if (mStage != Stage::Sent)
            return;
        mStage = Stage::Ponged;
        mSince = now;
    }

    /// A question has come.
    Verdict asked(TimePoint now)
    {
        const Stage stage = mStage;
        mStage = Stage::Over;
        if (stage == Stage::Sent)
            return Verdict::Drop;
        if (stage != Stage::Ponged || now - mSince >= doubt)
            return Verdict::Answer;
        mStage = Stage::Holding;
        mSince = now;
        return Verdict::Hold;
    }

    bool isHolding() const { return mStage == Stage::Holding; }
    TimePoint heldUntil() const { return mSince + hold; }
    void release() { mStage = Stage::Over; }

private:
    enum class Stage
    {
        Over, ///< or not begun
        Sent,
        Ponged,
        Holding,
    };

    Stage mStage = Stage::Over;
    TimePoint mSince{}; ///< Ponged, Holding
};

#endif
