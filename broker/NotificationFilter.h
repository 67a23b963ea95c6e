#ifndef BROKER_NOTIFICATIONFILTER_H
#define BROKER_NOTIFICATIONFILTER_H

#include <string>

#include "broker/FilteredMessages.h"
#include "broker/wire/Connection.h"
#include "broker/wire/NotificationLog.h"
#include "protocol/BrokerDocuments.h"

class Guard;

/// Finds the parts of logged notifications that the policy lets a subscriber see.
class NotificationFilter
{
public:
    /// Both arguments must outlive this object.
    NotificationFilter(Guard& guard, const NotificationLog& log) : mGuard(guard), mLog(log) {}

    /// The part of a message that a client may see; empty if it may see nothing.
    /// @returns the text, valid until the next call
    const std::string& partFor(Connection& client, NotificationLog::Position begin,
                               NotificationLog::Position end);

    /// The policy has changed.
    void clear() { mParts.clear(); }

private:
    std::string find(Connection& client, NotificationLog::Position begin, NotificationLog::Position end);

    Guard& mGuard;
    const NotificationLog& mLog;
    FilteredMessages mParts;
    BrokerProtocol::Command mUpdate; ///< the message that is being filtered
};

#endif
