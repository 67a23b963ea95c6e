#include "broker/Questions.h"

#include <algorithm>
#include <utility>

#include "protocol/Words.h"

namespace
{

// Requests up to this length are answered at once. A longer one asks for many values: it takes its turn
// behind.
constexpr std::size_t cheapBytes = 1024;

// A start is looked at so often while it is held, and one that has been held for long.
constexpr std::chrono::milliseconds startPause{1};
constexpr std::chrono::milliseconds longStart{600};
constexpr std::chrono::milliseconds longStartPause{20};

// Accepted at a time for the sake of a start.
constexpr uint64_t manyConnections = 256;

// Subscribers of an earlier broker may have missed the last of what it kept.
constexpr std::chrono::seconds restartMemory{30};

template <class List>
void removeFrom(List& list, RequestConnection* connection)
{
    list.erase(std::remove(list.begin(), list.end(), connection), list.end());
}

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

// At least one, so that nobody keeps others waiting for ever.
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
        answerOne(answered, mPosts.isUnreadBefore(answered.barrier));
        isTimeOver = Clock::now() >= end;
    }
}

TimePoint Questions::endOfWait(const Waiting& each) const
{
    const TimePoint end = mPosts.endOfWait(each.barrier, each.isSync, each.opened);
    const bool mayLack = std::any_of(each.own.begin(), each.own.end(),
                                     [&](const auto& probe) { return probe->lacks(each.barrier); });
    return mayLack ? std::max(end, each.opened + OwnProbe::longest) : end;
}

// All that came in this round share one barrier.
void Questions::sortNew(TimePoint now)
{
    std::vector<Waiting> behindPosts;
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
            behindPosts.push_back({connection, 0, isSync, now, {}});
        hasSync = hasSync || isSync;
    }
    mNew.clear();
    if (behindPosts.empty())
        return;
    const uint64_t barrier = mPosts.openBarrier(hasSync, now);
    for (Waiting& each : behindPosts)
    {
        each.barrier = barrier;
        if (each.isSync)
            each.own = mConnections.askOwnPosters(*each.connection, barrier, now);
        const bool isDear = each.connection->request.size() > cheapBytes;
        (isDear ? mDear : mWaiting).push_back(std::move(each));
    }
}

// @param isTooEarly the broker has not taken in all posts that had arrived before: a "Sync" is not confirmed
void Questions::answerOne(const Waiting& each, bool isTooEarly)
{
    RequestConnection& connection = *each.connection;
    const Refusals::From from(mRefusals, connection);
    if (each.isSync)
        acknowledge(connection, isTooEarly || connection.lossesKnown != mPosts.losses());
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
            answerOne(each, mPosts.endOfWait(each.barrier, each.isSync, each.opened) > now);
    for (RequestConnection* connection : std::exchange(mStarting, {}))
        acknowledge(*connection, mayHaveLostPosts(*connection));
}

// --------------------------------------------------------------------------------------------------- start

void Questions::start(TimePoint now)
{
    const uint64_t news = mPosts.startNews() + mRequests.probed() + mPosts.arrived();
    if (mStarting.empty() || (now < mNextLook && news == mNewsSeen))
        return;
    mNewsSeen = news;
    const bool isLong = std::all_of(mStarting.begin(), mStarting.end(),
                                    [=](const auto* each) { return now - each->askedAt > longStart; });
    mNextLook = now + (isLong ? longStartPause : startPause);
    if (!acceptPosts(now))
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
        if ((isReturnOver || !isDuringReturn(*connection)) &&
            mGate.opens(connection->askedAt, areSubscribed, clients, posts, now))
            startOne(*connection);
    }
}

// Where a post connection does not show that it has its subscription, or is missing, it may be this client's.
bool Questions::hadItsTurns(RequestConnection& connection, TimePoint now)
{
    mRequests.probe(connection);
    return connection.startProbe.isOver(connection.askedAt, now);
}

// A client's post connection was made before its request connection, and waits to be accepted at the latest.
// False if there was no time for all of them.
bool Questions::acceptPosts(TimePoint now)
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
    const bool areMore = mPosts.accept(static_cast<std::size_t>(std::min(lacking, manyConnections)), now);
    return !areMore || lacking <= manyConnections;
}

void Questions::startOne(RequestConnection& connection)
{
    removeFrom(mStarting, &connection);
    mNotify.catchUp().acknowledged(mState.revision(), Clock::now());
    acknowledge(connection, mayHaveLostPosts(connection));
}

// Its first "Sync" here is not that of a new client, but of one that an earlier broker knew: posts may have
// died with that. A new client says "Sync" at once, and only an old one has subscribed already.
bool Questions::mayHaveLostPosts(const RequestConnection& connection) const
{
    return connection.isReturning ||
           ((isDuringReturn(connection) || isSoonAfterLoss(connection)) && mNotify.hasSubscribers());
}

// Asked while clients of an earlier broker come back.
bool Questions::isDuringReturn(const RequestConnection& connection) const
{
    return mOutbox.isRestart() && mReturnTime.isOn(connection.askedAt);
}

// Asked while those may come back whose posts were lost with a connection that was closed here: their request
// connections may have been closed, too.
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

// Clients from before the broker need not have asked it anything yet, but their post connections count, too.
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
