#ifndef BROKER_WIRE_CONNECTION_H
#define BROKER_WIRE_CONNECTION_H

#include <cstdint>
#include <list>
#include <string>
#include <string_view>
#include <sys/uio.h>

#include "broker/base/Clock.h"
#include "broker/base/Descriptor.h"
#include "broker/base/Progress.h"
#include "broker/base/Refusals.h"
#include "broker/peer/Identity.h"
#include "broker/wire/FrameReader.h"
#include "broker/wire/Handshake.h"
#include "broker/wire/Poller.h"

class PolicyClass;
struct UserAccount;

/// One TCP connection of a peer: its handshake, what it sends as messages and commands, and what has been
/// sent to it as far as the kernel did not take it.
class Connection : public Pollable, public Refused
{
public:
    Connection(Descriptor socket, Handshake::Kind kind, TimePoint now);
    virtual ~Connection() = default;

    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    int descriptor() const { return mSocket.number(); }
    Handshake::Kind kind() const { return mKind; }
    TimePoint acceptedAt() const { return mAcceptedAt; }

    /// Begins the handshake. A peer that hears nothing has sent nothing that it would not send again.
    void greet();

    /// Its handshake is complete. Only then may anything be sent.
    bool isOpen() const { return mState == State::Open; }

    /// Has broken the protocol, or lost its peer: to be closed. Nothing is sent or received any more.
    bool isDead() const { return mState == State::Dead; }
    void kill() { mState = State::Dead; }

    /// The peer has said that nothing more comes, though there may be something to be read.
    bool hasPeerEnded() const;

    /// How many bytes have arrived that are not read.
    std::size_t arrivals() const;

    bool isClosed() const { return !mSocket.isOpen(); }

    /// How many of the bytes sent the peer's system may not have.
    std::size_t unacknowledgedBytes() const;

    /// Tells the peer that nothing more comes.
    void shutDownOutput();

    void closeSocket()
    {
        kill();
        mSocket.close();
    }

    bool knowsPing() const { return mHandshake.knowsPing(); }

    /// Reads once, as much as fits into the buffer. next() takes the bytes from there.
    /// @returns how many bytes; fewer than fit if no more were there
    std::size_t receive(char* buffer, std::size_t size);

    /// When the last bytes have arrived, however late they were read.
    TimePoint lastArrival(TimePoint now) const;

    /// Reads the next item from the bytes that receive() has returned, or that were left over. NeedsMore when
    /// they are used up, or when the connection is dead. A connection is dead behind an Endless message.
    /// @param opened set where the handshake has just been completed
    FrameReader::Result next(std::string_view& bytes, std::size_t mostBytes, FrameReader::Item& item,
                             bool& opened);

    /// Sends bytes behind what waits already; what the kernel does not take now, waits.
    void send(std::string_view bytes);
    void sendCommand(std::string_view command);

    /// Bytes to be sent behind others, by flush().
    std::string& output() { return mOutput; }

    /// Sends what waits. True if nothing does any more.
    bool flush();

    /// Sends pieces of memory, nothing else waiting. Returns how many bytes the kernel has taken.
    std::size_t sendPieces(const iovec* pieces, std::size_t count);

    bool hasOutput() const { return mOutput.size() != mSent; }
    std::size_t outputBytes() const { return mOutput.size() - mSent; }

    /// Memory that it holds.
    std::size_t heldBytes() const { return mReader.heldBytes() + mOutput.capacity(); }

    bool isUnfinished() const { return mReader.isUnfinished(); }

    /// Bytes that it has received from the peer, and sent to it.
    uint64_t receivedBytes() const { return mReceivedBytes; }
    uint64_t sentBytes() const { return mSentBytes; }
    uint64_t movedBytes() const { return mReceivedBytes + mSentBytes; }

    /// The peer at its other end.
    Identity identity;
    /// The rules for that client; null until it is admitted.
    const PolicyClass* rights = nullptr;
    /// The share of its user; null where the policy has no quotas.
    UserAccount* account = nullptr;
    /// Posts or requests of it, malformed ones, too.
    uint64_t messages = 0;
    /// Its place among those in the middle of their handshake; the port's.
    std::list<Connection*>::iterator opening;
    /// The events that the poller was last asked to report.
    uint32_t polled = 0;
    /// The bytes that the budget of memory was last told.
    std::size_t accounted = 0;
    /// For the choice of the connection to close.
    Progress progress;

private:
    enum class State
    {
        Greeting,
        Ready, ///< to come
        Open,
        Dead,
    };

    bool answerPing(std::string_view command);
    std::size_t sent(ssize_t result);
    std::size_t taken(ssize_t result, uint64_t& counter);

    Descriptor mSocket;
    const Handshake::Kind mKind;
    const TimePoint mAcceptedAt;
    State mState = State::Greeting;
    Handshake mHandshake;
    FrameReader mReader;
    std::string mOutput;
    std::size_t mSent = 0; ///< of the output
    bool mIsDeaf = false;  ///< the peer takes nothing any more
    uint64_t mReceivedBytes = 0;
    uint64_t mSentBytes = 0;
};

#endif
