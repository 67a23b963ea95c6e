#include "broker/RequestPort.h"

#include <algorithm>
#include <array>
#include <string_view>
#include <unistd.h>

#include "broker/base/RemoveFrom.h"
#include "broker/wire/Ping.h"
#include "protocol/Words.h"

using namespace std::string_view_literals;

namespace
{

// Read at a time, and the fewest if many ask.
constexpr std::size_t bufferBytes = std::size_t{16} * 1024;
constexpr std::size_t fewestBytes = std::size_t{4} * 1024;

// The kernel holds this much for a client that does not read. A thousand such clients must not use up its
// memory. The kernel doubles the number.
constexpr int sendBufferBytes = 32 * 1024;

// Sent to one connection before the others have their turn.
constexpr std::size_t longTurnBytes = std::size_t{32} * 1024;

// Memory that stays allocated for the next request.
constexpr std::size_t keptBytes = 1024;

constexpr useconds_t pauseMicroseconds = 1000;

// A delimiter, and an empty last frame.
constexpr std::string_view emptyAnswer = "\1\0\0\0"sv;

// The context of the PING before an empty answer; the PONG repeats it.
constexpr std::string_view emptyContext = "empty"sv;

// The context of the PING to a starting client, and its answer as the bytes of the wire.
constexpr std::string_view probeContext = "start"sv;
constexpr std::string_view probeAnswer = "\4\12\4PONGstart"sv;

} // namespace

RequestPort::RequestPort(const PortEnvironment& environment, const DeviceState& state, OnRequest onRequest,
                         OnClose onClose)
    : Port(environment.poller, environment.identities, BrokerProtocol::requestPort, Handshake::Kind::Request,
           sendBufferBytes),
      mBudget(environment.budget), mLimits(environment.limits), mRefusals(environment.refusals),
      mGuard(environment.guard), mState(state), mOnRequest(std::move(onRequest)),
      mOnClose(std::move(onClose)), mLimit("request", environment.limits.connections, environment.refusals),
      mBuffer(bufferBytes)
{
}

void RequestPort::onClose(RequestConnection& connection)
{
    mGuard.dismiss(connection);
    removeFrom(mSilent, &connection);
    removeFrom(mHeld, &connection);
    removeFrom(mLong, &connection);
    mOnClose(connection);
    mBudget.update(connection.accounted, 0);
}

void RequestPort::serve(RequestConnection& connection, uint32_t what, TimePoint now)
{
    if ((what & EPOLLOUT) != 0)
        send(connection, 0);
    if ((what & ~static_cast<uint32_t>(EPOLLOUT)) != 0)
        read(connection, now);
    update(connection);
}

void RequestPort::read(RequestConnection& connection, TimePoint now)
{
    if (connection.isAsking && connection.startProbe.isUnderWay())
        return readProbe(connection);
    if (connection.isAsking && (connection.polled & EPOLLIN) != 0)
        return poll(connection, connection.polled & ~static_cast<uint32_t>(EPOLLIN));
    const std::size_t count = connection.receive(mBuffer.data(), shareOfTurn(fewestBytes, mBuffer.size()));
    take(connection, {mBuffer.data(), count}, now);
}

void RequestPort::take(RequestConnection& connection, std::string_view bytes, TimePoint now)
{
    FrameReader::Item item;
    bool opened = false;
    while (!connection.isAsking)
    {
        const FrameReader::Result result = connection.next(bytes, mLimits.messageBytes, item, opened);
        if (opened)
        {
            noteOpened(connection);
            connection.openedAt = now;
            connection.readyAt = connection.lastArrival(now);
            mSilent.push_back(&connection);
        }
        opened = false;
        if (result == FrameReader::Result::NeedsMore)
            return;
        if (result != FrameReader::Result::Command)
            take(connection, result, item, now);
        else if (const auto context = Ping::pongContext(item.body))
            takePong(connection, *context, now);
    }
    connection.unread.assign(bytes);
}

void RequestPort::takePong(RequestConnection& connection, std::string_view context, TimePoint now)
{
    if (context == emptyContext)
        connection.emptyAnswer.ponged(connection.lastArrival(now));
}

void RequestPort::probe(RequestConnection& connection)
{
    if (!connection.startProbe.isDue())
        return;
    if (!connection.knowsPing() || !connection.unread.empty())
        return connection.startProbe.giveUp();
    connection.startProbe.sent();
    connection.sendCommand(Ping::command(probeContext));
    poll(connection, connection.polled | EPOLLIN | (connection.hasOutput() ? EPOLLOUT : 0U));
}

// A client that waits for the answer to its "Sync" sends only this. If it sends anything else, nothing more
// is read before the answer.
void RequestPort::readProbe(RequestConnection& connection)
{
    if (connection.unread.size() >= probeAnswer.size())
        return connection.startProbe.giveUp();
    std::array<char, probeAnswer.size()> buffer{};
    const std::size_t lacking = probeAnswer.size() - connection.unread.size();
    const std::size_t count = connection.receive(buffer.data(), lacking);
    connection.unread.append(buffer.data(), count);
    if (probeAnswer.substr(0, connection.unread.size()) != connection.unread)
    {
        ++mProbed;
        return connection.startProbe.giveUp();
    }
    if (connection.unread.size() != probeAnswer.size())
        return;
    connection.unread.clear();
    connection.startProbe.answered();
    ++mProbed;
    probe(connection);
}

// Takes a request.
void RequestPort::take(RequestConnection& connection, FrameReader::Result result,
                       const FrameReader::Item& item, TimePoint now)
{
    ++connection.messages;
    const Refusals::From from(mRefusals, connection);
    if (result != FrameReader::Result::Message)
        mRefusals.reportLong("Request", result == FrameReader::Result::Endless, mLimits.messageBytes);
    connection.isTooLong = result != FrameReader::Result::Message;
    // A message without a leading delimiter is not a request, and is refused like a malformed one.
    const bool isRequest = item.firstIsEmpty && item.frames > 1 && !connection.isTooLong;
    connection.request.assign(isRequest ? item.body : std::string_view());
    connection.askedAt = now;
    if (!connection.hasAsked)
        connection.isReturning = isReturning(connection, now);
    connection.hasAsked = true;
    removeFrom(mHeld, &connection);
    const bool isTimeNeeded = connection.emptyAnswer.isPonged(); // asking the kernel costs a system call
    switch (connection.emptyAnswer.asked(isTimeNeeded ? connection.lastArrival(now) : now))
    {
    case EmptyAnswer::Verdict::Drop:
        return;
    case EmptyAnswer::Verdict::Hold:
        return mHeld.push_back(&connection);
    case EmptyAnswer::Verdict::Answer:
        return ask(connection);
    }
}

// A new client says "Sync" at once. The arrival counts, as the broker may have been too busy to read it.
bool RequestPort::isReturning(const RequestConnection& connection, TimePoint now) const
{
    return connection.request != BrokerProtocol::syncWord ||
           connection.lastArrival(now) - connection.readyAt > newClientsPause;
}

void RequestPort::ask(RequestConnection& connection)
{
    connection.isAsking = true;
    mOnRequest(connection);
}

void RequestPort::reply(RequestConnection& connection, Reply reply)
{
    connection.reply = std::move(reply);
    connection.startProbe = StartProbe(); // a late PONG is ignored
    send(connection, Reply::pieceBytes);
    update(connection);
}

void RequestPort::sendLong(TimePoint end)
{
    while (!mLong.empty())
    {
        RequestConnection& connection = *mLong.front();
        mLong.pop_front();
        connection.isInTurn = false;
        send(connection, longTurnBytes);
        update(connection);
        if (Clock::now() >= end)
            return;
    }
}

// Sends the waiting output, and about this much more of the reply. When all of it is sent, the next request
// is read.
void RequestPort::send(RequestConnection& connection, std::size_t most)
{
    Reply::Shows shows;
    if (!Guard::answersWithAll(connection))
        shows = [&](Reply::Kind kind, std::string_view name)
        {
            return kind == Reply::Kind::Value ? mGuard.answersWith(connection, name)
                                              : mGuard.lists(connection, name);
        };
    std::string piece;
    std::size_t sent = 0;
    while (connection.flush() && connection.reply && sent < most)
    {
        piece.clear();
        const bool isLast = connection.reply->produce(mState, shows, Reply::pieceBytes, piece);
        if (isLast)
            connection.reply.reset();
        connection.send(piece);
        sent += piece.size();
    }
    connection.answerBytes += sent;
    if (connection.hasOutput() || !connection.isAsking || connection.isDead())
        return;
    if (!connection.reply)
        finish(connection);
    else if (!std::exchange(connection.isInTurn, true))
        mLong.push_back(&connection);
}

// The reply is sent.
void RequestPort::finish(RequestConnection& connection)
{
    connection.isAsking = false;
    connection.turn.answered(std::exchange(connection.answerBytes, 0));
    if (connection.request.capacity() > keptBytes)
        std::string().swap(connection.request);
    const std::string unread = std::exchange(connection.unread, {});
    take(connection, unread, Clock::now());
}

TimePoint RequestPort::due() const
{
    TimePoint due = Port::due();
    if (!mSilent.empty())
        due = std::min(due, mSilent.front()->openedAt + silence);
    if (!mHeld.empty())
        due = std::min(due, mHeld.front()->emptyAnswer.heldUntil());
    return due;
}

void RequestPort::doWhatIsDue(TimePoint now)
{
    Port::doWhatIsDue(now);
    while (!mSilent.empty() && mSilent.front()->openedAt + silence <= now)
    {
        RequestConnection& connection = *mSilent.front();
        mSilent.pop_front();
        sendEmptyAnswer(connection, now);
    }
    releaseHeld(now);
}

// Sends it unless a question is already waiting to be read.
void RequestPort::sendEmptyAnswer(RequestConnection& connection, TimePoint now)
{
    if (!connection.hasAsked)
        read(connection, now);
    if (!connection.hasAsked && !connection.isUnfinished() && connection.knowsPing() &&
        !connection.isDealer())
    {
        connection.emptyAnswer.sent();
        // In this order: a question that arrives before PONG was then sent before the empty answer arrived,
        // even if the two are split.
        connection.sendCommand(Ping::command(emptyContext));
        connection.send(emptyAnswer);
    }
    update(connection);
}

// Answers held questions, unless the client has asked again. That question may still be unread.
void RequestPort::releaseHeld(TimePoint now)
{
    while (!mHeld.empty() && mHeld.front()->emptyAnswer.heldUntil() <= now)
    {
        RequestConnection& connection = *mHeld.front();
        read(connection, now);
        if (connection.emptyAnswer.isHolding())
        {
            removeFrom(mHeld, &connection);
            connection.emptyAnswer.release();
            ask(connection);
        }
        update(connection);
    }
}

// Acts on the data that the connection has received or sent.
void RequestPort::update(RequestConnection& connection)
{
    if (connection.isDead())
        return close(connection);
    mBudget.update(connection.accounted, connection.heldBytes());
    const uint32_t reading = connection.polled & EPOLLIN;
    poll(connection, (connection.isAsking ? reading : static_cast<uint32_t>(EPOLLIN)) |
                         (connection.hasOutput() ? EPOLLOUT : 0U));
}

bool RequestPort::hasOutput() const
{
    return std::any_of(peers().begin(), peers().end(),
                       [](const auto& connection) { return connection->hasOutput() || connection->reply; });
}

// Closing a connection with unread data resets it, and its last output may be lost. So this announces the
// end, and reads until the client has closed, too.
void RequestPort::sayGoodbye(TimePoint end)
{
    for (const auto& connection : peers())
        connection->shutDownOutput();
    const auto isGone = [this, end](const auto& connection)
    {
        while (Clock::now() < end && connection->receive(mBuffer.data(), mBuffer.size()) != 0)
            continue;
        return connection->isDead();
    };
    while (Clock::now() < end && !std::all_of(peers().begin(), peers().end(), isGone))
        usleep(pauseMicroseconds);
}
