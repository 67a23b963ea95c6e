#ifndef BENCHMARKS_ROAD_RECORDER_H
#define BENCHMARKS_ROAD_RECORDER_H

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <vector>

#include "benchmarks/road/Stamp.h"

/// Numbers, for computing quantiles.
class Samples
{
public:
    void reserve(std::size_t count) { mSamples.reserve(count); }
    void add(uint64_t nanoseconds) { mSamples.push_back(nanoseconds); }
    std::size_t size() const { return mSamples.size(); }

    /// The quantile in microseconds; 0 if there are no samples.
    double quantile(double share)
    {
        if (mSamples.empty())
            return 0;
        const auto index = static_cast<std::size_t>(share * static_cast<double>(mSamples.size() - 1));
        const auto nth = mSamples.begin() + static_cast<std::ptrdiff_t>(index);
        std::nth_element(mSamples.begin(), nth, mSamples.end());
        return static_cast<double>(*nth) / 1000;
    }

private:
    std::vector<uint64_t> mSamples;
};

/// Counts the deliveries of one run, each value once, and records how long each took.
class Recorder
{
public:
    struct Result
    {
        std::size_t delivered = 0;
        std::size_t repeated = 0;
        uint64_t last = 0; ///< when the last delivery came
        Samples latencies;
    };

    void expect(uint32_t run, std::size_t count)
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mRun = run;
        mSeen.assign(count, false);
        mResult = Result();
        mResult.latencies.reserve(count);
    }

    void delivered(const Stamp& stamp)
    {
        const uint64_t now = Stamp::now();
        const std::lock_guard<std::mutex> lock(mMutex);
        if (stamp.run != mRun || stamp.number >= mSeen.size())
            return;
        if (mSeen[stamp.number])
        {
            ++mResult.repeated;
            return;
        }
        mSeen[stamp.number] = true;
        mResult.last = now;
        mResult.latencies.add(now - stamp.time);
        if (++mResult.delivered == mSeen.size())
            mComplete.notify_one();
    }

    /// Waits until all values have been delivered. If there is no delivery for `quiet`, the rest counts as
    /// lost.
    Result collect(std::chrono::milliseconds quiet)
    {
        std::unique_lock<std::mutex> lock(mMutex);
        std::size_t before = 0;
        do
            before = mResult.delivered;
        while (!mComplete.wait_for(lock, quiet, [this] { return mResult.delivered == mSeen.size(); }) &&
               mResult.delivered != before);
        return mResult;
    }

private:
    std::mutex mMutex;
    std::condition_variable mComplete;
    uint32_t mRun = 0;
    std::vector<bool> mSeen;
    Result mResult;
};

#endif
