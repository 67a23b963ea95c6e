#ifndef BROKER_TOLDREVISION_H
#define BROKER_TOLDREVISION_H

#include <algorithm>
#include <cstdint>

/// Determines which revision of the state a subscriber has certainly received: its system has the bytes.
///
/// Bytes that only our kernel holds do not count: they are lost if the connection is closed.
class ToldRevision
{
public:
    /// The subscriber has subscribed, and knows this revision already.
    void begin(uint64_t revision)
    {
        mRevision = revision;
        mIsWaiting = false;
    }

    /// Call this at intervals. Bytes are counted from the beginning of the connection.
    /// @param revision that the subscriber has after the bytes up to lastByte
    /// @param taken how many bytes its system has
    void look(uint64_t revision, uint64_t lastByte, uint64_t taken)
    {
        if (mIsWaiting && taken >= mLastByte)
        {
            mRevision = std::max(mRevision, mAwaited);
            mIsWaiting = false;
        }
        if (mIsWaiting || revision <= mRevision)
            return;
        mIsWaiting = taken < lastByte;
        mAwaited = revision;
        mLastByte = lastByte;
        if (!mIsWaiting)
            mRevision = revision;
    }

    uint64_t revision() const { return mRevision; }

private:
    uint64_t mRevision = 0;
    uint64_t mAwaited = 0;  ///< the next revision
    uint64_t mLastByte = 0; ///< the byte that completes it
    bool mIsWaiting = false;
};

#endif
