// Notifications, as the library reads them.

#include "fuzz/Fuzz.h"
#include "protocol/ClientDocuments.h"

using BrokerProtocol::Notification;

namespace
{

std::string written(const Notification& notification)
{
    return notification.kind == Notification::Kind::StatusUpdate
               ? BrokerProtocol::writeStatusUpdate(notification.members)
               : BrokerProtocol::writeEventUpdate(notification.members);
}

bool isUpdate(const Notification& notification)
{
    return notification.kind == Notification::Kind::StatusUpdate ||
           notification.kind == Notification::Kind::EventUpdate;
}

std::optional<Notification> readUpdate(const std::string& text)
{
    const Notification notification = BrokerProtocol::readNotification(text);
    if (isUpdate(notification))
        return notification;
    Fuzz::require(notification.members.empty(), "nothing is delivered of what is no update");
    return std::nullopt;
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    Fuzz::requireRoundTrip(readUpdate, written, Fuzz::textOf(data, size));
    return 0;
}
