#ifndef BROKER_TOLDREVISION_H
#define BROKER_TOLDREVISION_H

#include <algorithm>
#include <cstdint>

/// Judges up to which revision of the state a subscriber has surely been told: its system has the bytes.
///
/// Bytes that only our kernel holds for it do not count: they are lost where its connection is closed.
class ToldRevision
{
public:
    /// It has subscribed, and knows this revision already.
    void begin(uint64_t revision)
    {
        mRevision = revision;
        mIsWaiting = false;
    }

    /// To be called now and then. Bytes are counted from the beginning of the connection.
    /// @param revision to which it is brought by the bytes up to lastByte
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
    uint64_t mAwaited = 0;  ///< the next one
    uint64_t mLastByte = 0; ///< that brings it there
    bool mIsWaiting = false;
};

#endif
