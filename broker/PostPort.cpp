#include "broker/PostPort.h"

#include <algorithm>
#include <string>
#include <utility>

#include "broker/base/RemoveFrom.h"
#include "broker/wire/Ping.h"
#include "daemon/OptionText.h"
#include "protocol/Words.h"

using namespace std::string_view_literals;

namespace
{

// The bytes of one read. The rest waits until the other connections have had their turn.
constexpr std::size_t bufferBytes = std::size_t{64} * 1024;

// The part of the notification log's size that is read before other work.
constexpr std::size_t turnShare = 8;
// The bytes of all waiting connections' turns together, and the fewest of one turn.
constexpr std::size_t bytesOfAllTurns = std::size_t{1024} * 1024;
constexpr std::size_t fewestBytes = std::size_t{4} * 1024;

// If one read of a connection takes longer, or leaves more of an unfinished message, the connection is read
// after the others. It delays all of them, or takes their memory, and many such connections must not delay a
// client that posts little.
constexpr std::chrono::milliseconds heavyTime{3};
constexpr std::size_t heavyBytes = std::size_t{4} * 1024;

// Their part of a turn, also if the others have more to say.
constexpr std::chrono::milliseconds timeOfHeavy{1};

// How long a barrier may read by itself; the rest is read in turn.
constexpr std::chrono::milliseconds longestTaking{5};

// Half of a new connection's window. If less than this has come since the last PONG, nothing was held back
// before.
constexpr std::size_t fewBytes = std::size_t{32} * 1024;

// A subscription to everything, as a message, which every version of the protocol understands.
constexpr std::string_view subscription = "\0\1\1"sv;

// After this time, the subscription has certainly reached a peer that does not know PING.
constexpr std::chrono::milliseconds subscriptionTime{15};

// The contexts of PINGs, which their PONGs repeat: a barrier's number, the same after this letter, or this
// text.
constexpr char ownLetter = 'o';
constexpr std::string_view subscribedContext = "subscribed"sv;

} // namespace

PostPort::PostPort(const PortEnvironment& environment, OnPost onPost)
    : Port(environment.poller, environment.identities, BrokerProtocol::postPort, Handshake::Kind::Post, 0),
      mBudget(environment.budget), mLimits(environment.limits), mRefusals(environment.refusals),
      mGuard(environment.guard), mOnPost(std::move(onPost)),
      mLimit("post", environment.limits.connections, environment.refusals), mPatience(Clock::now()),
      mBuffer(bufferBytes)
{
}

void PostPort::onAccepted(PostConnection& connection)
{
    connection.number = accepted();
    ++mStartNews;
    mArrivals.add(connection.descriptor(), EPOLLIN, &connection);
    mArrivals.reserve(peers().size());
    mLimit.added(peers().size(), connection.acceptedAt());
}

void PostPort::onClose(PostConnection& connection)
{
    mGuard.dismiss(connection);
    if (connection.ownProbe)
        connection.ownProbe->end();
    ++mStartNews;
    removeFrom(mReady, &connection);
    removeFrom(mHeavy, &connection);
    removeFrom(mUnread, &connection);
    removeFrom(mTouched, &connection);
    removeFrom(mAwaited, &connection);
    mPatience.spend(connection.pongs.abandon(Clock::now()));
    mBudget.update(connection.accounted, 0);
}

void PostPort::serve(PostConnection& connection, uint32_t what)
{
    if ((what & EPOLLOUT) != 0)
        connection.flush();
    if ((what & ~static_cast<uint32_t>(EPOLLOUT)) != 0)
    {
        // The kernel reports an ended connection even if the broker does not ask for it, so the broker reads
        // it.
        const bool hasEnded = (what & (EPOLLHUP | EPOLLERR)) != 0;
        if (mIsPaused && connection.isOpen() && !connection.owesPong() && !hasEnded)
            return poll(connection, connection.hasOutput() ? EPOLLOUT : 0U);
        makeReady(connection);
    }
    update(connection);
}

void PostPort::makeReady(PostConnection& connection)
{
    if (!connection.isReady)
        (connection.isHeavy && !connection.isAwaited(Clock::now()) ? mHeavy : mReady).push_back(&connection);
    connection.isReady = true;
}

void PostPort::takePosts(TimePoint end)
{
    mMostReceived = mReceived + mLimits.notifyBytes / turnShare;
    takeSome(mReady, mHeavy.empty() ? end : end - timeOfHeavy);
}

void PostPort::takeHeavyPosts(TimePoint end)
{
    takeSome(mHeavy, std::max(end, Clock::now() + timeOfHeavy));
}

// Reads at least one connection, if there is one.
void PostPort::takeSome(std::deque<PostConnection*>& connections, TimePoint end)
{
    do
    {
        if (connections.empty())
            return;
        PostConnection& connection = *connections.front();
        connections.pop_front();
        connection.isReady = false;
        read(connection, Clock::now());
        update(connection);
    } while (Clock::now() < end && mReceived < mMostReceived && hasMemory(&connections == &mHeavy));
}

// If memory is short, the broker still reads those that hold little. Otherwise they would wait for all
// others.
bool PostPort::hasMemory(bool isForHeavy) const
{
    return isForHeavy ? !mBudget.isExceeded() : !mBudget.isFull();
}

// Reads once.
void PostPort::read(PostConnection& connection, TimePoint now)
{
    const Refusals::From from(mRefusals, connection);
    const std::size_t others = (connection.isHeavy ? mHeavy : mReady).size();
    const std::size_t most = std::clamp(bytesOfAllTurns / (others + 1), fewestBytes, mBuffer.size());
    const std::size_t count = connection.receive(mBuffer.data(), most);
    connection.bytesSincePong += count;
    mReceived += count;
    connection.pongs.read(count, now);
    connection.backlog.read(count == most && connection.arrivals() != 0, now, looks());
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
            take(connection, result, item);
        else if (const auto context = Ping::pongContext(item.body))
            takePong(connection, *context, bytes.size(), now);
    }
    if (connection.pingToSend != 0 && !connection.pongs.isUnread())
        sendPing(connection);
    const bool isLong = connection.isUnfinished() && connection.heldBytes() > heavyBytes;
    connection.isHeavy = isLong || Clock::now() - now > heavyTime;
}

// Sends the subscription, and a PING whose answer shows that the client has the subscription.
void PostPort::open(PostConnection& connection)
{
    noteOpened(connection);
    connection.startWait.beginAnew();
    connection.send(subscription);
    if (connection.knowsPing())
        connection.sendCommand(Ping::command(subscribedContext));
}

void PostPort::take(PostConnection& connection, FrameReader::Result result, const FrameReader::Item& item)
{
    ++connection.messages;
    if (result == FrameReader::Result::Message)
        return mOnPost(connection, item.body);
    const bool isEndless = result == FrameReader::Result::Endless; // then nothing more is read
    if (isEndless)
        lose();
    mRefusals.reportLong("Post", isEndless, mLimits.messageBytes);
}

void PostPort::closeForMemory(PostConnection& connection)
{
    lose();
    close(connection);
}

void PostPort::lose()
{
    ++mLosses;
    mLastLoss = Clock::now();
}

/// @param behind bytes that were read after it
void PostPort::takePong(PostConnection& connection, std::string_view context, std::size_t behind,
                        TimePoint now)
{
    if (context == subscribedContext)
    {
        connection.isSubscribed = true;
        ++mStartNews;
        connection.bytesSincePong = behind;
        return;
    }
    if (!context.empty() && context.front() == ownLetter)
        return takeOwnPong(connection, OptionText::readNumber(context.substr(1)).value_or(0), behind, now);
    SharedPatience::Duration cost{0};
    const std::optional<uint64_t> barrier = OptionText::readNumber(context);
    if (!barrier || !connection.pongs.ponged(*barrier, now, cost))
        return;
    mPatience.spend(cost);
    connection.bytesSincePong = behind;
    removeFrom(mAwaited, &connection);
    ping(connection, now);
    if (connection.pongs.owes())
        mAwaited.push_back(&connection);
}

void PostPort::takeOwnPong(PostConnection& connection, uint64_t barrier, std::size_t behind, TimePoint now)
{
    if (!connection.ownProbe || !connection.ownProbe->lacks(barrier))
        return;
    connection.ownProbe->answered(barrier, now);
    connection.bytesSincePong = behind;
}

// ------------------------------------------------------------------------------------------------- barrier

uint64_t PostPort::openBarrier(bool isSync, TimePoint now, const Concerns& concerns)
{
    takeArrivals(concerns);
    ++mBarrier;
    const auto isClean = [](PostConnection* connection)
    {
        connection->isTouched = connection->bytesSincePong != 0;
        return !connection->isTouched;
    };
    mTouched.erase(std::remove_if(mTouched.begin(), mTouched.end(), isClean), mTouched.end());
    for (PostConnection* connection : mTouched)
    {
        const bool isBehind = connection->bytesSincePong >= fewBytes || connection->isUnfinished();
        if ((isSync || isBehind) && concerns(*connection))
            want(*connection, !isBehind, true, now);
    }
    for (PostConnection* connection : std::exchange(mUnread, {}))
    {
        if (concerns(*connection))
            want(*connection, false, false, now);
    }
    const auto isGivenUp = [](PostConnection* connection)
    {
        connection->isTouched = !connection->pongs.hasGivenUp();
        return !connection->isTouched;
    };
    mTouched.erase(std::remove_if(mTouched.begin(), mTouched.end(), isGivenUp), mTouched.end());
    return mBarrier;
}

void PostPort::want(PostConnection& connection, bool isForSync, bool wasRead, TimePoint now)
{
    if (!connection.isOpen() || !connection.knowsPing())
        return;
    const bool isAwaited = connection.pongs.isAwaited();
    if (!wasRead)
        connection.pongs.wasNotRead();
    connection.pongs.want(mBarrier, isForSync, connection.arrivals(), mPatience.left(now), now);
    ping(connection, now);
    if (!isAwaited && connection.pongs.isAwaited())
        mAwaited.push_back(&connection);
}

// Reads each connection once, heavy ones last. If more has come than that, or time or memory is short, a PING
// finds the end. Heavy ones whose posts are not waited for have their turn later: a long post takes long to
// apply and to store.
void PostPort::takeArrivals(const Concerns& concerns)
{
    std::vector<PostConnection*> light;
    std::vector<PostConnection*> heavy;
    for (std::size_t count = mArrivals.wait(std::chrono::microseconds(0)), index = 0; index < count; ++index)
    {
        auto& connection = static_cast<PostConnection&>(*mArrivals.event(index).owner);
        if (!connection.isHeavy)
            light.push_back(&connection);
        else if (concerns(connection))
            heavy.push_back(&connection);
    }
    const TimePoint end = Clock::now() + longestTaking; // the round may have begun long ago
    takeArrivals(light, end);
    takeArrivals(heavy, end);
}

void PostPort::takeArrivals(const std::vector<PostConnection*>& connections, TimePoint end)
{
    for (PostConnection* connection : connections)
    {
        if (const TimePoint time = Clock::now(); time < end && hasMemory(connection->isHeavy))
        {
            read(*connection, time);
            update(*connection);
            continue;
        }
        makeReady(*connection);
        mUnread.push_back(connection);
    }
}

// Sends a PING if one is due.
void PostPort::ping(PostConnection& connection, TimePoint now)
{
    const uint64_t barrier = connection.pongs.pingDue();
    if (barrier == 0)
        return;
    connection.pongs.pinged(now);
    connection.pingToSend = barrier;
    if (!connection.pongs.isUnread())
        sendPing(connection);
    awaitAnswer(connection);
}

// Reads the answer even while the port is paused, and before requests are answered.
void PostPort::awaitAnswer(PostConnection& connection)
{
    const auto heavy = std::find(mHeavy.begin(), mHeavy.end(), &connection);
    if (heavy != mHeavy.end())
    {
        mHeavy.erase(heavy);
        mReady.push_back(&connection);
    }
    poll(connection, EPOLLIN | (connection.hasOutput() ? EPOLLOUT : 0U));
}

// Call this when everything that had arrived before the barrier is read. A client that has ended gets no
// PING: its system would reset the connection, and its last posts would be lost. The end of its data also
// ends the wait.
void PostPort::sendPing(PostConnection& connection)
{
    const uint64_t barrier = std::exchange(connection.pingToSend, 0);
    if (!connection.hasPeerEnded())
        connection.sendCommand(Ping::command(std::to_string(barrier)));
}

std::shared_ptr<const OwnProbe> PostPort::askOwn(PostConnection& connection, uint64_t barrier, TimePoint now)
{
    if (!connection.ownProbe)
        connection.ownProbe = std::make_shared<OwnProbe>();
    OwnProbe& probe = *connection.ownProbe;
    if (probe.isDue(barrier, now) && !connection.hasPeerEnded())
    {
        probe.asked(barrier, now);
        connection.sendCommand(Ping::command(ownLetter + std::to_string(barrier)));
        awaitAnswer(connection);
    }
    return probe.lacks(barrier) ? connection.ownProbe : nullptr;
}

bool PostPort::needsOwnProbe(const PostConnection& connection)
{
    return connection.isOpen() && connection.knowsPing() &&
           (connection.bytesSincePong == 0 || connection.pongs.isShorterThan(OwnProbe::longest));
}

TimePoint PostPort::due() const
{
    TimePoint due = Port::due();
    for (const PostConnection* connection : mAwaited)
        due = std::min(due, connection->pongs.due());
    return due;
}

void PostPort::doWhatIsDue(TimePoint now)
{
    Port::doWhatIsDue(now);
    const auto isGivenUp = [&](PostConnection* connection)
    {
        mPatience.spend(connection->pongs.judge(now));
        return !connection->pongs.isAwaited();
    };
    mAwaited.erase(std::remove_if(mAwaited.begin(), mAwaited.end(), isGivenUp), mAwaited.end());
}

// --------------------------------------------------------------------------------------------------- start

// Newest first: an old one is likely to stay silent. Reading a connection may close it. Then another takes
// its index, which has had its turn.
void PostPort::readStarting(TimePoint now)
{
    const TimePoint end = now + longestTaking;
    for (std::size_t index = peers().size(); index-- > 0 && Clock::now() < end;)
    {
        PostConnection& connection = *peers()[index];
        if (isSubscribed(connection, now) || connection.startWait.isOver() || connection.arrivals() == 0 ||
            !hasMemory(connection.isHeavy))
            continue;
        read(connection, now);
        update(connection);
    }
}

PostPort::Unsubscribed PostPort::unsubscribed(TimePoint now)
{
    Unsubscribed result;
    for (const auto& connection : peers())
    {
        if (isSubscribed(*connection, now))
            continue;
        uint64_t& first = connection->startWait.look(now) ? result.givenUp : result.awaited;
        first = std::min(first, connection->number);
    }
    return result;
}

bool PostPort::isSubscribed(const PostConnection& connection, TimePoint now)
{
    return connection.isSubscribed || (connection.isOpen() && !connection.knowsPing() &&
                                       now - connection.acceptedAt() >= subscriptionTime);
}

std::size_t PostPort::subscribed(TimePoint now) const
{
    return static_cast<std::size_t>(std::count_if(peers().begin(), peers().end(),
                                                  [now](const auto& connection)
                                                  { return isSubscribed(*connection, now); }));
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

// Acts on the data that the connection has received or sent.
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
