#include "broker/Questions.h"

#include <algorithm>
#include <utility>

#include "broker/base/RemoveFrom.h"
#include "protocol/Words.h"

namespace
{

// How often to look at a held start, and at one that has been held for long.
constexpr std::chrono::milliseconds startPause{1};
constexpr std::chrono::milliseconds longStart{600};
constexpr std::chrono::milliseconds longStartPause{20};

// The most connections accepted at a time for a start.
constexpr uint64_t manyConnections = 256;

// A client whose attempts to connect its post connection were ignored tries again after one, three and seven
// seconds. Then it is started without a confirmation.
constexpr std::chrono::seconds longestConnecting{8};
constexpr std::chrono::seconds memoryOfCrowds{2 * longestConnecting};

// How long subscribers of an earlier broker may take to come back. They may lack its last changes.
constexpr std::chrono::seconds restartMemory{30};

} // namespace

Questions::Questions(Answerer& answerer, Outbox& outbox, Connections& connections, Refusals& refusals,
                     const DeviceState& state, TimePoint serving)
    : mAnswerer(answerer), mOutbox(outbox), mConnections(connections), mPosts(connections.posts()),
      mRequests(connections.requests()), mNotify(connections.notify()), mRefusals(refusals), mState(state),
      mReturnTime(serving), mGate(serving)
{
    mNotify.catchUp().disconnected(0, serving, restartMemory);
}

void Questions::forget(RequestConnection& connection)
{
    removeFrom(mNew, &connection);
    removeFrom(mStarting, &connection);
    for (Queue* queue : {&mWaiting, &mDear})
        queue->erase(std::remove_if(queue->begin(), queue->end(),
                                    [&](const Waiting& each) { return each.connection == &connection; }),
                     queue->end());
}

void Questions::answer(TimePoint now, TimePoint end)
{
    mHasLeftOver = false;
    if (!mNew.empty())
        sortNew(now);
    start(now);
    mNextEnd = TimePoint::max();
    answerSome(mWaiting, now, end);
    answerSome(mDear, now, end);
}

// Answers at least one request, so that the queue always moves.
void Questions::answerSome(Queue& queue, TimePoint now, TimePoint end)
{
    bool isTimeOver = false;
    for (auto each = queue.begin(); each != queue.end();)
    {
        if (const TimePoint awaited = endOfWait(*each); awaited > now)
        {
            mNextEnd = std::min(mNextEnd, awaited);
            ++each;
            continue;
        }
        if (isTimeOver)
        {
            mHasLeftOver = true;
            return;
        }
        const Waiting answered = std::move(*each);
        each = queue.erase(each);
        answerOne(answered, mConnections.isUnreadBefore(*answered.connection, answered.barrier));
        isTimeOver = Clock::now() >= end || mOutbox.isFull();
    }
}

TimePoint Questions::endOfWait(const Waiting& each) const
{
    const TimePoint end = mConnections.endOfWait(*each.connection, each.barrier, each.isSync, each.opened);
    const bool mayLack = std::any_of(each.own.begin(), each.own.end(),
                                     [&](const auto& probe) { return probe->lacks(each.barrier); });
    return mayLack ? std::max(end, each.opened + OwnProbe::longest) : end;
}

// All requests of this round share one barrier.
void Questions::sortNew(TimePoint now)
{
    std::vector<Waiting> behindPosts;
    std::vector<RequestConnection*> clients;
    bool hasSync = false;
    for (RequestConnection* connection : mNew)
    {
        const bool isSync = connection->request == BrokerProtocol::syncWord;
        if (isSync)
            mAnswerer.countSync();
        if (isSync && !connection->isStarted)
        {
            mStarting.push_back(connection);
            mNextLook = TimePoint();
        }
        else
        {
            behindPosts.push_back({connection, 0, isSync, now, {}});
            clients.push_back(connection);
        }
        hasSync = hasSync || isSync;
    }
    mNew.clear();
    if (behindPosts.empty())
        return;
    const uint64_t barrier = mConnections.openBarrier(clients, hasSync, now);
    for (Waiting& each : behindPosts)
    {
        each.barrier = barrier;
        if (each.isSync)
            each.own = mConnections.askOwnPosters(*each.connection, barrier, now);
        const bool isBehind = each.connection->turn.isBehind(each.connection->request.size());
        (isBehind ? mDear : mWaiting).push_back(std::move(each));
    }
}

// @param isTooEarly some posts that arrived earlier are still unread, so a "Sync" must not be confirmed
void Questions::answerOne(const Waiting& each, bool isTooEarly)
{
    RequestConnection& connection = *each.connection;
    const Refusals::From from(mRefusals, connection);
    if (each.isSync)
        acknowledge(connection,
                    isTooEarly || connection.lossesKnown != mPosts.losses() || wasUnconfirmed(connection));
    else if (connection.isTooLong)
        mOutbox.reply(connection, Reply(Answerer::refusal));
    else
        mOutbox.reply(connection, mAnswerer.answer(connection, connection.request));
}

void Questions::answerAll()
{
    const TimePoint now = Clock::now();
    sortNew(now);
    for (Queue* queue : {&mWaiting, &mDear})
        for (const Waiting& each : std::exchange(*queue, {}))
        {
            answerOne(each, endOfWait(each) > now);
            if (mOutbox.isFull())
                mOutbox.settle();
        }
    for (RequestConnection* connection : std::exchange(mStarting, {}))
        acknowledge(*connection, mayHaveLostPosts(*connection) || isPosterIgnored(*connection, now));
}

// --------------------------------------------------------------------------------------------------- start

void Questions::start(TimePoint now)
{
    if (mStarting.empty())
        return;
    const uint64_t news = mPosts.startNews() + mRequests.probed() + mPosts.arrived();
    if (now < mNextLook && news == mNewsSeen)
        return;
    mNewsSeen = news;
    const bool isLong = std::all_of(mStarting.begin(), mStarting.end(),
                                    [=](const auto* each) { return now - each->askedAt > longStart; });
    mNextLook = now + (isLong ? longStartPause : startPause);
    if (!acceptPosts())
        return;
    mPosts.readStarting(now);
    const std::size_t posts = mPosts.subscribed(now);
    const std::size_t clients = this->clients(now);
    const PostPort::Unsubscribed unsubscribed = mPosts.unsubscribed(now);
    const bool isReturnOver = mNotify.hasSubscribers() || !mReturnTime.isOn(now);
    for (RequestConnection* connection : std::vector<RequestConnection*>(mStarting))
    {
        const uint64_t arrived = *connection->postsArrived;
        const bool areSubscribed = unsubscribed.awaited > arrived;
        if ((!areSubscribed || unsubscribed.givenUp <= arrived || clients > posts) &&
            !hadItsTurns(*connection, now))
            continue;
        if (now - connection->askedAt < longestConnecting && isPosterIgnored(*connection, now))
            continue;
        if ((isReturnOver || !isDuringReturn(*connection)) &&
            mGate.opens(connection->askedAt, areSubscribed, clients, posts, now))
            startOne(*connection);
    }
}

// An unconfirmed or missing post connection may belong to this client.
bool Questions::hadItsTurns(RequestConnection& connection, TimePoint now)
{
    mRequests.probe(connection);
    return connection.startProbe.isOver(connection.askedAt, now);
}

// When a crowd fills the queue of waiting post connections, the kernel ignores the attempts of others. So the
// client's request connection may be here, and its post connection not: its posts would be lost.
bool Questions::isPosterIgnored(RequestConnection& connection, TimePoint now)
{
    return mPosts.lastFull() + memoryOfCrowds > now && lacksPoster(connection, now);
}

// Posts from before its post connection are lost. So its next "Sync" is not confirmed either.
bool Questions::wasUnconfirmed(RequestConnection& connection)
{
    if (!connection.isUnconfirmed)
        return false;
    connection.isUnconfirmed = lacksPoster(connection, Clock::now());
    return true;
}

bool Questions::lacksPoster(RequestConnection& connection, TimePoint now)
{
    connection.hasPoster = connection.hasPoster || mConnections.canPost(connection, now);
    return !connection.hasPoster;
}

// A client opens its post connection before its request connection, so that one has arrived by now. Returns
// false if there was no time to accept all of them.
bool Questions::acceptPosts()
{
    uint64_t arrived = 0;
    for (RequestConnection* connection : mStarting)
    {
        if (!connection->postsArrived)
            connection->postsArrived = mPosts.arrived();
        arrived = std::max(arrived, *connection->postsArrived);
    }
    if (arrived <= mPosts.accepted())
        return true;
    const uint64_t lacking = arrived - mPosts.accepted();
    const bool areMore =
        mPosts.accept(static_cast<std::size_t>(std::min(lacking, manyConnections)), Clock::now());
    return !areMore || lacking <= manyConnections;
}

void Questions::startOne(RequestConnection& connection)
{
    removeFrom(mStarting, &connection);
    mNotify.catchUp().acknowledged(mState.revision(), Clock::now());
    connection.isUnconfirmed = isPosterIgnored(connection, Clock::now());
    acknowledge(connection, connection.isUnconfirmed || mayHaveLostPosts(connection));
}

// Whether its first "Sync" comes from a client of an earlier broker, with which posts may have died. A new
// client says "Sync" at once, and only an old client has already subscribed.
bool Questions::mayHaveLostPosts(const RequestConnection& connection) const
{
    return connection.isReturning ||
           ((isDuringReturn(connection) || isSoonAfterLoss(connection)) && mNotify.hasSubscribers());
}

// Whether it was sent while clients of an earlier broker come back.
bool Questions::isDuringReturn(const RequestConnection& connection) const
{
    return mOutbox.isRestart() && mReturnTime.isOn(connection.askedAt);
}

// Whether it was sent soon after posts were lost with a connection that was closed here. The client's request
// connection may have been closed, too.
bool Questions::isSoonAfterLoss(const RequestConnection& connection) const
{
    return mPosts.losses() != 0 && connection.askedAt < mPosts.lastLoss() + ReturnTime::length;
}

void Questions::acknowledge(RequestConnection& connection, bool mayHaveLostPosts)
{
    connection.isStarted = true;
    connection.lossesKnown = mPosts.losses();
    mOutbox.reply(connection,
                  Reply(mayHaveLostPosts ? BrokerProtocol::syncLostWord : BrokerProtocol::syncAckWord));
}

// Clients of an earlier broker may not have asked anything yet, but their post connections count, too.
std::size_t Questions::clients(TimePoint now) const
{
    if (mGate.isYoung(now))
        return mRequests.openPeers();
    const auto& peers = mRequests.peers();
    return static_cast<std::size_t>(
        std::count_if(peers.begin(), peers.end(), [](const auto& peer) { return peer->hasAsked; }));
}

TimePoint Questions::due() const
{
    if (!mNew.empty() || mHasLeftOver)
        return TimePoint::min();
    return std::min(mNextEnd, mStarting.empty() ? TimePoint::max() : mNextLook);
}
