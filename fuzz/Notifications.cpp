// Notifications, as the library reads them.

#include "fuzz/Fuzz.h"
#include "statusmanager/BrokerProtocol.h"

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

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    const Notification notification = BrokerProtocol::readNotification(Fuzz::textOf(data, size));
    if (!isUpdate(notification))
    {
        Fuzz::require(notification.members.empty(), "nothing is delivered of what is no update");
        return 0;
    }
    const std::string first = written(notification);
    const Notification again = BrokerProtocol::readNotification(first);
    Fuzz::require(again.kind == notification.kind, "what was written is read");
    Fuzz::require(written(again) == first, "what was read is written again");
    return 0;
}
