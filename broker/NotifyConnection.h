#ifndef BROKER_NOTIFYCONNECTION_H
#define BROKER_NOTIFYCONNECTION_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "broker/ToldRevision.h"
#include "broker/state/DeviceState.h"
#include "broker/wire/Connection.h"
#include "broker/wire/NotificationLog.h"

/// A subscriber.
class NotifyConnection : public Connection
{
public:
    using Connection::Connection;

    enum class State
    {
        Idle,      ///< has not subscribed
        Following, ///< reads the log
        Behind,    ///< the log has gone on without it: it gets the latest values first
    };

    State state = State::Idle;
    NotificationLog::Position position = 0; ///< Following
    NotificationLog::Number nextMessage =
        0;                    ///< Following, some messages: the message at the position, as far as known
    uint64_t revision = 0;    ///< Behind: it knows the values up to this revision
    uint64_t eventsKnown = 0; ///< Behind: it knows, or cannot want, the events up to this one
    /// Behind: the next value to send, if the value still has this revision. It changed after `revision`.
    const DeviceState::Value* nextValue = nullptr;
    uint64_t nextValueRevision = 0;
    ToldRevision told;
    std::vector<std::string> prefixes; ///< of the messages that it wants, as subscribed; may repeat
    bool isFull = false;               ///< the kernel takes no more until it reports room
    TimePoint tookAt{};                ///< when it last read something
    bool hasBeenFull = false;
    bool isReader = false;      ///< read more after it had been full
    std::size_t sendBuffer = 0; ///< the size requested from the kernel

    bool isFiltered = false; ///< may not see everything

    bool followsAll() const { return state == State::Following && wantsAll(); }
    bool hasNoPrefix() const { return prefixes.size() == 1 && prefixes.front().empty(); }
    bool wantsAll() const { return !isFiltered && hasNoPrefix(); }
    bool wants(std::string_view message) const;

    /// Requests a buffer of this many bytes from the kernel.
    void resizeSendBuffer(std::size_t size);

    /// Makes the kernel drop unsent output when the connection is closed. Otherwise it would hold the output
    /// for minutes if the peer has stopped.
    void dropOutput();
};

#endif
