#include "broker/PostPort.h"

#include <algorithm>
#include <charconv>
#include <string>

#include "protocol/Words.h"

using namespace std::string_view_literals;

namespace
{

// Read at a time. More of one connection than this waits until the others have had their turn.
constexpr std::size_t bufferBytes = std::size_t{64} * 1024;

// Of the log of notifications: so much is read before the others have their turn.
constexpr std::size_t turnShare = 8;

// Half of the window with which a connection begins. Where less than this has come since the last PONG,
// nothing was held back before.
constexpr std::size_t fewBytes = std::size_t{32} * 1024;

// A subscription to everything, as a message, which every version of the protocol understands.
constexpr std::string_view subscription = "\0\1\1"sv;

constexpr std::string_view pingCommand = "\4PING\0\0"sv; // without a time to live
constexpr std::string_view pongCommand = "\4PONG"sv;

// A post connection that does not show whether posts can arrive delays starting clients for this long.
constexpr std::chrono::milliseconds longestStartWait{50};

// A peer that does not know PING: its subscription has arrived for sure after this time.
constexpr std::chrono::milliseconds subscriptionTime{15};

// What the answer to a PING repeats: the number of the barrier, or this.
constexpr std::string_view subscribedContext = "subscribed"sv;

template <class List, class T>
void removeFrom(List& list, T* element)
{
    list.erase(std::remove(list.begin(), list.end(), element), list.end());
}

} // namespace

PostPort::PostPort(Poller& poller, MemoryBudget& budget, const Limits& limits, Refusals& refusals,
                   OnPost onPost)
    : Port(poller, BrokerProtocol::postPort, Handshake::Kind::Post, 0), mBudget(budget), mLimits(limits),
      mRefusals(refusals), mOnPost(std::move(onPost)), mLimit("post", limits.connections, refusals),
      mPatience(Clock::now()), mBuffer(bufferBytes)
{
}

void PostPort::onAccepted(PostConnection& connection)
{
    mArrivals.add(connection.descriptor(), EPOLLIN, &connection);
    mLimit.added(peers().size(), connection.acceptedAt());
}

void PostPort::onClose(PostConnection& connection)
{
    removeFrom(mReady, &connection);
    removeFrom(mTouched, &connection);
    removeFrom(mAwaited, &connection);
    mBudget.update(connection.accounted, 0);
}

void PostPort::serve(PostConnection& connection, uint32_t what)
{
    if ((what & EPOLLOUT) != 0)
        connection.flush();
    if ((what & ~static_cast<uint32_t>(EPOLLOUT)) != 0)
    {
        if (mIsPaused && connection.isOpen() && connection.ponged == connection.pinged)
            return poll(connection, 0);
        if (!connection.isReady)
            mReady.push_back(&connection);
        connection.isReady = true;
    }
    update(connection);
}

void PostPort::takePosts(TimePoint end)
{
    const uint64_t most = mReceived + mLimits.notifyBytes / turnShare;
    do
    {
        if (mReady.empty())
            return;
        PostConnection& connection = *mReady.front();
        mReady.pop_front();
        connection.isReady = false;
        read(connection, Clock::now());
        update(connection);
    } while (Clock::now() < end && mReceived < most && !mBudget.isExceeded());
}

// Once.
void PostPort::read(PostConnection& connection, TimePoint now)
{
    const std::size_t count = connection.receive(mBuffer.data(), mBuffer.size());
    connection.bytesSincePong += count;
    mReceived += count;
    std::string_view bytes(mBuffer.data(), count);
    FrameReader::Item item;
    bool opened = false;
    for (;;)
    {
        const FrameReader::Result result = connection.next(bytes, mLimits.messageBytes, item, opened);
        if (opened)
            open(connection);
        opened = false;
        if (result == FrameReader::Result::NeedsMore)
            break;
        if (result != FrameReader::Result::Command)
            take(result, item);
        else if (item.body.substr(0, pongCommand.size()) == pongCommand)
            takePong(connection, item.body.substr(pongCommand.size()), bytes.size(), now);
    }
}

// Its subscription, and behind it the PING whose answer shows that the client has it.
void PostPort::open(PostConnection& connection)
{
    noteOpened(connection);
    connection.send(subscription);
    if (connection.knowsPing())
        connection.sendCommand(std::string(pingCommand).append(subscribedContext));
}

void PostPort::take(FrameReader::Result result, const FrameReader::Item& item)
{
    if (result == FrameReader::Result::Message)
        mOnPost(item.body);
    else
        mRefusals.reportLong("Post", result == FrameReader::Result::Endless, mLimits.messageBytes);
}

/// @param behind so many bytes have been read behind it
void PostPort::takePong(PostConnection& connection, std::string_view context, std::size_t behind,
                        TimePoint now)
{
    connection.isSubscribed = true; // the first PING was the one behind the subscription
    if (context == subscribedContext)
        connection.bytesSincePong = behind;
    uint64_t barrier = 0;
    const auto [end, error] = std::from_chars(context.data(), context.data() + context.size(), barrier);
    if (error != std::errc() || end != context.data() + context.size() || barrier <= connection.ponged ||
        barrier > connection.pinged)
        return;
    connection.ponged = barrier;
    connection.bytesSincePong = behind;
    connection.patience.answered(
        std::chrono::duration_cast<Patience::Duration>(now - connection.waitedSince));
    if (connection.ponged == connection.pinged)
        endWait(connection);
    else
        beginWait(connection, now);
}

// ------------------------------------------------------------------------------------------------- barrier

uint64_t PostPort::openBarrier(bool isSync, TimePoint now)
{
    takeArrivals(now);
    ++mBarrier;
    const auto isClean = [](PostConnection* connection)
    {
        connection->isTouched = connection->bytesSincePong != 0;
        return !connection->isTouched;
    };
    mTouched.erase(std::remove_if(mTouched.begin(), mTouched.end(), isClean), mTouched.end());
    for (PostConnection* connection : mTouched)
    {
        if (isSync || connection->bytesSincePong >= fewBytes || connection->isUnfinished())
            ping(*connection, now);
    }
    return mBarrier;
}

// From each connection once: where more has come than that, or memory is short, a PING finds the end of it.
void PostPort::takeArrivals(TimePoint now)
{
    for (std::size_t count = mArrivals.wait(std::chrono::microseconds(0)), index = 0; index < count; ++index)
    {
        auto& connection = static_cast<PostConnection&>(*mArrivals.event(index).owner);
        if (mBudget.isExceeded())
            connection.bytesSincePong = std::max(connection.bytesSincePong, fewBytes);
        else
            read(connection, now);
        update(connection);
    }
}

void PostPort::ping(PostConnection& connection, TimePoint now)
{
    const bool owesAnswer = connection.ponged != connection.pinged;
    if (!connection.isOpen() || !connection.knowsPing() || (owesAnswer && now >= connection.endOfSyncWait))
        return;
    if (!owesAnswer)
    {
        mAwaited.push_back(&connection);
        beginWait(connection, now);
    }
    connection.pinged = mBarrier;
    connection.sendCommand(std::string(pingCommand) + std::to_string(mBarrier));
    poll(connection, EPOLLIN | (connection.hasOutput() ? EPOLLOUT : 0U)); // also where it is paused
}

void PostPort::beginWait(PostConnection& connection, TimePoint now)
{
    const Patience::Duration patience =
        std::max(Patience::shortest, std::min(connection.patience.now(), mPatience.left(now)));
    connection.waitedSince = now;
    connection.endOfQueryWait = now + patience;
    connection.endOfSyncWait = now + Patience::syncFactor * patience;
    connection.hasDisappointed = false;
}

void PostPort::endWait(PostConnection& connection)
{
    removeFrom(mAwaited, &connection);
}

bool PostPort::isReached(uint64_t barrier, bool isSync, TimePoint now) const
{
    const auto isWaitedFor = [&](const PostConnection* connection)
    {
        const TimePoint end = isSync ? connection->endOfSyncWait : connection->endOfQueryWait;
        return connection->pinged >= barrier && connection->ponged < barrier && now < end;
    };
    return std::none_of(mAwaited.begin(), mAwaited.end(), isWaitedFor);
}

TimePoint PostPort::due() const
{
    TimePoint due = Port::due();
    for (const PostConnection* connection : mAwaited)
        due = std::min(due,
                       connection->hasDisappointed ? connection->endOfSyncWait : connection->endOfQueryWait);
    return due;
}

void PostPort::doWhatIsDue(TimePoint now)
{
    Port::doWhatIsDue(now);
    for (std::size_t index = mAwaited.size(); index-- > 0;)
    {
        PostConnection& connection = *mAwaited[index];
        if (now >= connection.endOfQueryWait && !connection.hasDisappointed)
        {
            connection.hasDisappointed = true;
            connection.patience.disappointed();
            mPatience.spend(std::chrono::duration_cast<Patience::Duration>(connection.endOfQueryWait -
                                                                           connection.waitedSince));
        }
        if (now >= connection.endOfSyncWait)
            endWait(connection);
    }
}

// --------------------------------------------------------------------------------------------------- start

bool PostPort::areSubscribed(TimePoint acceptedBefore, TimePoint now)
{
    bool are = true;
    for (const auto& connection : peers())
    {
        const bool isShown = connection->isSubscribed || (connection->isOpen() && !connection->knowsPing() &&
                                                          now - connection->acceptedAt() >= subscriptionTime);
        if (isShown || connection->acceptedAt() > acceptedBefore)
            continue;
        if (!connection->startsWaitSince)
            connection->startsWaitSince = now;
        are = are && now - *connection->startsWaitSince >= longestStartWait;
    }
    return are;
}

// ------------------------------------------------------------------------------------------------- reading

void PostPort::pause(bool does)
{
    if (mIsPaused && !does)
    {
        for (const auto& connection : peers())
            poll(*connection, EPOLLIN | (connection->hasOutput() ? EPOLLOUT : 0U));
    }
    mIsPaused = does;
}

// What follows from what it has sent, or been sent.
void PostPort::update(PostConnection& connection)
{
    if (connection.bytesSincePong != 0 && !connection.isTouched)
    {
        connection.isTouched = true;
        mTouched.push_back(&connection);
    }
    if (connection.isDead())
        return close(connection);
    mBudget.update(connection.accounted, connection.heldBytes());
    if (connection.hasOutput() != ((connection.polled & EPOLLOUT) != 0))
        poll(connection, EPOLLIN | (connection.hasOutput() ? EPOLLOUT : 0U));
}
