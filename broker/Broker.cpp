#include "broker/Broker.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <sys/time.h>
#include <vector>

#include "broker/Frames.h"
#include "common/Logging.h"

OV_LOG_CONTROL_WORDS;

using BrokerProtocol::Command;

namespace
{

constexpr const char* requestEndpoint = "tcp://127.0.0.1:5555";
constexpr const char* postEndpoint = "tcp://127.0.0.1:5556";
constexpr const char* notifyEndpoint = "tcp://127.0.0.1:5557";

constexpr const char* refusal = "{}";

// So many posts, or requests, are taken before the broker looks elsewhere again.
constexpr int batchSize = 1000;

// How long nothing must have come after a long burst of posts, before it counts as over.
constexpr std::chrono::microseconds queryQuiet{300};
constexpr std::chrono::microseconds syncQuiet{2000};

// Asked to stop, the broker serves until no request has come for a while, within a bound.
constexpr std::chrono::milliseconds finishQuiet{50};
constexpr std::chrono::milliseconds longestFinish{500};

std::chrono::milliseconds untilPoll(bool gateIsWaiting)
{
    return gateIsWaiting ? std::chrono::milliseconds(1) : std::chrono::milliseconds(-1);
}

} // namespace

Broker::Broker(const Options& options)
    : mOptions(options), mRequests(mContext, requestEndpoint), mPosts(mContext, postEndpoint),
      mNotify(mContext, notifyEndpoint)
{
}

void Broker::run(int stopDescriptor)
{
    OV_LOG(5, "Serving on 127.0.0.1, ports 5555 (requests), 5556 (posts), 5557 (notifications)");
    while (waitForWork(stopDescriptor))
    {
        takePosts();
        publishToNewSubscribers();
        serveRequests();
        releaseStarted();
    }
    finish();
}

// False when it is time to stop.
bool Broker::waitForWork(int stopDescriptor)
{
    std::array<zmq::pollitem_t, 6> items{{
        {mPosts.pollable().handle(), 0, ZMQ_POLLIN, 0},
        {mRequests.pollable().handle(), 0, ZMQ_POLLIN, 0},
        {mNotify.pollable().handle(), 0, ZMQ_POLLIN, 0},
        {mPosts.pollableConnections().handle(), 0, ZMQ_POLLIN, 0},
        {mRequests.pollableConnections().handle(), 0, ZMQ_POLLIN, 0},
        {nullptr, stopDescriptor, ZMQ_POLLIN, 0},
    }};
    try
    {
        zmq::poll(items.data(), items.size(), untilPoll(!mStartup.empty()));
    }
    catch (const zmq::error_t& error)
    {
        if (error.num() != EINTR)
            throw;
    }
    updateConnections();
    return items.back().revents == 0;
}

void Broker::updateConnections()
{
    if (mPosts.updateConnections())
        mStartup.postConnected(Clock::now());
    for (const std::string& connection : mRequests.updateConnections())
        mStartup.requestClosed(connection);
}

// --------------------------------------------------------------------------------------------------- posts

void Broker::takePosts()
{
    for (int taken = 0; taken < batchSize; ++taken)
    {
        const std::optional<PostChannel::Post> post = mPosts.receive();
        if (!post)
            return;
        apply(*post);
    }
}

void Broker::apply(const PostChannel::Post& post)
{
    if (!post.text)
    {
        OV_LOG(2, "Post of more than %zu bytes refused", Frames::maxMessageBytes);
        return;
    }
    if (*post.text == BrokerProtocol::syncWord)
        return mNotify.publish(BrokerProtocol::syncWord);
    const std::optional<Command> command = BrokerProtocol::readPost(*post.text);
    if (!command)
        OV_LOG(2, "Malformed post [%.200s] refused", post.text->c_str());
    else if (command->key == BrokerProtocol::Key::updateSystemTime)
        setSystemTime(command->number);
    else if (const std::optional<std::string> notification = mState.apply(*command))
        mNotify.publish(*notification);
}

void Broker::setSystemTime(uint32_t seconds) const
{
    if (!mOptions.allowSetTime)
    {
        OV_LOG(2, "Setting the system time to %u refused, not started with --allow-set-time", seconds);
        return;
    }
    timeval time{};
    time.tv_sec = static_cast<decltype(time.tv_sec)>(seconds);
    if (settimeofday(&time, nullptr) != 0)
        OV_LOG(0, "Failed to set the system time to %u: %s", seconds, strerror(errno));
}

// ------------------------------------------------------------------------------------------- notifications

void Broker::publishToNewSubscribers()
{
    if (!mNotify.takeSubscriptions())
        return;
    const std::optional<uint64_t> since = mCatchUp.subscribed(Clock::now());
    if (!since)
        return;
    const StatusMap changes = mState.changedSince(*since);
    if (!changes.empty())
        mNotify.publish(BrokerProtocol::writeStatusUpdate(changes));
}

// ------------------------------------------------------------------------------------------------ requests

void Broker::serveRequests()
{
    std::vector<RequestChannel::Request> requests;
    bool syncs = false;
    while (requests.size() < batchSize)
    {
        std::optional<RequestChannel::Request> request = mRequests.receive();
        if (!request)
            break;
        syncs = syncs || request->text == BrokerProtocol::syncWord;
        requests.push_back(std::move(*request));
    }
    if (requests.empty())
        return;
    if (syncs)
        awaitPosts(longestSyncWait, syncQuiet);
    else
        awaitPosts(longestQueryWait, queryQuiet);
    for (const RequestChannel::Request& request : requests)
        answer(request);
}

void Broker::awaitPosts(std::chrono::milliseconds bound, std::chrono::microseconds quiet)
{
    const TimePoint end = Clock::now() + bound;
    updateConnections();
    mPosts.beginBarrier();
    takePosts();
    while (!mPosts.barrierReached(quiet))
    {
        if (Clock::now() >= end)
            return mPosts.abandonBarrier();
        zmq::pollitem_t item{mPosts.pollable().handle(), 0, ZMQ_POLLIN, 0};
        zmq_poll(&item, 1, 1);
        updateConnections();
        takePosts();
    }
}

void Broker::answer(const RequestChannel::Request& request)
{
    if (request.text == BrokerProtocol::syncWord)
    {
        if (!mStartup.hold(request.connection, Clock::now()))
            mRequests.reply(request.connection, BrokerProtocol::syncAckWord);
        return;
    }
    const std::optional<Command> command =
        request.text ? BrokerProtocol::readRequest(*request.text) : std::nullopt;
    if (!command)
    {
        OV_LOG(2, "Malformed request [%.200s] refused", request.text ? request.text->c_str() : "");
        return mRequests.reply(request.connection, refusal);
    }
    mRequests.reply(request.connection, mState.answer(*command));
}

void Broker::releaseStarted()
{
    for (const std::string& connection : mStartup.release(mPosts.peers(), mRequests.peers(), Clock::now()))
        acknowledge(connection);
}

void Broker::acknowledge(const std::string& connection)
{
    mCatchUp.acknowledged(mState.revision(), Clock::now());
    mRequests.reply(connection, BrokerProtocol::syncAckWord);
}

void Broker::finish()
{
    // What the kernel has received and libzmq's thread not yet read is answered, too.
    const TimePoint end = Clock::now() + longestFinish;
    zmq::pollitem_t item{mRequests.pollable().handle(), 0, ZMQ_POLLIN, 0};
    while (Clock::now() < end && zmq_poll(&item, 1, finishQuiet.count()) > 0)
        serveRequests();
    awaitPosts(longestSyncWait, syncQuiet);
    for (const std::string& connection : mStartup.releaseAll())
        mRequests.reply(connection, BrokerProtocol::syncAckWord);
    OV_LOG(5, "Stopped");
}
