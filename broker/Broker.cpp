#include "broker/Broker.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <sys/time.h>
#include <unistd.h>

#include "broker/Descriptors.h"
#include "common/Logging.h"

OV_LOG_CONTROL_WORDS;

using BrokerProtocol::Command;

namespace
{

constexpr const char* requestEndpoint = "tcp://127.0.0.1:5555";
constexpr const char* postEndpoint = "tcp://127.0.0.1:5556";
constexpr const char* notifyEndpoint = "tcp://127.0.0.1:5557";

constexpr const char* refusal = "{}";

// So many posts, or requests, are taken before the broker looks elsewhere again, or as many as this time
// suffices for: one that is long or full of nonsense may take as long as thousands of others.
constexpr int batchSize = 1000;
constexpr std::chrono::milliseconds batchTime{10};

// How long nothing must have come after a long burst of posts, before it counts as over. The library lets no
// request overtake posts inside its process; this is for what its kernel held back, and for other clients.
constexpr std::chrono::microseconds quietAfterBurst{100};

// Posts that are still under way are looked for often at first, then once in a millisecond.
constexpr std::chrono::milliseconds promptWait{2};
constexpr useconds_t promptPauseMicroseconds = 30;

// Asked to stop, the broker serves until no request has come for a while. All of it has one bound, so that it
// has ended after two seconds, even if it was just waiting for a subscriber: until the first of these times
// it takes new requests, until the second it waits for posts, until the third for the last replies and
// notifications to go out.
constexpr std::chrono::milliseconds finishQuiet{50};
constexpr std::chrono::milliseconds longestFinish{400};
constexpr std::chrono::milliseconds longestLastWait{900};
constexpr std::chrono::milliseconds longestEnd{1200};

// How often connections are looked at, and how often while one is in the middle of a long message.
constexpr std::chrono::milliseconds lookPause{100};
constexpr std::chrono::milliseconds closeLookPause{20};

// How often the state file is told that time goes on, while timers run.
constexpr std::chrono::seconds momentPause{60};

// How often what could not be written is tried again, while nothing else changes.
constexpr std::chrono::seconds rewritePause{1};

// How long those are remembered that were cut off, and after a start those of an earlier broker.
constexpr std::chrono::seconds cutOffMemory{3600};
constexpr std::chrono::seconds restartMemory{30};

// What is published again goes out in messages of about this size.
constexpr std::size_t announcementBytes = std::size_t{64} * 1024;

// Changes are kept together: at most so many bytes of what is to be published or answered wait for that.
constexpr std::size_t batchBytes = std::size_t{256} * 1024;

Limits within(Limits limits, std::size_t descriptors)
{
    const std::size_t possible = Descriptors::connectionsPerPort(descriptors);
    if (limits.connections > possible)
        OV_LOG(2, "Only %zu connections per port: the limit of open files is %zu", possible, descriptors);
    limits.connections = std::min(limits.connections, possible);
    return limits;
}

// Enough of what came from outside to recognise it by.
std::string excerpt(const std::string& text)
{
    constexpr std::size_t enough = 200;
    return text.substr(0, enough);
}

Options adjusted(Options options)
{
    options.limits = within(options.limits, Descriptors::raiseLimit(options.limits.connections));
    return options;
}

} // namespace

Broker::Broker(const Options& options)
    : mOptions(adjusted(options)), mRequests(mContext, requestEndpoint, mOptions.limits, mRefusals),
      mPosts(mContext, postEndpoint, mOptions.limits, mRefusals),
      mNotify(mContext, notifyEndpoint, mOptions.limits, mRefusals), mState(mOptions.limits, mRefusals)
{
    if (!mOptions.stateFile.empty())
    {
        mStateFile.emplace(mOptions.stateFile, mOptions.stateSync, mOptions.stateKeys,
                           [this] { return mState.everything(); });
        mState.restore(mStateFile->load());
    }
    // Who was connected to an earlier broker may have missed the last of what it kept.
    mCatchUp.disconnected(0, mStarted, restartMemory);
    mNextHeartbeat = mStarted + mOptions.heartbeat;
    OV_LOG(5, "Serving on 127.0.0.1, ports 5555 (requests), 5556 (posts), 5557 (notifications)");
    mSupervisor.ready("Serving, " + std::to_string(mState.keys()) + " keys loaded");
}

void Broker::setLimits(const Limits& limits)
{
    mOptions.limits = limits;
    mOptions = adjusted(mOptions);
    mRequests.applyLimits();
    mPosts.applyLimits();
    mNotify.applyLimits();
}

// ---------------------------------------------------------------------------------------------------- loop

void Broker::serveUntil(int descriptor)
{
    mInterrupt = descriptor;
    updateConnections(); // a descriptor becomes readable only for who has asked in vain before
    while (waitForWork())
    {
        const TimePoint begin = Clock::now();
        if (mReady.posts)
            takePosts();
        catchUpSubscribers();
        if (mReady.requests || !mRequestsTaken.empty())
            serveRequests();
        releaseStarted();
        doWhatIsDue();
        const auto taken = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - begin);
        mLoop.add(static_cast<uint64_t>(taken.count()));
    }
}

// False when it is to be interrupted. Each socket that libzmq is asked about costs a system call, and asking
// is most of what a single post costs here. So of the connections only their descriptors are polled, and what
// is not ready is left alone.
bool Broker::waitForWork()
{
    std::array<zmq::pollitem_t, 7> items{{
        {mPosts.pollable().handle(), 0, ZMQ_POLLIN, 0},
        {mRequests.pollable().handle(), 0, ZMQ_POLLIN, 0},
        {mNotify.pollable().handle(), 0, ZMQ_POLLIN, 0},
        {nullptr, mPosts.connectionsDescriptor(), ZMQ_POLLIN, 0},
        {nullptr, mRequests.connectionsDescriptor(), ZMQ_POLLIN, 0},
        {nullptr, mNotify.connectionsDescriptor(), ZMQ_POLLIN, 0},
        {nullptr, mInterrupt, ZMQ_POLLIN, 0},
    }};
    try
    {
        zmq::poll(items.data(), items.size(), untilNextTask());
    }
    catch (const zmq::error_t& error)
    {
        if (error.num() != EINTR)
            throw;
    }
    // The look at connections wants to know that nothing is left to be taken.
    const bool all = Clock::now() >= mNextLook;
    mReady = {all || items[0].revents != 0, all || items[1].revents != 0, all || items[2].revents != 0};
    if (items[3].revents != 0 || items[4].revents != 0 || items[5].revents != 0)
        updateConnections();
    return items.back().revents == 0;
}

std::chrono::milliseconds Broker::untilNextTask() const
{
    using std::chrono::milliseconds;
    if (!mRequestsTaken.empty())
        return milliseconds(0);
    if (!mStartup.empty())
        return milliseconds(1);
    std::vector<TimePoint> tasks;
    if (mSubscribersWait)
        tasks.push_back(mNextCatchUp);
    if (mOptions.heartbeat.count() != 0)
        tasks.push_back(mNextHeartbeat);
    if (mPosts.connections() != 0 || mRequests.connections() != 0 || mNotify.connections() != 0)
        tasks.push_back(mNextLook);
    if (isCommitDue())
        tasks.push_back(mNextMoment);
    if (const auto next = mSupervisor.nextTelling())
        tasks.push_back(*next);
    if (tasks.empty())
        return milliseconds(-1);
    const auto left = *std::min_element(tasks.begin(), tasks.end()) - Clock::now();
    return std::max(milliseconds(0), std::chrono::ceil<milliseconds>(left));
}

void Broker::doWhatIsDue()
{
    const TimePoint now = Clock::now();
    mSupervisor.tellWhatIsDue(now);
    if (mOptions.heartbeat.count() != 0 && now >= mNextHeartbeat)
    {
        // Clients ignore it. One that shuts down looks at its stop flag only when a notification has come.
        mNotify.publish(BrokerProtocol::syncWord, mState.revision());
        mNextHeartbeat = now + mOptions.heartbeat;
    }
    if (now >= mNextLook)
    {
        const bool longPost = mPosts.cutOffEndless();
        const bool longRequest = mRequests.cutOffEndless();
        const bool longSubscription = mNotify.cutOffEndless();
        mNextLook = now + (longPost || longRequest || longSubscription ? closeLookPause : lookPause);
    }
    if (isCommitDue() && now >= mNextMoment)
    {
        mStateFile->commit({});
        mNextMoment = now + (mStateFile->isBehind() ? rewritePause : momentPause);
    }
}

// Without a change that would bring one.
bool Broker::isCommitDue() const
{
    return mStateFile && (mState.hasRunningTimers() || mStateFile->isBehind());
}

void Broker::updateConnections()
{
    if (mPosts.updateConnections())
        mStartup.postConnected(Clock::now());
    for (const std::string& connection : mRequests.updateConnections())
        mStartup.requestClosed(connection);
    mNotify.updateConnections();
}

// --------------------------------------------------------------------------------------------------- posts

void Broker::takePosts()
{
    const TimePoint end = Clock::now() + batchTime;
    for (int taken = 0; taken < batchSize && Clock::now() < end; ++taken)
    {
        const std::optional<PostChannel::Post> post = mPosts.receive();
        if (!post)
            break;
        apply(*post);
    }
    // Who sends faster than posts can be taken fills the memory.
    if (Clock::now() >= end)
        mPosts.cutOffEndless();
    settle();
}

void Broker::apply(const PostChannel::Post& post)
{
    ++mPostCount;
    if (!post.text)
        return mRefusals.report(Refusal::MessageBytes, "Post of more than " +
                                                           std::to_string(mOptions.limits.messageBytes) +
                                                           " bytes refused");
    if (*post.text == BrokerProtocol::syncWord)
        return announce(BrokerProtocol::syncWord);
    std::optional<Command> command = BrokerProtocol::readPost(*post.text);
    if (!command)
        mRefusals.report(Refusal::MalformedPost, "Malformed post [" + excerpt(*post.text) + "] refused");
    else if (command->key == BrokerProtocol::Key::updateSystemTime)
        setSystemTime(command->number);
    else if (const std::optional<std::string> notification = mState.apply(std::move(*command)))
        announce(*notification);
}

void Broker::setSystemTime(uint32_t seconds)
{
    const std::string what = "Setting the system time to " + std::to_string(seconds) + " refused, ";
    if (!mOptions.allowSetTime)
        return mRefusals.report(Refusal::SystemTime, what + "not started with --allow-set-time");
    if (seconds < STATUSBROKER_BUILD_TIME)
        return mRefusals.report(Refusal::SystemTime, what + "that is before this program was built");
    timeval time{};
    time.tv_sec = static_cast<decltype(time.tv_sec)>(seconds);
    if (settimeofday(&time, nullptr) != 0)
        mRefusals.report(Refusal::SystemTime, "Failed to set the system time to " + std::to_string(seconds) +
                                                  ": " + strerror(errno));
}

// ------------------------------------------------------------------------------------------- notifications

// What is kept over a restart is published only when it has been kept: nobody sees what a restart takes back.
void Broker::announce(const std::string& notification)
{
    if (!mStateFile)
        return mNotify.publish(notification, mState.revision());
    mAnnouncements.push_back({notification, mState.revision()});
    mAnnouncedBytes += notification.size();
    if (mAnnouncedBytes >= batchBytes)
        settle();
}

void Broker::announce(const StatusMap& changes)
{
    StatusMap part;
    std::size_t bytes = 0;
    for (const auto& [key, value] : changes)
    {
        part.emplace_hint(part.end(), key, value);
        bytes += key.size() + value.size();
        if (bytes < announcementBytes)
            continue;
        announce(BrokerProtocol::writeStatusUpdate(part));
        part.clear();
        bytes = 0;
    }
    if (!part.empty())
        announce(BrokerProtocol::writeStatusUpdate(part));
}

// Keeps what has changed, then publishes it.
void Broker::settle()
{
    if (!mStateFile)
        return;
    const SavedState changes = mState.takeChanges();
    if (!changes.empty())
        mStateFile->commit(changes);
    for (const Announcement& announcement : mAnnouncements)
        mNotify.publish(announcement.notification, announcement.revision);
    mAnnouncements.clear();
    mAnnouncedBytes = 0;
}

void Broker::catchUpSubscribers()
{
    const TimePoint begin = Clock::now();
    for (const uint64_t revision : mNotify.takeCutOff())
        mCatchUp.disconnected(revision, begin, cutOffMemory);
    if (mReady.subscriptions)
        mNotify.receiveSubscriptions();
    mSubscribersWait = mNotify.takeSubscribed() || mSubscribersWait;
    if (!mSubscribersWait || begin < mNextCatchUp)
        return;
    mSubscribersWait = false;
    if (const std::optional<uint64_t> since = mCatchUp.subscribed(begin))
        announce(mState.changedSince(*since));
    settle();
    // Somebody who subscribes over and over must not keep the broker from its work.
    constexpr int share = 4;
    const TimePoint end = Clock::now();
    mNextCatchUp = end + share * (end - begin);
}

// ------------------------------------------------------------------------------------------------ requests

void Broker::serveRequests()
{
    if (mRequestsTaken.empty())
        takeRequests();
    if (mRequestsTaken.empty() || !awaitPostsBeforeRequests())
        return;
    const TimePoint end = Clock::now() + batchTime;
    std::size_t bytes = 0;
    while (!mRequestsTaken.empty() && Clock::now() < end)
    {
        const RequestChannel::Request request = std::move(mRequestsTaken.front());
        mRequestsTaken.pop_front();
        std::optional<std::string> text = answer(request);
        if (!text)
            continue;
        bytes += text->size();
        mReplies.push_back({request.connection, std::move(*text)});
        if (bytes < batchBytes)
            continue;
        reply();
        bytes = 0;
    }
    reply();
}

void Broker::takeRequests()
{
    mPostsAwaited = false;
    std::size_t bytes = 0;
    while (mRequestsTaken.size() < batchSize && bytes < batchBytes)
    {
        std::optional<RequestChannel::Request> request = mRequests.receive();
        if (!request)
            break;
        bytes += request->text.value_or("").size();
        mRequestsTaken.push_back(std::move(*request));
    }
}

// False when it was interrupted: the requests cannot be answered yet.
bool Broker::awaitPostsBeforeRequests()
{
    if (mPostsAwaited)
        return true;
    const bool syncs = std::any_of(mRequestsTaken.begin(), mRequestsTaken.end(),
                                   [](const RequestChannel::Request& request)
                                   { return request.text == BrokerProtocol::syncWord; });
    mPostsAwaited = syncs ? awaitPosts(longestSyncWait) : awaitPosts(longestQueryWait);
    return mPostsAwaited;
}

// What requests have changed is kept before they are answered.
void Broker::reply()
{
    settle();
    for (const Reply& reply : mReplies)
        mRequests.reply(reply.connection, reply.text);
    mReplies.clear();
}

// False when it was interrupted.
bool Broker::awaitPosts(std::chrono::milliseconds bound)
{
    const TimePoint begin = Clock::now();
    const TimePoint end = std::min(begin + bound, mEndOfWaits);
    updateConnections();
    mPosts.beginBarrier();
    takePosts();
    while (!mPosts.barrierReached(quietAfterBurst))
    {
        if (Clock::now() >= end)
        {
            mPosts.abandonBarrier();
            return true;
        }
        // libzmq waits for whole milliseconds, and what is awaited mostly comes within a fraction of one.
        const bool isYoung = Clock::now() - begin < promptWait;
        if (isYoung)
            usleep(promptPauseMicroseconds);
        std::array<zmq::pollitem_t, 2> items{
            {{mPosts.pollable().handle(), 0, ZMQ_POLLIN, 0}, {nullptr, mInterrupt, ZMQ_POLLIN, 0}}};
        zmq_poll(items.data(), mInterrupt == -1 ? 1 : 2, isYoung ? 0 : 1);
        if (items[1].revents != 0)
            return false;
        updateConnections();
        takePosts();
    }
    return true;
}

// Nothing if the answer has to wait.
std::optional<std::string> Broker::answer(const RequestChannel::Request& request)
{
    if (request.text == BrokerProtocol::syncWord)
    {
        ++mRequestCounts[BrokerProtocol::syncWord];
        if (mStartup.hold(request.connection, Clock::now()))
            return std::nullopt;
        return BrokerProtocol::syncAckWord;
    }
    const std::optional<Command> command =
        request.text ? BrokerProtocol::readRequest(*request.text) : std::nullopt;
    if (!command)
        return refuse(request);
    ++mRequestCounts[command->key];
    if (command->key == BrokerProtocol::Key::getBrokerStatistics)
        return statistics();
    return mState.answer(*command).value_or(refusal);
}

std::string Broker::refuse(const RequestChannel::Request& request)
{
    if (request.tooLong)
        mRefusals.report(Refusal::MessageBytes, "Request of more than " +
                                                    std::to_string(mOptions.limits.messageBytes) +
                                                    " bytes refused");
    else
        mRefusals.report(Refusal::MalformedRequest,
                         "Malformed request [" + excerpt(request.text.value_or("")) + "] refused");
    return refusal;
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

std::string Broker::statistics()
{
    Statistics::Numbers numbers;
    numbers["posts"] = mPostCount;
    for (const auto& [key, count] : mRequestCounts)
        numbers["requests." + std::string(key)] = count;
    for (std::size_t kind = 0; kind < refusalKinds; ++kind)
        numbers[Refusals::name(static_cast<Refusal>(kind))] = mRefusals.count(static_cast<Refusal>(kind));
    numbers["notifications.published"] = mNotify.published();
    numbers["notifications.lost"] = mNotify.lost();
    numbers["subscribers.cutOff"] = mNotify.cutOff();
    numbers["clients.requests"] = static_cast<uint64_t>(std::max(0, mRequests.peers()));
    numbers["clients.posts"] = static_cast<uint64_t>(std::max(0, mPosts.peers()));
    numbers["clients.notifications"] = static_cast<uint64_t>(std::max(0, mNotify.peers()));
    numbers["stored.keys"] = mState.keys();
    numbers["stored.bytes"] = mState.storedBytes();
    numbers["stored.timers"] = mState.timers();
    numbers["stored.counters"] = mState.counters();
    numbers["loop.maxMicroseconds"] = mLoop.longest();
    numbers["loop.p99Microseconds"] = mLoop.percentile(99);
    numbers["state.commits"] = mStateFile ? mStateFile->commits() : 0;
    numbers["state.errors"] = mStateFile ? mStateFile->errors() : 0;
    const auto uptime = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - mStarted);
    numbers["uptime.seconds"] = static_cast<uint64_t>(uptime.count());
    Statistics::addVersion(numbers);
    Statistics::addProcess(numbers);
    return BrokerProtocol::writeStatisticsReply(numbers);
}

// ----------------------------------------------------------------------------------------------------- end

void Broker::finish()
{
    mSupervisor.stopping();
    mInterrupt = -1;
    mNotify.hurry();
    const TimePoint begin = Clock::now();
    mEndOfWaits = begin + longestLastWait;
    // What the kernel has received and libzmq's thread not yet read is answered, too.
    zmq::pollitem_t item{mRequests.pollable().handle(), 0, ZMQ_POLLIN, 0};
    while (Clock::now() < begin + longestFinish &&
           (!mRequestsTaken.empty() || zmq_poll(&item, 1, finishQuiet.count()) > 0))
        serveRequests();
    awaitPosts(longestLastWait);
    for (const std::string& connection : mStartup.releaseAll())
        mRequests.reply(connection, BrokerProtocol::syncAckWord);
    if (mStateFile)
        mStateFile->commit({});
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(begin + longestEnd - Clock::now());
    mRequests.setLinger(std::max(left, std::chrono::milliseconds(0)));
    mNotify.setLinger(std::max(left, std::chrono::milliseconds(0)));
    OV_LOG(5, "Stopped");
}
