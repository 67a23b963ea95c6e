#ifndef BROKER_QUESTIONS_H
#define BROKER_QUESTIONS_H

#include <cstdint>
#include <deque>
#include <vector>

#include "broker/Answerer.h"
#include "broker/Connections.h"
#include "broker/Outbox.h"
#include "broker/ReturnTime.h"
#include "broker/StartGate.h"

/// Requests between being read and being answered: they wait for the posts that were made before them, and
/// the first "Sync" of a client for its posts to be able to arrive.
class Questions
{
public:
    /// All must outlive it.
    Questions(Answerer& answerer, Outbox& outbox, Connections& connections, Refusals& refusals,
              const DeviceState& state, TimePoint serving);

    void ask(RequestConnection& connection) { mNew.push_back(&connection); }

    /// A connection has gone.
    void forget(RequestConnection& connection);

    /// Answers what can be answered by now, as long as it is not later than `end`.
    void answer(TimePoint now, TimePoint end);

    /// Answers all that waits: the broker ends.
    void answerAll();

    bool isEmpty() const { return mNew.empty() && mWaiting.empty() && mDear.empty() && mStarting.empty(); }

    /// When answer() is to be called although nothing has come.
    TimePoint due() const;

private:
    struct Waiting
    {
        RequestConnection* connection;
        uint64_t barrier;
        bool isSync;
        TimePoint opened;                                 ///< the barrier
        std::vector<std::shared_ptr<const OwnProbe>> own; ///< posters that may hold something back
    };

    using Queue = std::deque<Waiting>; ///< in the order of their barriers

    void sortNew(TimePoint now);
    TimePoint endOfWait(const Waiting& each) const;
    void answerSome(Queue& queue, TimePoint now, TimePoint end);
    void start(TimePoint now);
    bool hadItsTurns(RequestConnection& connection, TimePoint now);
    bool acceptPosts(TimePoint now);
    void startOne(RequestConnection& connection);
    bool mayHaveLostPosts(const RequestConnection& connection) const;
    bool isDuringReturn(const RequestConnection& connection) const;
    bool isSoonAfterLoss(const RequestConnection& connection) const;
    void answerOne(const Waiting& each, bool isTooEarly);
    void acknowledge(RequestConnection& connection, bool mayHaveLostPosts);
    std::size_t clients(TimePoint now) const;

    Answerer& mAnswerer;
    Outbox& mOutbox;
    Connections& mConnections;
    PostPort& mPosts;
    RequestPort& mRequests;
    NotifyPort& mNotify;
    Refusals& mRefusals;
    const DeviceState& mState;
    const ReturnTime mReturnTime;
    StartGate mGate;
    std::vector<RequestConnection*> mNew;
    Queue mWaiting;                            // for posts
    Queue mDear;                               // those that take long to answer
    std::vector<RequestConnection*> mStarting; // oldest first
    TimePoint mNextLook{};                     // at what starts
    uint64_t mNewsSeen = 0;                    // at the last look
    TimePoint mNextEnd = TimePoint::max();     // of a wait
    bool mHasLeftOver = false;                 // could be answered, but the time was over
};

#endif
