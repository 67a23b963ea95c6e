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

/// Requests between being read and being answered. A request waits for the posts that were made before it. A
/// client's first "Sync" waits until the client's posts can arrive.
class Questions
{
public:
    /// All references must outlive this object.
    Questions(Answerer& answerer, Outbox& outbox, Connections& connections, Refusals& refusals,
              const DeviceState& state, TimePoint serving);

    void ask(RequestConnection& connection) { mNew.push_back(&connection); }

    /// The connection has gone.
    void forget(RequestConnection& connection);

    /// Answers every request that can be answered by now, until `end`.
    void answer(TimePoint now, TimePoint end);

    /// Answers every waiting request: the broker ends.
    void answerAll();

    /// When to call answer() although nothing has arrived.
    TimePoint due() const;

private:
    struct Waiting
    {
        RequestConnection* connection;
        uint64_t barrier;
        bool isSync;
        TimePoint opened;                                 ///< when the barrier opened
        std::vector<std::shared_ptr<const OwnProbe>> own; ///< probes of the same client's post connections
    };

    using Queue = std::deque<Waiting>; ///< in the order of their barriers

    void sortNew(TimePoint now);
    TimePoint endOfWait(const Waiting& each) const;
    void answerSome(Queue& queue, TimePoint now, TimePoint end);
    void start(TimePoint now);
    bool hadItsTurns(RequestConnection& connection, TimePoint now);
    bool isPosterIgnored(RequestConnection& connection, TimePoint now);
    bool wasUnconfirmed(RequestConnection& connection);
    bool lacksPoster(RequestConnection& connection, TimePoint now);
    bool acceptPosts();
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
    Queue mDear;                               // whose answers may be long
    std::vector<RequestConnection*> mStarting; // oldest first
    TimePoint mNextLook{};                     // at starting clients
    uint64_t mNewsSeen = 0;                    // of the start news, at the last look
    TimePoint mNextEnd = TimePoint::max();     // of a wait
    bool mHasLeftOver = false;                 // more could be answered, but the time was up
};

#endif
