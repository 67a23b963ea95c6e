#ifndef BROKER_REQUESTPORT_H
#define BROKER_REQUESTPORT_H

#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <string>

#include "broker/AnswerTurn.h"
#include "broker/ConnectionLimit.h"
#include "broker/EmptyAnswer.h"
#include "broker/PortEnvironment.h"
#include "broker/Reply.h"
#include "broker/StartProbe.h"
#include "broker/wire/Port.h"

/// A connection on which a client asks. It serves one question at a time: the next is read when the last
/// answer has left.
class RequestConnection : public Connection
{
public:
    using Connection::Connection;

    std::string request;    ///< the request that is being answered
    bool isTooLong = false; ///< the request was too long, and is not stored
    bool isAsking = false;  ///< a request is waiting for its answer
    bool hasAsked = false;  ///< ever
    TimePoint openedAt{};
    TimePoint readyAt{}; ///< when the end of its handshake arrived
    TimePoint askedAt{};
    std::optional<Reply> reply;  ///< the part that was not yet handed to the connection
    bool isInTurn = false;       ///< more of it is to be produced
    std::size_t answerBytes = 0; ///< of the answer, so far
    AnswerTurn turn;
    std::string unread; ///< received behind the request

    bool isStarted = false;     ///< its first "Sync" has been answered
    bool hasPoster = false;     ///< posts can arrive from its client
    bool isUnconfirmed = false; ///< it was started without a post connection, which may have been ignored
    bool isReturning = false;   ///< its first message is not "Sync", or came too late for a new client
    uint64_t lossesKnown = 0;   ///< the last loss of posts that was reported to it
    /// How many post connections had arrived before its first "Sync" was read. Its own is among them.
    std::optional<uint64_t> postsArrived;
    StartProbe startProbe;

    EmptyAnswer emptyAnswer;

    std::size_t heldBytes() const
    {
        return Connection::heldBytes() + request.capacity() + unread.capacity() +
               (reply ? reply->heldBytes() : 0);
    }
};

/// The port on which clients ask and are answered.
///
/// A client whose question was under way when an earlier broker ended waits forever for the answer on its new
/// connection: its socket does not send the question again. An empty answer makes the client ask again. So
/// each connection that has said nothing for a while gets an empty answer. It means nothing to a client
/// without a question under way. EmptyAnswer handles a question that crosses the empty answer.
class RequestPort : public Port<RequestConnection>
{
public:
    /// Called for a connection that asks. Answer it with reply(), now or later.
    using OnRequest = std::function<void(RequestConnection&)>;
    using OnClose = std::function<void(RequestConnection&)>;

    /// A new client says "Sync" within milliseconds.
    static constexpr std::chrono::milliseconds newClientsPause{250};

    /// A connection that has said nothing for this long gets an empty answer.
    static constexpr std::chrono::milliseconds silence{1000};

    /// All references must outlive this object.
    RequestPort(const PortEnvironment& environment, const DeviceState& state, OnRequest onRequest,
                OnClose onClose);

    void serve(RequestConnection& connection, uint32_t what, TimePoint now);
    void reply(RequestConnection& connection, Reply reply);

    /// Produces and sends more of long answers, in turn, until this time. An answer's first piece leaves at
    /// once. So a short one does not wait for the long ones of others.
    void sendLong(TimePoint end);

    /// Whether more of a long answer can be sent.
    bool hasLong() const { return !mLong.empty(); }

    /// Sends a PING if the connection's start probe has one due. The connection must have a question.
    void probe(RequestConnection& connection);

    /// Counts the answers to such PINGs.
    uint64_t probed() const { return mProbed; }

    TimePoint due() const override;
    void doWhatIsDue(TimePoint now) override;

    /// Whether answers wait that the kernel did not take.
    bool hasOutput() const;

    /// Closes all connections so that each client still gets its last answer, even if it has asked again
    /// meanwhile.
    void sayGoodbye(TimePoint end);

private:
    std::size_t most() const override { return mLimit.most(); }
    void onFull() override { mLimit.full(); }
    bool isAdmitted(RequestConnection& connection) override { return mGuard.admit(connection); }
    void onAccepted(RequestConnection& connection) override
    {
        mLimit.added(peers().size(), connection.acceptedAt());
    }
    void onClose(RequestConnection& connection) override;
    void read(RequestConnection& connection, TimePoint now) override;

    void readProbe(RequestConnection& connection);
    void take(RequestConnection& connection, std::string_view bytes, TimePoint now);
    bool isReturning(const RequestConnection& connection, TimePoint now) const;
    void takePong(RequestConnection& connection, std::string_view context, TimePoint now);
    void take(RequestConnection& connection, FrameReader::Result result, const FrameReader::Item& item,
              TimePoint now);
    void ask(RequestConnection& connection);
    void sendEmptyAnswer(RequestConnection& connection, TimePoint now);
    void releaseHeld(TimePoint now);
    void send(RequestConnection& connection, std::size_t most);
    void finish(RequestConnection& connection);
    void update(RequestConnection& connection) override;

    MemoryBudget& mBudget;
    const Limits& mLimits;
    Refusals& mRefusals;
    Guard& mGuard;
    const DeviceState& mState;
    OnRequest mOnRequest;
    OnClose mOnClose;
    ConnectionLimit mLimit;
    std::deque<RequestConnection*> mSilent; // since their handshake, oldest first
    std::vector<RequestConnection*> mHeld;  // a question is held, behind an empty answer
    std::deque<RequestConnection*> mLong;   // in turn
    uint64_t mProbed = 0;
    std::vector<char> mBuffer;
};

#endif
