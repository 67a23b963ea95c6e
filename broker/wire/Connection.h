#ifndef BROKER_WIRE_CONNECTION_H
#define BROKER_WIRE_CONNECTION_H

#include <cstdint>
#include <list>
#include <string>
#include <string_view>
#include <sys/uio.h>

#include "broker/base/Progress.h"
#include "broker/base/Refusals.h"
#include "broker/peer/Identity.h"
#include "broker/wire/FrameReader.h"
#include "broker/wire/Handshake.h"
#include "broker/wire/Poller.h"
#include "daemon/Clock.h"
#include "daemon/Descriptor.h"

class PolicyClass;
struct UserAccount;

/// One TCP connection of a peer: its handshake, its incoming messages and commands, and the output that the
/// kernel has not taken yet.
class Connection : public Pollable, public Refused
{
public:
    /// Whether the peer of a socket has ended the connection without a word.
    static bool hasEnded(const Descriptor& socket);

    Connection(Descriptor socket, Handshake::Kind kind, TimePoint now);
    virtual ~Connection() = default;

    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    int descriptor() const { return mSocket.number(); }
    Handshake::Kind kind() const { return mKind; }
    TimePoint acceptedAt() const { return mAcceptedAt; }

    /// Begins the handshake. A peer that received nothing has sent nothing that it would not repeat.
    void greet();

    /// Whether its handshake is complete. Nothing may be sent before.
    bool isOpen() const { return mState == State::Open; }

    /// Whether the connection must be closed: the peer broke the protocol, or is gone. Nothing is sent or
    /// received any more.
    bool isDead() const { return mState == State::Dead; }
    void kill() { mState = State::Dead; }

    /// Whether the peer has ended its side. There may still be something to read.
    bool hasPeerEnded() const;

    /// How many bytes have arrived unread.
    std::size_t arrivals() const;

    bool isClosed() const { return !mSocket.isOpen(); }

    /// How many of the sent bytes the peer's system may not have received.
    std::size_t unacknowledgedBytes() const;

    /// Announces to the peer that nothing more follows.
    void shutDownOutput();

    void closeSocket()
    {
        kill();
        mSocket.close();
    }

    bool knowsPing() const { return mHandshake.knowsPing(); }
    bool isDealer() const { return mHandshake.isDealer(); }

    /// Reads once, as much as fits into the buffer. next() takes the bytes apart.
    /// @returns how many bytes; fewer than fit if no more had arrived
    std::size_t receive(char* buffer, std::size_t size);

    /// When the last bytes arrived, even if they were read much later.
    TimePoint lastArrival(TimePoint now) const;

    /// Takes the next item from the bytes of receive(). Returns NeedsMore when they are used up, or the
    /// connection is dead. An Endless message makes the connection dead.
    /// @param opened set if the handshake has just been completed
    FrameReader::Result next(std::string_view& bytes, std::size_t mostBytes, FrameReader::Item& item,
                             bool& opened);

    /// Sends bytes behind the waiting output; what the kernel does not take now stays there.
    void send(std::string_view bytes);
    void sendCommand(std::string_view command);

    /// The output that flush() sends; append to it.
    std::string& output() { return mOutput; }

    /// Sends waiting output. Returns true if none is left.
    bool flush();

    /// Sends pieces of memory; no output may be waiting. Returns how many bytes the kernel has taken.
    std::size_t sendPieces(const iovec* pieces, std::size_t count);

    bool hasOutput() const { return mOutput.size() != mSent; }
    std::size_t outputBytes() const { return mOutput.size() - mSent; }

    /// Memory that the connection holds.
    std::size_t heldBytes() const { return mReader.heldBytes() + mOutput.capacity(); }

    bool isUnfinished() const { return mReader.isUnfinished(); }

    /// Bytes received from the peer, and sent to it.
    uint64_t receivedBytes() const { return mReceivedBytes; }
    uint64_t sentBytes() const { return mSentBytes; }
    uint64_t movedBytes() const { return mReceivedBytes + mSentBytes; }

    /// The peer at the other end.
    Identity identity;
    /// The rules for the peer; null until it is admitted.
    const PolicyClass* rights = nullptr;
    /// The account of its user; null where the policy has no quotas.
    UserAccount* account = nullptr;
    /// Its posts or requests, including malformed ones.
    uint64_t messages = 0;
    /// Its place in the port's list of unfinished handshakes.
    std::list<Connection*>::iterator opening;
    /// The events that the poller was last asked to report.
    uint32_t polled = 0;
    /// The bytes last reported to the memory budget.
    std::size_t accounted = 0;
    /// Used to choose the connection to close.
    Progress progress;

private:
    enum class State
    {
        Greeting,
        Ready, ///< READY is still to come
        Open,
        Dead,
    };

    bool answerPing(std::string_view command);
    void appendCommand(std::string_view command);
    std::size_t sent(ssize_t result);
    std::size_t taken(ssize_t result, uint64_t& counter);

    Descriptor mSocket;
    const Handshake::Kind mKind;
    const TimePoint mAcceptedAt;
    State mState = State::Greeting;
    Handshake mHandshake;
    FrameReader mReader;
    std::string mOutput;
    std::size_t mSent = 0;     ///< bytes of the output
    bool mHasAnswered = false; ///< a PING, and the answer has not been sent
    bool mMayHaveRoom = true;  ///< not tried in vain since the last read
    bool mIsDeaf = false;      ///< the peer takes nothing more
    uint64_t mReceivedBytes = 0;
    uint64_t mSentBytes = 0;
};

#endif
