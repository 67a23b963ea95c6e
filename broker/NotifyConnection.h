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
        0;                    ///< Following, some messages: the one at the position, as far as known
    uint64_t revision = 0;    ///< Behind: knows the values up to this one
    uint64_t eventsKnown = 0; ///< Behind: knows, or cannot want, the events up to this one
    /// Behind: the value to go on with, if it still has this revision. Its last change is behind `revision`.
    const DeviceState::Value* nextValue = nullptr;
    uint64_t nextValueRevision = 0;
    ToldRevision told;
    std::vector<std::string> prefixes; ///< of the messages that it wants; as subscribed, also twice
    bool isFull = false;               ///< the kernel takes no more until it says so
    TimePoint tookAt{};                ///< when it last took something
    bool hasBeenFull = false;
    bool isReader = false;      ///< took more after it had been full
    std::size_t sendBuffer = 0; ///< that the kernel was asked for

    bool isFiltered = false; ///< may not be told of everything

    bool followsAll() const { return state == State::Following && wantsAll(); }
    bool hasNoPrefix() const { return prefixes.size() == 1 && prefixes.front().empty(); }
    bool wantsAll() const { return !isFiltered && hasNoPrefix(); }
    bool wants(std::string_view message) const;

    /// Asks the kernel for a buffer of so many bytes.
    void resizeSendBuffer(std::size_t size);

    /// When it is closed, the kernel holds nothing more for it, which it would for minutes if the peer has
    /// stopped.
    void dropOutput();
};

#endif
