#ifndef BROKER_NOTIFICATIONFILTER_H
#define BROKER_NOTIFICATIONFILTER_H

#include <string>

#include "broker/FilteredMessages.h"
#include "broker/wire/Connection.h"
#include "broker/wire/NotificationLog.h"
#include "protocol/BrokerDocuments.h"

class Guard;

/// Finds the parts of notifications in the log that subscribers may be told of by the policy.
class NotificationFilter
{
public:
    /// Both must outlive it.
    NotificationFilter(Guard& guard, const NotificationLog& log) : mGuard(guard), mLog(log) {}

    /// The part of a message that a client may be told of; empty if it may be told of nothing.
    /// @returns the text, until the next call
    const std::string& partFor(Connection& client, NotificationLog::Position begin,
                               NotificationLog::Position end);

    /// The policy has changed.
    void clear() { mParts.clear(); }

private:
    std::string find(Connection& client, NotificationLog::Position begin, NotificationLog::Position end);

    Guard& mGuard;
    const NotificationLog& mLog;
    FilteredMessages mParts;
    BrokerProtocol::Command mUpdate; ///< that is filtered
};

#endif
