#ifndef BROKER_BROKER_H
#define BROKER_BROKER_H

#include <string>
#include <zmq.hpp>

#include "broker/CatchUp.h"
#include "broker/DeviceState.h"
#include "broker/NotifyChannel.h"
#include "broker/PostChannel.h"
#include "broker/RequestChannel.h"
#include "broker/StartupGate.h"

/// The broker: takes posts, answers requests, publishes changes. All on the thread that calls run().
class Broker
{
public:
    struct Options
    {
        bool allowSetTime = false;
    };

    /// How long a request waits for posts that are visibly under way, at most.
    static constexpr std::chrono::milliseconds longestQueryWait{100};
    static constexpr std::chrono::milliseconds longestSyncWait{1000};

    /// Binds the three ports. Throws std::runtime_error if one cannot be had.
    explicit Broker(const Options& options);

    /// Serves until `stopDescriptor` is readable; then takes in and answers what has been received.
    void run(int stopDescriptor);

private:
    bool waitForWork(int stopDescriptor);
    void takePosts();
    void apply(const PostChannel::Post& post);
    void setSystemTime(uint32_t seconds) const;
    void publishToNewSubscribers();
    void updateConnections();
    void serveRequests();
    void awaitPosts(std::chrono::milliseconds bound, std::chrono::microseconds quiet);
    void answer(const RequestChannel::Request& request);
    void acknowledge(const std::string& connection);
    void releaseStarted();
    void finish();

    Options mOptions;
    zmq::context_t mContext;
    RequestChannel mRequests;
    PostChannel mPosts;
    NotifyChannel mNotify;
    DeviceState mState;
    StartupGate mStartup;
    CatchUp mCatchUp;
};

#endif
