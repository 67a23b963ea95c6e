#ifndef BROKER_EMPTYANSWER_H
#define BROKER_EMPTYANSWER_H

#include "daemon/Clock.h"

/// Decides about the question that follows an empty answer, which the client may not have asked for.
///
/// A client that waits for an answer takes the empty answer, and asks again. If its first question were
/// answered as well, each later question would get the answer to the question before. So a question that was
/// sent before the empty answer arrived must not be answered.
///
/// The broker sends a PING in front of the empty answer. A question that arrives before PONG was sent before
/// the empty answer arrived. A question soon after PONG may have been on its way within the client, or have
/// been sent at that moment. So it is held: if the client took the empty answer, it asks again.
class EmptyAnswer
{
public:
    /// A question that comes this long after PONG was certainly sent after the empty answer.
    static constexpr std::chrono::milliseconds doubt{25};

    /// A client asks again after 10 ms.
    static constexpr std::chrono::milliseconds hold{50};

    enum class Verdict
    {
        Answer, ///< in place of the held question, if there is one
        Drop,   ///< the empty answer was its answer
        Hold,   ///< until heldUntil(), then answer it, unless another question replaces it
    };

    /// The empty answer is sent, behind its PING.
    void sent() { mStage = Stage::Sent; }

    void ponged(TimePoint now)
    {
        if (mStage != Stage::Sent)
            return;
        mStage = Stage::Ponged;
        mSince = now;
    }

    /// PONG has come, and no question since.
    bool isPonged() const { return mStage == Stage::Ponged; }

    /// A question has come.
    /// @param now when it came; matters only if isPonged()
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
    TimePoint mSince{}; ///< of Ponged or Holding
};

#endif
