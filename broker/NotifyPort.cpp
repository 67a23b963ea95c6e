#include "broker/NotifyPort.h"

#include <algorithm>
#include <array>
#include <numeric>

#include "broker/base/RemoveFrom.h"
#include "broker/wire/FrameWriter.h"
#include "protocol/BrokerDocuments.h"
#include "protocol/Words.h"

using namespace std::string_view_literals;

namespace
{

// Read at a time, and the fewest if many speak.
constexpr std::size_t bufferBytes = 4096;
constexpr std::size_t fewestBytes = 512;

// The library subscribes once, to everything; tools subscribe to a few prefixes.
constexpr std::size_t mostPrefixes = 16;
constexpr std::size_t longestPrefix = 255;

// Values that a subscriber missed go out in messages of about this size.
constexpr std::size_t missedBytes = std::size_t{64} * 1024;

// Messages with one value each leave together, about as many bytes at once.
constexpr std::size_t gatheredBytes = std::size_t{8} * 1024;

// The cost of a short value beyond its bytes.
constexpr std::size_t perValue = 32;

// How much of them to send to one subscriber before the others have their turn.
constexpr std::size_t turnBytes = std::size_t{256} * 1024;

// How long subscribers that cost more have their turn, and how long followers of everything wait meanwhile.
constexpr std::chrono::milliseconds flushTurn{3};
constexpr std::chrono::microseconds flushSlice{500};

// How long a closed subscriber may take to come back. The bytes that the kernel held for it are lost, too, so
// it is unknown how far it has read.
constexpr std::chrono::seconds closedMemory{3600};

// A subscriber that has read nothing for this long has stopped.
constexpr std::chrono::milliseconds progressTime{250};

bool takePrefix(std::string_view& text, std::string_view prefix)
{
    if (text.substr(0, prefix.size()) != prefix)
        return false;
    text.remove_prefix(prefix.size());
    return true;
}

} // namespace

NotifyPort::NotifyPort(const PortEnvironment& environment, const DeviceState& state)
    : Port(environment.poller, environment.identities, BrokerProtocol::notifyPort, Handshake::Kind::Notify,
           0),
      mBudget(environment.budget), mRefusals(environment.refusals), mGuard(environment.guard), mState(state),
      mLimit("notify", environment.limits.connections, environment.refusals), mBuffer(bufferBytes)
{
}

void NotifyPort::onAccepted(NotifyConnection& connection)
{
    connection.isFiltered = !Guard::seesAll(connection);
    resizeBuffers(peers().size());
    resizeBuffer(connection);
    mLimit.added(peers().size(), connection.acceptedAt());
}

void NotifyPort::onClose(NotifyConnection& connection)
{
    mGuard.dismiss(connection);
    if (connection.state == NotifyConnection::State::Following)
        mLog.leave(connection.position);
    becomeIdle(connection);
    mBudget.update(connection.accounted, 0);
    mReaders -= connection.isReader ? 1 : 0;
    connection.isReader = false;
    resizeBuffers(peers().size() - 1);
}

// --------------------------------------------------------------------------------------- the kernel's memory

void NotifyPort::resizeBuffers(std::size_t subscribers)
{
    if (!mSendBuffers.update(subscribers, mReaders))
        return;
    for (const auto& connection : peers())
        resizeBuffer(*connection);
}

void NotifyPort::resizeBuffer(NotifyConnection& connection) const
{
    connection.resizeSendBuffer(mSendBuffers.size(connection.isReader));
}

void NotifyPort::noteReading(NotifyConnection& connection)
{
    connection.isReader = true;
    ++mReaders;
    resizeBuffers(peers().size());
    resizeBuffer(connection);
}

// ------------------------------------------------------------------------------------------- subscriptions

void NotifyPort::serve(NotifyConnection& connection, uint32_t what, TimePoint now)
{
    if ((what & EPOLLOUT) != 0)
    {
        connection.isFull = false; // flush() sends to subscribers
        if (connection.state == NotifyConnection::State::Idle)
            connection.flush();
    }
    if ((what & ~static_cast<uint32_t>(EPOLLOUT)) != 0)
        read(connection, now);
    if (connection.state == NotifyConnection::State::Behind && !connection.isFull)
        sendFirst(connection, now);
    update(connection);
}

// Sends its first values now, so that it follows the log before the next post. If many subscribe at once,
// those that lack any have their turns in flush() instead, and miss the events until then.
void NotifyPort::sendFirst(NotifyConnection& connection, TimePoint now)
{
    if (mFirstTime >= flushTurn && mState.hasChangedSince(connection.revision))
        return;
    const TimePoint begin = Clock::now();
    send(connection, now);
    mFirstTime += Clock::now() - begin;
}

void NotifyPort::read(NotifyConnection& connection, TimePoint now)
{
    const Refusals::From from(mRefusals, connection);
    const std::size_t count = connection.receive(mBuffer.data(), shareOfTurn(fewestBytes, mBuffer.size()));
    std::string_view bytes(mBuffer.data(), count);
    if (count != 0 && !finishMessage(connection)) // a PONG must not get into the message
    {
        lackMemory(connection, now);
        return connection.kill();
    }
    FrameReader::Item item;
    bool opened = false;
    for (;;)
    {
        const FrameReader::Result result = connection.next(bytes, longestPrefix + 1, item, opened);
        if (opened)
            noteOpened(connection);
        opened = false;
        if (result == FrameReader::Result::NeedsMore)
            return;
        if (result == FrameReader::Result::TooLong || result == FrameReader::Result::Endless)
            mRefusals.reportLong("Subscription", result == FrameReader::Result::Endless, longestPrefix);
        else if (result == FrameReader::Result::Command)
            takeCommand(connection, item.body, now);
        else if (result == FrameReader::Result::Message && takePrefix(item.body, "\1"sv))
            subscribe(connection, item.body, now); // peers of version 3.0 subscribe in this way
        else if (result == FrameReader::Result::Message && takePrefix(item.body, "\0"sv))
            cancel(connection, item.body);
    }
}

void NotifyPort::takeCommand(NotifyConnection& connection, std::string_view command, TimePoint now)
{
    if (takePrefix(command, "\x09SUBSCRIBE"sv))
        subscribe(connection, command, now);
    else if (takePrefix(command, "\6CANCEL"sv))
        cancel(connection, command);
}

void NotifyPort::subscribe(NotifyConnection& connection, std::string_view prefix, TimePoint now)
{
    if (connection.prefixes.size() == mostPrefixes || prefix.size() > longestPrefix)
        return mRefusals.report(Refusal::Subscriptions,
                                "Subscription refused, a connection may have %zu of %zu bytes", mostPrefixes,
                                longestPrefix);
    connection.prefixes.emplace_back(prefix);
    if (connection.state != NotifyConnection::State::Idle)
        return;
    mSubscribers.push_back(&connection);
    connection.state = NotifyConnection::State::Behind;
    connection.revision = mCatchUp.subscribed(now).value_or(mState.revision());
    connection.eventsKnown = mLog.eventsSoFar();
    connection.nextValue = nullptr;
    connection.told.begin(connection.revision);
}

void NotifyPort::cancel(NotifyConnection& connection, std::string_view prefix)
{
    const auto found = std::find(connection.prefixes.begin(), connection.prefixes.end(), prefix);
    if (found == connection.prefixes.end())
        return;
    connection.prefixes.erase(found);
    if (!connection.prefixes.empty())
        return;
    if (connection.state == NotifyConnection::State::Following)
        fallBehind(connection);
    becomeIdle(connection);
}

void NotifyPort::becomeIdle(NotifyConnection& connection)
{
    connection.state = NotifyConnection::State::Idle;
    removeFrom(mSubscribers, &connection);
}

// ------------------------------------------------------------------------------------------------- sending

void NotifyPort::publish(std::string_view message, uint64_t revision, uint64_t events)
{
    mLog.append(message, revision, events);
    ++mPublished;
}

void NotifyPort::flush(TimePoint now)
{
    mFirstTime = Clock::duration::zero();
    flushFollowers(now);
    flushOthers(now);
    mLog.trim();
    mBudget.update(mLogCounted, mLog.heldBytes());
}

void NotifyPort::flushFollowers(TimePoint now)
{
    // Backwards, since sending may close and remove a connection.
    for (std::size_t index = mSubscribers.size(); index-- > 0;)
    {
        NotifyConnection& connection = *mSubscribers[index];
        if (!connection.followsAll() || !isToBeSent(connection))
            continue;
        send(connection, now);
        update(connection);
    }
}

// With many subscribers, the kernel holds little for each, so an active reader soon has room again. Stopped
// subscribers are not worth asking.
void NotifyPort::refillFollowers(TimePoint now)
{
    for (NotifyConnection* connection : mSubscribers)
    {
        if (connection->followsAll() && now - connection->tookAt < progressTime)
            connection->isFull = false;
    }
    flushFollowers(now);
}

// Those that follow lack little, so they do not wait for the first values of others.
void NotifyPort::flushOthers(TimePoint now)
{
    const TimePoint end = Clock::now() + flushTurn;
    const bool areFollowersLeft = flushSome(NotifyConnection::State::Following, mNextFollower, now, end);
    const bool areOthersLeft = flushSome(NotifyConnection::State::Behind, mNextBehind, now, end);
    mHasLeftOver = areFollowersLeft || areOthersLeft;
}

// Serves at least one. Returns whether the time was over before each of them had its turn.
bool NotifyPort::flushSome(NotifyConnection::State state, std::size_t& next, TimePoint now, TimePoint end)
{
    bool hasLeftOver = false;
    TimePoint time = Clock::now();
    TimePoint sliceEnd = time + flushSlice;
    const std::size_t count = mSubscribers.size();
    for (std::size_t looked = 0; looked < count && !hasLeftOver; ++looked)
    {
        next = next < mSubscribers.size() ? next : 0;
        NotifyConnection& connection = *mSubscribers[next];
        if (connection.state == state && !connection.followsAll() && isToBeSent(connection))
        {
            send(connection, now);
            update(connection);
            time = Clock::now();
            if (time >= sliceEnd)
            {
                refillFollowers(time);
                time = Clock::now();
                sliceEnd = time + flushSlice;
            }
            // When a connection has gone, another is at its index.
            hasLeftOver = mSubscribers.size() != count || time >= end;
        }
        ++next;
    }
    return hasLeftOver;
}

bool NotifyPort::isToBeSent(const NotifyConnection& connection) const
{
    if (connection.isFull)
        return false;
    switch (connection.state)
    {
    case NotifyConnection::State::Idle:
        break;
    case NotifyConnection::State::Following:
        return connection.hasOutput() || connection.position != mLog.end();
    case NotifyConnection::State::Behind:
        return true;
    }
    return connection.hasOutput();
}

void NotifyPort::send(NotifyConnection& connection, TimePoint now)
{
    const uint64_t before = connection.movedBytes();
    connection.isFull = !sendWhatItLacks(connection, now);
    if (connection.hasBeenFull && !connection.isReader && connection.movedBytes() != before)
        noteReading(connection);
    connection.hasBeenFull = connection.hasBeenFull || connection.isFull;
}

// Returns false if the connection takes no more for now.
bool NotifyPort::sendWhatItLacks(NotifyConnection& connection, TimePoint now)
{
    const std::size_t before = connection.outputBytes();
    bool isDone = connection.flush();
    if (connection.outputBytes() != before)
        connection.tookAt = now;
    if (isDone && connection.state == NotifyConnection::State::Behind)
        isDone = sendMissed(connection, now);
    if (isDone && connection.state == NotifyConnection::State::Following)
        isDone = connection.wantsAll() ? sendLog(connection, now) : sendMatching(connection);
    return isDone;
}

bool NotifyPort::sendLog(NotifyConnection& connection, TimePoint now)
{
    std::array<iovec, 16> pieces{};
    while (connection.position != mLog.end())
    {
        const std::size_t count = mLog.pieces(connection.position, mLog.end(), pieces.data(), pieces.size());
        const std::size_t sent = connection.sendPieces(pieces.data(), count);
        moveTo(connection, connection.position + sent);
        if (sent != 0)
            connection.tookAt = now;
        if (sent != std::accumulate(pieces.begin(), pieces.begin() + count, std::size_t{0},
                                    [](std::size_t sum, const iovec& piece) { return sum + piece.iov_len; }))
            return false;
    }
    return true;
}

// Copies the messages that the connection wants, so its position is always between two messages. Skipping
// unwanted messages takes time, too, and counts towards the turn.
bool NotifyPort::sendMatching(NotifyConnection& connection)
{
    std::string copied;
    const NotificationLog::Position turnEnd = connection.position + turnBytes;
    while (const NotificationLog::Message* message =
               mLog.messageBehind(connection.position, connection.nextMessage))
    {
        if (connection.position >= turnEnd)
            return connection.flush() && false;
        if (connection.isFiltered)
            copyFiltered(connection, message->end);
        else if (connection.wants(mLog.beginning(connection.position, longestPrefix, copied)))
            mLog.copy(connection.position, message->end, connection.output());
        moveTo(connection, message->end);
        ++connection.nextMessage;
        if (connection.outputBytes() >= turnBytes && !connection.flush())
            return false;
    }
    return connection.flush();
}

// Copies the visible part. Prefixes are matched against this part only: a match of the rest would reveal what
// it is.
void NotifyPort::copyFiltered(NotifyConnection& connection, NotificationLog::Position end)
{
    const std::string& text = mFilter.partFor(connection, connection.position, end);
    if (!text.empty() && connection.wants(text))
        FrameWriter::message([&](std::string_view part) { connection.output() += part; }, text);
}

// Sends the latest values of keys that changed while the subscriber was behind. They go in the order of their
// changes, so that the next message continues after this one.
bool NotifyPort::sendMissed(NotifyConnection& connection, TimePoint now)
{
    for (std::size_t looked = 0; looked < turnBytes;)
    {
        const DeviceState::Value* value = nextMissed(connection);
        const bool isLast = value == nullptr;
        if (!isLast)
            looked += collectMissed(connection, value);
        if ((isLast || connection.outputBytes() >= gatheredBytes) && !flushMissed(connection, now))
            return false;
        if (isLast)
        {
            follow(connection);
            return true;
        }
    }
    flushMissed(connection, now);
    return false;
}

bool NotifyPort::flushMissed(NotifyConnection& connection, TimePoint now)
{
    const bool hadOutput = connection.hasOutput();
    const bool isDone = connection.flush();
    if (hadOutput && isDone)
        connection.tookAt = now;
    return isDone;
}

// Continues with the remembered value, if it has not changed since. Otherwise this takes a search.
const DeviceState::Value* NotifyPort::nextMissed(const NotifyConnection& connection) const
{
    if (connection.nextValue != nullptr && connection.nextValue->revision == connection.nextValueRevision)
        return connection.nextValue;
    return mState.changedSince(connection.revision);
}

// Returns how many bytes it has looked at.
std::size_t NotifyPort::collectMissed(NotifyConnection& connection, const DeviceState::Value* value)
{
    // One value per message for a subscriber that may want only some of them.
    const std::size_t most = connection.hasNoPrefix() ? missedBytes : 1;
    DeviceState::Members members;
    std::size_t bytes = 0;
    for (; value != nullptr && bytes < most; value = value->newer)
    {
        if (!connection.isFiltered || mGuard.shows(connection, value->key))
            members.push_back({value->key, value->text});
        bytes += value->key.size() + value->text.size() + perValue;
        connection.revision = value->revision;
    }
    connection.nextValue = value;
    connection.nextValueRevision = value == nullptr ? 0 : value->revision;
    if (members.empty())
        return bytes;
    std::sort(members.begin(), members.end(),
              [](const auto& one, const auto& other) { return one.name < other.name; });
    std::string text;
    BrokerProtocol::appendUpdate(text, BrokerProtocol::Key::statusUpdate, members);
    if (connection.wants(text))
        FrameWriter::message([&](std::string_view part) { connection.output() += part; }, text);
    return bytes;
}

uint64_t NotifyPort::toldToAll(TimePoint now)
{
    uint64_t least = std::min(mCatchUp.leastAwaited(now).value_or(mState.revision()), mState.revision());
    for (NotifyConnection* connection : mSubscribers)
    {
        lookAtTold(*connection);
        least = std::min(least, connection->told.revision());
        // Also applies to a subscriber that gets everything anew: its nextValue must stay valid.
        if (connection->state == NotifyConnection::State::Behind)
            least = std::min(least, connection->revision);
    }
    return least;
}

void NotifyPort::lookAtTold(NotifyConnection& connection) const
{
    uint64_t revision = connection.revision;
    uint64_t missing = 0; // bytes of its current message
    if (connection.state == NotifyConnection::State::Following && connection.position == mLog.end())
        revision = mState.revision();
    else if (connection.state == NotifyConnection::State::Following)
    {
        const NotificationLog::Message& message = mLog.messageAt(connection.position);
        revision = message.revision;
        missing = message.end - connection.position;
        if (missing != 0 && !connection.wantsAll()) // another message, or none, takes its place
            revision = 0;
    }
    const uint64_t lastByte = connection.sentBytes() + connection.outputBytes() + missing;
    connection.told.look(revision, lastByte, connection.sentBytes() - connection.unacknowledgedBytes());
}

// --------------------------------------------------------------------------------------- following the log

void NotifyPort::follow(NotifyConnection& connection)
{
    connection.state = NotifyConnection::State::Following;
    connection.position = mLog.end();
    mLog.enter(connection.position);
    mMissedEvents += mLog.eventsSoFar() - connection.eventsKnown;
}

void NotifyPort::moveTo(NotifyConnection& connection, NotificationLog::Position position)
{
    mLog.advance(connection.position, position);
    connection.position = position;
}

// Moves the rest of the connection's current message to its own output. Then its position is between two
// messages. Returns false if there is no memory for that.
bool NotifyPort::finishMessage(NotifyConnection& connection)
{
    if (connection.state != NotifyConnection::State::Following)
        return true;
    const NotificationLog::Position end = mLog.messageAt(connection.position).end;
    const auto missing = static_cast<std::size_t>(end - connection.position);
    if (missing != 0 && !mBudget.allows(missing))
        return false;
    mLog.copy(connection.position, end, connection.output());
    moveTo(connection, end);
    mBudget.update(connection.accounted, connection.heldBytes());
    return true;
}

// Returns false if there is no memory for the rest of its current message.
bool NotifyPort::fallBehind(NotifyConnection& connection)
{
    if (!finishMessage(connection))
        return false;
    const NotificationLog::Message& message = mLog.messageAt(connection.position);
    connection.revision = message.revision;
    connection.eventsKnown = message.eventsUpTo;
    connection.nextValue = nullptr;
    mLog.leave(connection.position);
    connection.state = NotifyConnection::State::Behind;
    return true;
}

void NotifyPort::shortenLog(std::size_t bytes, TimePoint now)
{
    while (mLog.heldBytes() > bytes && mLog.endOfOldest() != 0)
    {
        const NotificationLog::Position end = mLog.endOfOldest();
        for (std::size_t index = mSubscribers.size(); index-- > 0;)
        {
            NotifyConnection& connection = *mSubscribers[index];
            if (connection.state != NotifyConnection::State::Following || connection.position >= end)
                continue;
            ++mFallenBehind;
            if (!fallBehind(connection))
            {
                lackMemory(connection, now);
                close(connection);
            }
        }
        mLog.trim();
    }
    mBudget.update(mLogCounted, mLog.heldBytes());
}

void NotifyPort::takeOverRights(bool isToldAgain, TimePoint now)
{
    mFilter.clear();
    for (std::size_t index = peers().size(); index-- > 0;)
    {
        NotifyConnection& connection = *peers()[index];
        const bool wasFiltered = std::exchange(connection.isFiltered, !Guard::seesAll(connection));
        // A newly filtered connection may be in the middle of a message, which must end as it began.
        if (wasFiltered != connection.isFiltered || (isToldAgain && connection.isFiltered))
            tellAgain(connection, now);
    }
}

// The connection does not get the events that it has not read yet.
void NotifyPort::tellAgain(NotifyConnection& connection, TimePoint now)
{
    if (connection.state == NotifyConnection::State::Idle)
        return;
    if (connection.state == NotifyConnection::State::Following && !fallBehind(connection))
    {
        lackMemory(connection, now);
        return close(connection);
    }
    connection.revision = 0;
    connection.nextValue = nullptr;
}

void NotifyPort::closeForMemory(NotifyConnection& connection, TimePoint now)
{
    connection.dropOutput();
    mCatchUp.disconnected(0, now, closedMemory);
    close(connection);
}

void NotifyPort::lackMemory(NotifyConnection& connection, TimePoint now)
{
    connection.dropOutput();
    const Refusals::From from(mRefusals, connection);
    mRefusals.report(Refusal::Memory, "Closing a subscriber in the middle of a message, %zu bytes held",
                     mBudget.held());
    mCatchUp.disconnected(0, now, closedMemory);
}

std::size_t NotifyPort::backlog(TimePoint now) const
{
    NotificationLog::Position slowest = mLog.end();
    for (const NotifyConnection* connection : mSubscribers)
    {
        if (connection->state == NotifyConnection::State::Following &&
            now - connection->tookAt < progressTime)
            slowest = std::min(slowest, connection->position);
    }
    return slowest == mLog.end() ? 0 : mLog.heldBytes(slowest);
}

uint64_t NotifyPort::queuedBytes(const NotifyConnection& connection) const
{
    const bool isFollowing = connection.state == NotifyConnection::State::Following;
    return connection.outputBytes() + (isFollowing ? mLog.end() - connection.position : 0);
}

bool NotifyPort::hasOutput() const
{
    return std::any_of(peers().begin(), peers().end(),
                       [this](const auto& connection)
                       {
                           return connection->hasOutput() ||
                                  (connection->state == NotifyConnection::State::Following &&
                                   connection->position != mLog.end());
                       });
}

// ------------------------------------------------------------------------------------------- housekeeping

// Acts on the data that the connection has received or sent.
void NotifyPort::update(NotifyConnection& connection)
{
    if (connection.isDead())
        return close(connection);
    mBudget.update(connection.accounted, connection.heldBytes());
    poll(connection, EPOLLIN | (connection.isFull || connection.hasOutput() ? EPOLLOUT : 0U));
}
